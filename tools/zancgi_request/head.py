"""The header of an answer, and its problems."""

import http
import re

from zancgi_tools.answers import TOKEN, parse_length

# Web servers refuse a longer header.
LONGEST_HEAD = 65536
ONLY_ONCE = ("status", "content-type", "content-length", "location")
BODYLESS = (204, 304)
# As RFC 9110 names them. Older versions of Python have other names for some.
REASONS = {
    **{status.value: status.phrase for status in http.HTTPStatus},
    413: "Content Too Large",
    414: "URI Too Long",
    416: "Range Not Satisfiable",
    422: "Unprocessable Content",
}
HTTP_LINE = re.compile(r"HTTP/\d(?:\.\d)? (\d{3})(?: (.*))?")


class Head:
    """The header of an answer, and its problems."""

    def __init__(self, raw: bytes, is_raw_http: bool):
        self.fields: list[tuple[str, str]] = []
        self.problems: list[str] = []
        self.notes: list[str] = []
        self.status = 200
        self.reason = ""
        lines = re.split(r"\r?\n", raw.decode(errors="surrogateescape"))
        if is_raw_http:
            self._parse_status_line(lines.pop(0))
        for line in lines:
            if line:
                self._parse_line(line)
        # Not a header at all.
        self.is_none = bool(lines) and not self.fields and bool(self.problems)
        self._check_repeated()
        if not is_raw_http:
            self._interpret()

    def get(self, name: str) -> str | None:
        return next((v for n, v in self.fields if n.lower() == name), None)

    def content_length(self) -> int | None:
        length = self.get("content-length")
        return parse_length(length) if length is not None else None

    def as_http(self) -> str:
        lines = [f"HTTP/1.1 {self.status} {self.reason}".rstrip()]
        lines += [f"{name}: {value}" for name, value in self.fields if name.lower() != "status"]
        return "\r\n".join([*lines, "", ""])

    def _parse_status_line(self, line: str) -> None:
        parsed = HTTP_LINE.fullmatch(line)
        if not parsed:
            self.problems.append(
                f"the answer of a program named nph-... must begin with HTTP/1.1 and a status, "
                f"not with {shown(line)}"
            )
            return
        self.status, self.reason = int(parsed[1]), parsed[2] or ""

    def _parse_line(self, line: str) -> None:
        if HTTP_LINE.fullmatch(line) and not self.fields:
            self.problems.append(
                f"the answer begins with {shown(line)}, which only programs named nph-... may do: "
                f"send a header line Status instead"
            )
            return
        parsed = re.fullmatch(f"({TOKEN}):(.*)", line)
        if not parsed:
            self.problems.append(f"a header line does not have the form NAME: VALUE: {shown(line)}")
            return
        value = parsed[2].strip(" \t")
        if re.search(r"[\x00-\x08\x0a-\x1f\x7f]", value):
            self.problems.append(f"a header line contains control characters: {shown(line)}")
        self.fields.append((parsed[1], value))

    def _check_repeated(self) -> None:
        names = [name.lower() for name, _ in self.fields]
        for name in ONLY_ONCE:
            if names.count(name) > 1:
                self.problems.append(f"the header has {names.count(name)} lines {name.title()}")
        length = self.get("content-length")
        if length is not None and self.content_length() is None:
            self.problems.append(f"Content-Length is not a 64-bit number: {shown(length)}")

    def _interpret(self) -> None:
        status = self.get("status")
        location = self.get("location")
        if status is None:
            self.status = 200 if location is None else 302
        elif parsed := re.fullmatch(r"([1-9]\d\d)(?: (.*))?", status):
            self.status, self.reason = int(parsed[1]), parsed[2] or ""
        else:
            self.status = 500
            self.problems.append(f"Status is not a three-digit number: {shown(status)}")
        self.reason = self.reason or REASONS.get(self.status, "")
        if location is not None:
            self._check_location(location, status is None)

    def _check_location(self, location: str, is_local_possible: bool) -> None:
        if location.startswith("/") and not location.startswith("//") and is_local_possible:
            self.notes.append(
                f"{shown(location)} is a local redirect: some web servers serve that path at once, "
                f"others redirect the client to it, as here"
            )
        elif not re.match("/|[A-Za-z][A-Za-z0-9+.-]*:", location):
            self.problems.append(
                f"Location is neither a complete URL nor an absolute path: {shown(location)}"
            )


def shown(text: str) -> str:
    """A text in quotes, harmless for terminals and shortened."""
    quoted = ascii(text)
    return quoted if len(quoted) <= 80 else quoted[:76] + "...'"
