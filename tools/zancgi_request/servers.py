"""The variables and the kind of standard input that web servers derive from a request."""

import base64
import ipaddress
import os
import re
import urllib.parse
from collections.abc import Iterator

from zancgi_request.body import Body, PIECE, Stream
from zancgi_request.headers import Request
from zancgi_request.options import NAME_AND_VERSION, SERVERS
from zancgi_request.url import usual_port

SPECIAL = "[^0-9A-Za-z]"
Variables = dict[str, str]


class Server:
    """A server that follows RFC 3875."""

    software = NAME_AND_VERSION
    # Headers of other names are dropped.
    wanted_names = ".*"
    hides_authorization = False
    forwards_empty = True
    # The server finds the program's name in the path.
    splits_path = True
    has_path = True
    # Headers that are forwarded as HTTP_* in addition to their own variables.
    forwarded_twice: tuple[str, ...] = ()

    def argument(self, program: str) -> str:
        return program

    def stdin(self, body: Body | Stream | None) -> str:
        return "pipe"

    def variables(self, request: Request, program: str, remote_addr: str) -> Variables:
        variables = self.request_variables(request, program)
        variables["REMOTE_ADDR"] = remote_addr
        variables |= self.body_variables(request)
        variables |= self.header_variables(request)
        if self.has_path:
            variables["PATH"] = os.environ.get("PATH", os.defpath)
        return variables

    def request_variables(self, request: Request, program: str) -> Variables:
        url = request.url
        folder = os.path.dirname(program)
        variables = {
            "GATEWAY_INTERFACE": "CGI/1.1",
            "SERVER_SOFTWARE": self.software,
            "SERVER_PROTOCOL": "HTTP/1.1",
            "SERVER_NAME": host_header(request)[0],
            "SERVER_ADDR": address_of(url.host),
            "SERVER_PORT": str(url.port),
            "REQUEST_METHOD": request.method,
            "REQUEST_SCHEME": url.scheme,
            "REQUEST_URI": url.uri,
            "QUERY_STRING": url.query(),
            "SCRIPT_NAME": request.script_name,
            "SCRIPT_FILENAME": program,
            "DOCUMENT_ROOT": folder,
            "REMOTE_PORT": "49152",
        }
        if request.path_info:
            variables["PATH_INFO"] = request.path_info
            variables["PATH_TRANSLATED"] = folder + request.path_info
        if url.scheme == "https":
            variables["HTTPS"] = "on"
        return variables

    def body_variables(self, request: Request) -> Variables:
        variables = {}
        content_type = request.headers.get("Content-Type")
        if content_type is not None:
            variables["CONTENT_TYPE"] = content_type
        if request.content_length is not None:
            variables["CONTENT_LENGTH"] = request.content_length
        return variables

    def header_variables(self, request: Request) -> Variables:
        variables: Variables = {}
        for name, value in self.forwarded_headers(request):
            key = "HTTP_" + re.sub(SPECIAL, "_", name).upper()
            value = self.trimmed(value)
            if value or self.forwards_empty:
                variables[key] = self.joined(key, variables.get(key), value)
        return variables

    def forwarded_headers(self, request: Request) -> Iterator[tuple[str, str]]:
        for name, value in request.headers.lines:
            own = name.lower()
            if own in ("content-type", "content-length"):
                continue
            if own in ("authorization", "proxy-authorization") and self.hides_authorization:
                continue
            if re.fullmatch(self.wanted_names, name):
                yield name, value
        content_type = request.headers.get("Content-Type")
        if content_type is not None and "Content-Type" in self.forwarded_twice:
            yield "Content-Type", content_type
        if request.content_length is not None and "Content-Length" in self.forwarded_twice:
            yield "Content-Length", request.content_length

    def trimmed(self, value: str) -> str:
        return value.rstrip(" \t")

    def joined(self, key: str, before: str | None, value: str) -> str:
        """The value of a header that occurs again."""
        if before is None:
            return value
        return before + ("; " if key == "HTTP_COOKIE" else ", ") + value


def host_header(request: Request) -> tuple[str, int]:
    """The host and port in the header Host."""
    host = request.headers.get("Host")
    if host is None:
        return request.url.host, request.url.port
    name, colon, port = host.strip().rpartition(":")
    if colon and re.fullmatch("[0-9]{1,5}", port):
        return name, int(port)
    return host.strip(), usual_port(request.url.scheme)


def address_of(host: str) -> str:
    try:
        return str(ipaddress.ip_address(host.strip("[]")))
    except ValueError:
        return "127.0.0.1"


class Lighttpd(Server):
    """Buffers the body, in a file if it is long."""

    software = "lighttpd/1.4.69"
    forwarded_twice = ("Content-Length",)
    forwards_empty = False
    has_path = False

    def stdin(self, body: Body | Stream | None) -> str:
        if body is None or body.length == 0:
            return "null"
        return "file" if body.length and body.length > PIECE else "pipe"

    def request_variables(self, request: Request, program: str) -> Variables:
        variables = super().request_variables(request, program) | {"REDIRECT_STATUS": "200"}
        uri = normalized(request.url.uri)
        if uri != request.url.uri:
            variables["REDIRECT_URI"] = uri
            variables["QUERY_STRING"] = uri.partition("?")[2]
        return variables

    def body_variables(self, request: Request) -> Variables:
        return {"CONTENT_LENGTH": "0"} | super().body_variables(request)


def normalized(uri: str) -> str:
    """Escapes characters that a URI must not contain, and unescapes all others."""
    path, question, query = uri.partition("?")
    path = re.sub("%2f", "/", path, flags=re.IGNORECASE)
    sound = re.sub("%(?![0-9A-Fa-f]{2})", "%25", path + question + query)
    escaped = urllib.parse.quote(os.fsencode(sound), safe="%/?:@!$&'()*+,;=~")
    return re.sub("%[0-9A-Fa-f]{2}", normalized_escape, escaped)


def normalized_escape(found: re.Match[str]) -> str:
    letter = chr(int(found[0][1:], 16))
    return letter if re.fullmatch("[0-9A-Za-z._~-]", letter) else found[0].upper()


class Apache(Server):
    """With mod_cgid."""

    software = "Apache/2.4 (Debian)"
    wanted_names = "[0-9A-Za-z-]*"
    hides_authorization = True

    def stdin(self, body: Body | Stream | None) -> str:
        return "socket"

    def request_variables(self, request: Request, program: str) -> Variables:
        prefix = os.path.dirname(request.script_name).rstrip("/") + "/"
        return super().request_variables(request, program) | {
            "SERVER_PORT": str(host_header(request)[1]),
            "CONTEXT_PREFIX": prefix,
            "CONTEXT_DOCUMENT_ROOT": os.path.dirname(program) + "/",
            "SERVER_ADMIN": "[no address given]",
            "SERVER_SIGNATURE": "",
        }

    def joined(self, key: str, before: str | None, value: str) -> str:
        return value if before is None else f"{before}, {value}"


class NginxFcgiwrap(Server):
    """With Debian's fastcgi_params."""

    software = "nginx/1.22.1"
    wanted_names = "[0-9A-Za-z-]*"
    splits_path = False
    forwarded_twice = ("Content-Type", "Content-Length")

    def request_variables(self, request: Request, program: str) -> Variables:
        variables = super().request_variables(request, program)
        variables.pop("PATH_TRANSLATED", None)
        return variables | {
            "SERVER_NAME": "",
            # Even if no password was checked.
            "REMOTE_USER": claimed_user(request),
            "DOCUMENT_URI": request.script_name + request.path_info,
            "REDIRECT_STATUS": "200",
            "FCGI_ROLE": "RESPONDER",
        }

    def body_variables(self, request: Request) -> Variables:
        return {"CONTENT_TYPE": "", "CONTENT_LENGTH": ""} | super().body_variables(request)

    def header_variables(self, request: Request) -> Variables:
        # In lower case and without the port, as nginx's $host.
        return super().header_variables(request) | {"HTTP_HOST": host_header(request)[0].lower()}

    def joined(self, key: str, before: str | None, value: str) -> str:
        # The environment contains both, and programs find the first.
        return value if before is None else before


def claimed_user(request: Request) -> str:
    scheme, _, credentials = (request.headers.get("Authorization") or "").partition(" ")
    if scheme.lower() != "basic":
        return ""
    try:
        return os.fsdecode(base64.b64decode(credentials).partition(b":")[0])
    except ValueError:
        return ""


class Busybox(Server):
    software = "busybox httpd/1.35.0"
    hides_authorization = True
    unset = ("SERVER_NAME", "SERVER_ADDR", "SERVER_PORT", "DOCUMENT_ROOT", "REQUEST_SCHEME",
             "PATH_TRANSLATED", "HTTPS")  # fmt: skip

    def argument(self, program: str) -> str:
        return os.path.basename(program)

    def request_variables(self, request: Request, program: str) -> Variables:
        variables = super().request_variables(request, program)
        for name in self.unset:
            variables.pop(name, None)
        _, question, query = request.url.uri.partition("?")
        variables["PATH_INFO"] = request.path_info
        variables["REQUEST_URI"] = request.url.path() + question + query
        return variables

    def body_variables(self, request: Request) -> Variables:
        """Only a POST has CONTENT_LENGTH."""
        variables = super().body_variables(request)
        length = variables.pop("CONTENT_LENGTH", "0")
        if length != "0":
            is_post = request.method == "POST"
            variables["CONTENT_LENGTH" if is_post else "HTTP_CONTENT_LENGTH"] = length
        return variables

    def trimmed(self, value: str) -> str:
        return value

    def joined(self, key: str, before: str | None, value: str) -> str:
        return value


SERVER_BY_NAME: dict[str, Server] = dict(
    zip(SERVERS, (Server(), Lighttpd(), Apache(), NginxFcgiwrap(), Busybox()), strict=True)
)
