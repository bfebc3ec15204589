"""The output of answers."""

import os
import sys
from typing import BinaryIO

from zancgi_request.failures import Failure, Status, failing_with


class Output:
    """Standard output, or a file that is created when needed."""

    def __init__(self, path: str, mode: int = 0o666):
        self.path = path
        self.mode = mode
        self.file: BinaryIO | None = None
        self.failure = f"cannot write {'the answer' if path == '-' else path}"

    def write(self, content: bytes) -> None:
        self.open()
        with failing_with(Status.CANNOT_WRITE, self.failure):
            view = memoryview(content)
            while view:
                view = view[os.write(self.file.fileno(), view) :]

    def open(self) -> None:
        if self.file is not None:
            return
        if self.path == "-" and sys.stdout is None:
            raise Failure(Status.CANNOT_WRITE, f"{self.failure}: standard output is closed")
        with failing_with(Status.CANNOT_WRITE, self.failure):
            self.file = sys.stdout.buffer if self.path == "-" else self._make()

    def _make(self) -> BinaryIO:
        return open(self.path, "wb", opener=lambda path, flags: os.open(path, flags, self.mode))

    def close(self) -> None:
        if self.file is not None and self.path != "-":
            self.file.close()
