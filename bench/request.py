"""Requests as a web server hands them to a CGI program."""

import dataclasses
import pathlib
from collections.abc import Mapping

from programs import SERVER_VARIABLES

BOUNDARY = "----------------------------1234567890abcdef"
MULTIPART = f"multipart/form-data; boundary={BOUNDARY}"
URLENCODED = "application/x-www-form-urlencoded"

@dataclasses.dataclass(frozen=True)
class Piece:
    """The bytes of a file, so many times in a row."""

    path: pathlib.Path
    count: int = 1

    def size(self) -> int:
        return self.count * self.path.stat().st_size


@dataclasses.dataclass(frozen=True)
class Request:
    """Variables, and the body: a file, pieces fed through a pipe, or none."""

    variables: Mapping[str, str]
    file: pathlib.Path | None = None
    pieces: tuple[Piece, ...] = ()


def get(query: str, cookie: str) -> Request:
    return Request(
        {**SERVER_VARIABLES, "REQUEST_METHOD": "GET", "QUERY_STRING": query, "HTTP_COOKIE": cookie}
    )


def post(content_type: str, body: pathlib.Path | tuple[Piece, ...]) -> Request:
    """A body that is a file, or comes in pieces through a pipe."""
    pieces = (Piece(body),) if isinstance(body, pathlib.Path) else body
    variables = {
        **SERVER_VARIABLES,
        "REQUEST_METHOD": "POST",
        "QUERY_STRING": "",
        "CONTENT_TYPE": content_type,
        "CONTENT_LENGTH": str(sum(piece.size() for piece in pieces)),
    }
    if isinstance(body, pathlib.Path):
        return Request(variables, file=body)
    return Request(variables, pieces=pieces)


def part_head(name: str, file_name: str | None = None, boundary: str = BOUNDARY) -> bytes:
    """What stands before the bytes of a part of a multipart form."""
    disposition = f'form-data; name="{name}"'
    if file_name is None:
        return f"--{boundary}\r\nContent-Disposition: {disposition}\r\n\r\n".encode()
    return (
        f"--{boundary}\r\n"
        f'Content-Disposition: {disposition}; filename="{file_name}"\r\n'
        "Content-Type: application/octet-stream\r\n\r\n"
    ).encode()


def form_end(boundary: str = BOUNDARY) -> bytes:
    """What stands behind the bytes of the last part."""
    return f"\r\n--{boundary}--\r\n".encode()
