"""Where the answer goes."""

import os
import sys
from typing import BinaryIO

from zancgi_request.failures import Failure, Status


class Output:
    """Where the answer goes: standard output, or a file made when needed."""

    def __init__(self, path: str, mode: int = 0o666):
        self.path = path
        self.mode = mode
        self.file: BinaryIO | None = None
        self.size = 0

    def write(self, content: bytes) -> None:
        self.size += len(content)
        self.open()
        try:
            view = memoryview(content)
            while view:
                view = view[os.write(self.file.fileno(), view) :]
        except OSError as error:
            raise Failure(Status.CANNOT_WRITE, f"cannot write {self}: {error.strerror}") from None

    def open(self) -> None:
        if self.file is not None:
            return
        if self.path == "-" and sys.stdout is None:
            raise Failure(Status.CANNOT_WRITE, f"cannot write {self}: standard output is closed")
        try:
            self.file = sys.stdout.buffer if self.path == "-" else self._make()
        except OSError as error:
            raise Failure(Status.CANNOT_WRITE, f"cannot write {self}: {error.strerror}") from None

    def _make(self) -> BinaryIO:
        return open(self.path, "wb", opener=lambda path, flags: os.open(path, flags, self.mode))

    def close(self) -> None:
        if self.file is not None and self.path != "-":
            self.file.close()

    def __str__(self) -> str:
        return "the answer" if self.path == "-" else self.path
