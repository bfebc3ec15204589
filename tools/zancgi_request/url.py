"""URLs."""

import dataclasses
import os
import re
import urllib.parse

from zancgi_request.failures import Failure, Status
from zancgi_request.options import Settings


@dataclasses.dataclass
class Url:
    scheme: str
    host: str
    port: int
    # With the query, not decoded.
    uri: str
    # Host as in the URL, and the port unless it is the default.
    authority: str

    def whole(self) -> str:
        return f"{self.scheme}://{self.authority}{self.uri}"

    def query(self) -> str:
        return self.uri.partition("?")[2]

    def path(self) -> str:
        return decoded(self.uri.partition("?")[0])


def decoded(text: str) -> str:
    return os.fsdecode(urllib.parse.unquote_to_bytes(os.fsencode(text)))


def encoded(path: str) -> str:
    return urllib.parse.quote(os.fsencode(path), safe="/~!$&'()*+,;=:@")


def without_dots(path: str) -> str:
    """Removes dot segments (RFC 3986, 5.2.4), as clients do before they send a path."""
    kept: list[str] = []
    segments = path.split("/")[1:]
    for segment in segments:
        if segment == "..":
            kept[-1:] = []
        elif segment != ".":
            kept.append(segment)
    if segments[-1] in (".", ".."):
        kept.append("")
    return "/" + "/".join(kept)


def check_characters(text: str) -> None:
    if re.search(r"[\x00-\x20\x7f]", text):
        raise Failure(Status.BAD_URL, f"a URL has no blanks or control characters: {text!r}")
    if "%00" in text.partition("?")[0]:
        raise Failure(Status.BAD_URL, f"web servers refuse a path that contains %00: {text!r}")


def parse_url(text: str) -> Url:
    check_characters(text)
    if text.startswith(("/", "?")):
        text = "http://localhost" + text
    scheme, _, rest = text.rpartition("://") if "://" not in text else text.partition("://")
    scheme = scheme.lower() or "http"
    if scheme not in ("http", "https"):
        raise Failure(Status.BAD_URL, f"the URL must begin with http:// or https://: {text!r}")
    rest = rest.partition("#")[0]
    authority, path, query = re.fullmatch("([^/?]*)([^?]*)(.*)", rest).groups()
    host, port = parse_authority(authority.rpartition("@")[2], scheme)
    uri = without_dots(path or "/") + query
    name = authority.rpartition("@")[2]
    return Url(scheme, host, port, uri, name.removesuffix(f":{usual_port(scheme)}"))


def usual_port(scheme: str) -> int:
    return 443 if scheme == "https" else 80


def parse_authority(text: str, scheme: str) -> tuple[str, int]:
    parsed = re.fullmatch(r"(\[[0-9A-Fa-f:.]+\]|[^:\[\]]+)(?::(\d{1,5}))?", text)
    if not parsed:
        raise Failure(Status.BAD_URL, f"not a host and port: {text!r}")
    return parsed[1], int(parsed[2] or usual_port(scheme))


def complete_url(url: Url, settings: Settings) -> None:
    """Adds --script-name and --path-info unless the URL already contains them."""
    path, question, query = url.uri.partition("?")
    if settings.script_name and path == "/":
        path = encoded(settings.script_name)
    info = settings.path_info
    if info and not (decoded(path).endswith(info) and decoded(path) != settings.script_name):
        path = path.rstrip("/") + encoded(info)
    url.uri = path + question + query
