"""Makes the first request and those of redirects."""

import contextlib
import copy
import os
import re
import urllib.parse

from zancgi_request.body import Body, Stream, data_body, open_regular
from zancgi_request.cookies import Jar
from zancgi_request.failures import Failure, misused
from zancgi_request.form import Form
from zancgi_request.head import Head, shown
from zancgi_request.headers import Headers, Request, header_lines, make_headers
from zancgi_request.options import Settings
from zancgi_request.servers import SERVER_BY_NAME
from zancgi_request.url import Url, check_characters, complete_url, encoded, parse_url, usual_port
from zancgi_tools.answers import TOKEN


def split_path(settings: Settings, path: str, program: str) -> tuple[str, str]:
    """SCRIPT_NAME and PATH_INFO: the program's part of the path, and the rest."""
    script, info = settings.script_name, settings.path_info
    if script:
        if not (path + "/").startswith(script.rstrip("/") + "/"):
            misused(f"the URL's path {path!r} does not begin with --script-name {script!r}")
        return script, path[len(script) :]
    if info:
        return path.removesuffix(info), info
    if not SERVER_BY_NAME[settings.server].splits_path:
        return path, ""
    named = re.match(f"(.*?/{re.escape(os.path.basename(program))})(/.*)", path, re.DOTALL)
    return (named[1], named[2]) if named else (path, "")


def make_body(settings: Settings) -> tuple[Body | Stream | None, str]:
    """The body and its content type."""
    if settings.form:
        form = Form(settings)
        return form.body(), form.content_type()
    if settings.upload in ("-", ".") and settings.content_length == "none":
        return Stream(), ""
    if settings.upload:
        path = "-" if settings.upload == "." else settings.upload
        return Body([open_regular(path)]), ""
    if settings.data and not settings.get:
        return data_body(settings.data), "application/x-www-form-urlencoded"
    return None, ""


def add_data_to_query(url: Url, settings: Settings) -> None:
    if settings.get and settings.data:
        body = data_body(settings.data)
        items = os.fsdecode(body.read(body.length))
        url.uri += ("&" if url.query() else "" if url.uri.endswith("?") else "?") + items
        check_characters(url.uri)


def name_upload(url: Url, settings: Settings) -> None:
    """Like curl, adds the name of an uploaded file to a URL that ends with "/"."""
    path, question, query = url.uri.partition("?")
    if settings.upload and path.endswith("/") and settings.upload not in ("-", "."):
        path += encoded(os.path.basename(settings.upload))
    url.uri = path + question + query


def method_of(settings: Settings) -> str:
    if settings.method:
        if not re.fullmatch(TOKEN, settings.method):
            misused(f"not a method: {settings.method!r}")
        return settings.method
    if settings.head:
        return "HEAD"
    if settings.upload:
        return "PUT"
    return "POST" if settings.form or (settings.data and not settings.get) else "GET"


def declared_length(settings: Settings, headers: Headers, body: Body | Stream | None) -> str | None:
    if settings.content_length is not None:
        return None if settings.content_length == "none" else settings.content_length
    in_header = headers.get("Content-Length")
    if in_header is not None or headers.is_removed("Content-Length"):
        return in_header
    return str(body.length) if isinstance(body, Body) else None


def make_first_request(settings: Settings, jar: Jar) -> Request:
    url = parse_url(settings.url)
    complete_url(url, settings)
    name_upload(url, settings)
    add_data_to_query(url, settings)
    # Only once, because a file may be standard input.
    settings.headers = list(header_lines(settings.headers))
    body, content_type = make_body(settings)
    return make_request(settings, method_of(settings), url, body, content_type, jar)


def make_request(
    settings: Settings,
    method: str,
    url: Url,
    body: Body | Stream | None,
    content_type: str,
    jar: Jar,
) -> Request:
    script_name, path_info = split_path(settings, url.path(), settings.program)
    headers = make_headers(settings, url, content_type, jar)
    length = declared_length(settings, headers, body)
    return Request(method, url, script_name, path_info, headers, body, content_type, length)


def again(settings: Settings, request: Request, jar: Jar) -> Request:
    return make_request(
        settings, request.method, request.url, request.body, request.content_type, jar
    )


def follow(settings: Settings, request: Request, head: Head, jar: Jar) -> Request | None:
    """The request that a redirect leads to; None if there is none to follow."""
    location = head.get("location")
    if head.status not in REDIRECTS or not location:
        return None
    url = redirect_target(request, location)
    if url is None:
        head.notes.append(
            f"the redirect to {shown(location)} is not followed: it leads to another program "
            f"or host"
        )
        return None
    method, body, content_type = request.method, request.body, request.content_type
    settings = copy.copy(settings)
    settings.path_info = ""
    if settings.script_name:
        settings.script_name = request.script_name
    if settings.referer.endswith(";auto"):
        settings.referer = request.url.whole() + ";auto"
    if becomes_get(head.status, method):
        method, body, content_type = "GET", None, ""
        settings.content_length = None
        settings.headers = [x for x in settings.headers if not x.lower().startswith("content-")]
    return make_request(settings, method, url, body, content_type, jar)


def redirect_target(request: Request, location: str) -> Url | None:
    with contextlib.suppress(Failure):
        url = parse_url(urllib.parse.urljoin(request.url.whole(), location))
        return url if is_of_program(url, request) else None
    return None


REDIRECTS = (301, 302, 303, 307, 308)


def becomes_get(status: int, method: str) -> bool:
    """As in browsers; RFC 9110, section 15.4, allows it."""
    if status == 303:
        return method not in ("GET", "HEAD")
    return status in (301, 302) and method == "POST"


def is_of_program(url: Url, request: Request) -> bool:
    """Whether the web server would start the same program for a URL."""
    before = request.url
    same_port = url.port == before.port
    both_usual = url.port == usual_port(url.scheme) and before.port == usual_port(before.scheme)
    script = request.script_name.rstrip("/")
    return (
        url.host.lower() == before.host.lower()
        and (same_port or both_usual)
        and (url.path() + "/").startswith(script + "/")
    )
