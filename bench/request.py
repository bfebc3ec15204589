"""Requests as a web server passes them to a CGI program."""

import dataclasses
import pathlib
from collections.abc import Mapping

from programs import SERVER_VARIABLES

BOUNDARY = "----------------------------1234567890abcdef"
MULTIPART = f"multipart/form-data; boundary={BOUNDARY}"
URLENCODED = "application/x-www-form-urlencoded"


@dataclasses.dataclass(frozen=True)
class Piece:
    """The bytes of a file, repeated `count` times."""

    path: pathlib.Path
    count: int = 1

    def size(self) -> int:
        return self.count * self.path.stat().st_size


@dataclasses.dataclass(frozen=True)
class Request:
    """The environment and the body: a file, pieces written to a pipe, or none."""

    variables: Mapping[str, str]
    file: pathlib.Path | None = None
    pieces: tuple[Piece, ...] = ()


def get(query: str, cookie: str) -> Request:
    return Request(
        {**SERVER_VARIABLES, "REQUEST_METHOD": "GET", "QUERY_STRING": query, "HTTP_COOKIE": cookie}
    )


def post(content_type: str, body: pathlib.Path | tuple[Piece, ...]) -> Request:
    """The body is a file, or pieces written to a pipe."""
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


def part_head(name: str, file_name: str | None = None) -> bytes:
    """The delimiter and headers before the content of a part."""
    head = f'--{BOUNDARY}\r\nContent-Disposition: form-data; name="{name}"'
    if file_name is not None:
        head += f'; filename="{file_name}"\r\nContent-Type: application/octet-stream'
    return f"{head}\r\n\r\n".encode()


def form_end() -> bytes:
    """The delimiter after the content of the last part."""
    return f"\r\n--{BOUNDARY}--\r\n".encode()
