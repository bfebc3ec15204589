"""The body of a request, in memory and in files."""

import io
import os
import stat
import sys
import tempfile
import urllib.parse
from collections.abc import Iterator
from typing import BinaryIO

from zancgi_request.failures import Failure, Status, failing_with

PIECE = 65536


class Body:
    """Bytes in memory and in regular files. Files are read piece by piece."""

    def __init__(self, pieces: list[bytes | BinaryIO]):
        files = [io.BytesIO(piece) if isinstance(piece, bytes) else piece for piece in pieces]
        # Before any seek, because standard input may be given twice.
        starts = [file.tell() for file in files]
        ends = [file.seek(0, os.SEEK_END) for file in files]
        self.pieces = list(zip(files, starts, ends, strict=True))
        self.length = sum(ends) - sum(starts)
        self.rewind()

    def rewind(self) -> None:
        self._blocks = self._read_blocks()
        self._rest = b""

    def read(self, count: int) -> bytes:
        """Reads this many bytes, or fewer at the end."""
        gathered = [self._rest]
        missing = count - len(self._rest)
        while missing > 0:
            block = next(self._blocks, b"")
            if not block:
                break
            gathered.append(block)
            missing -= len(block)
        taken = b"".join(gathered)
        self._rest = taken[count:]
        return taken[:count]

    def _read_blocks(self) -> Iterator[bytes]:
        for file, start, end in self.pieces:
            file.seek(start)
            left = end - start
            while left:
                block = file.read(min(left, PIECE))
                if not block:
                    raise Failure(Status.CANNOT_READ, f"{file.name} became shorter meanwhile")
                left -= len(block)
                yield block


class Stream:
    """A body of unknown length, read from standard input while it is sent."""

    length = None

    def fileno(self) -> int:
        return sys.stdin.fileno()

    def read(self, count: int) -> bytes:
        return os.read(self.fileno(), count)


def open_to_read(path: str) -> BinaryIO:
    if path == "-" and sys.stdin is None:
        raise Failure(Status.CANNOT_READ, "cannot read standard input: it is closed")
    with failing_with(Status.CANNOT_READ, f"cannot read {path}"):
        return sys.stdin.buffer if path == "-" else open(path, "rb")


def read_file(path: str) -> bytes:
    with failing_with(Status.CANNOT_READ, f"cannot read {path}"):
        return open_to_read(path).read()


def spooled(file: BinaryIO) -> BinaryIO:
    """An unnamed copy of a file that is not regular, to find its length."""
    copy = tempfile.TemporaryFile()
    while block := file.read(PIECE):
        copy.write(block)
    copy.flush()
    copy.seek(0)
    return copy  # type: ignore[return-value]


def open_regular(path: str) -> BinaryIO:
    file = open_to_read(path)
    kind = os.fstat(file.fileno()).st_mode
    if stat.S_ISDIR(kind):
        raise Failure(Status.CANNOT_READ, f"cannot read {path}: it is a folder")
    return file if stat.S_ISREG(kind) else spooled(file)


def without_line_ends(content: bytes) -> bytes:
    return content.translate(None, b"\r\n\0")


def url_encoded(text: str) -> bytes:
    """Encodes as curl does: a value, =VALUE, NAME=VALUE, @FILE or NAME@FILE."""
    sign = "=" if "=" in text else "@"
    name, found, rest = text.partition(sign)
    if not found:
        name, rest = "", name
    value = read_file(rest) if found == "@" else os.fsencode(rest)
    encoded = urllib.parse.quote_from_bytes(value, safe="~").replace("%20", "+").encode()
    return os.fsencode(name) + b"=" + encoded if name else encoded


def data_piece(option: str, value: str) -> bytes | BinaryIO:
    if option == "urlencode":
        return url_encoded(value)
    if option == "raw" or not value.startswith("@"):
        return os.fsencode(value)
    if option == "data":
        return without_line_ends(read_file(value[1:]))
    return open_regular(value[1:])


def data_body(given: list[tuple[str, str]]) -> Body:
    pieces: list[bytes | BinaryIO] = []
    for number, (option, value) in enumerate(given):
        if number and option != "json":
            pieces.append(b"&")
        pieces.append(data_piece(option, value))
    return Body(pieces)
