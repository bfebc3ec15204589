"""A request and the headers that a client sends."""

import base64
import dataclasses
import os
import re
from collections.abc import Iterator

from zancgi_request.body import Body, Stream, read_file
from zancgi_request.cookies import Jar
from zancgi_request.failures import misused
from zancgi_request.form import FORM_TYPE
from zancgi_request.options import Settings
from zancgi_request.url import Url
from zancgi_tools.answers import TOKEN


class Headers:
    """Header lines in order; a name may occur more than once."""

    def __init__(self) -> None:
        self.lines: list[tuple[str, str]] = []
        self.removed: set[str] = set()

    def add(self, name: str, value: str) -> None:
        self.lines.append((name, value))

    def remove(self, name: str) -> None:
        self.lines = [line for line in self.lines if line[0].lower() != name.lower()]
        self.removed.add(name.lower())

    def is_removed(self, name: str) -> bool:
        return name.lower() in self.removed

    def get(self, name: str) -> str | None:
        values = [value for key, value in self.lines if key.lower() == name.lower()]
        return values[-1] if values else None


@dataclasses.dataclass
class Request:
    method: str
    url: Url
    script_name: str
    path_info: str
    headers: Headers
    # None: there is no body, not even an empty one.
    body: Body | Stream | None
    # Without the user's headers; empty without a body.
    content_type: str
    # None: CONTENT_LENGTH is not set.
    content_length: str | None


def header_lines(given: list[str]) -> Iterator[str]:
    for text in given:
        if text.startswith("@"):
            yield from os.fsdecode(read_file(text[1:])).splitlines()
        else:
            yield text


def parse_header(line: str) -> tuple[str, str | None]:
    """Name and value; the value is None if the header is to be removed."""
    name, colon, value = line.partition(":")
    if not colon and line.endswith(";"):
        name, value = line[:-1], ""
    elif not colon:
        misused(f"--header needs NAME: VALUE, not {line!r}")
    if not re.fullmatch(TOKEN, name):
        misused(f"not a header name: {name!r}")
    refuse_control_characters(name, value)
    value = value.lstrip(" \t")
    return name, value if value.rstrip() or not colon else None


def refuse_control_characters(name: str, value: str) -> None:
    if re.search(r"[\x00-\x08\x0a-\x1f\x7f]", value):
        misused(f"a header must not contain control characters: {name}: {value!r}")


def own_headers(settings: Settings, url: Url, content_type: str, jar: Jar) -> Headers:
    """The headers that a client sends by default."""
    headers = Headers()
    is_json = any(option == "json" for option, _ in settings.data)
    for name, value in (
        ("Host", url.authority),
        ("Authorization", basic(settings.user)),
        ("User-Agent", settings.agent),
        ("Accept", "application/json" if is_json else "*/*"),
        ("Referer", settings.referer.removesuffix(";auto")),
        ("Cookie", "; ".join(filter(None, [jar.header(url), own_cookies(settings)]))),
        ("Content-Type", "application/json" if is_json and content_type else content_type),
    ):
        if value:
            refuse_control_characters(name, value)
            headers.add(name, value)
    return headers


def basic(user: str | None) -> str:
    if user is None:
        return ""
    pair = user if ":" in user else user + ":"
    return "Basic " + base64.b64encode(os.fsencode(pair)).decode()


def make_headers(settings: Settings, url: Url, content_type: str, jar: Jar) -> Headers:
    headers = own_headers(settings, url, content_type, jar)
    given = [parse_header(line) for line in settings.headers]
    for name, _ in given:
        headers.remove(name)
    if headers.is_removed("Cookie") and jar.header(url):
        headers.add("Cookie", jar.header(url))
    for name, value in given:
        if value is not None:
            if settings.form and name.lower() == "content-type":
                # The user does not know the boundary.
                value += content_type.removeprefix(FORM_TYPE)
            headers.add(name, value)
    if not settings.keep_proxy_header:
        headers.remove("Proxy")
    # Web servers decode the body before they pass it on.
    headers.remove("Transfer-Encoding")
    return headers


def own_cookies(settings: Settings) -> str:
    return ";".join(text for text in settings.cookies if "=" in text)
