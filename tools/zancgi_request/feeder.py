"""The program's standard input and output, and what writes the body."""

import contextlib
import fcntl
import itertools
import os
import select
import socket
import sys
import tempfile
import termios
import time

from zancgi_request.body import Body, PIECE, Stream
from zancgi_request.settings import Settings

# How often it is looked whether a chunk has been read, in seconds.
UNREAD_POLL_SECONDS = 0.001
# How long a client waits for the program to read before it goes away.
READ_BEFORE_LEAVING_SECONDS = 1.0


class Channel:
    """The program's standard input and output, and our ends of them."""

    def __init__(self, kind: str, body: Body | Stream | None):
        # None: closed.
        self.writer: int | None = None
        self.reader: int | None = None
        self.socket: socket.socket | None = None
        self.stdin: int | None = None
        if kind == "socket":
            self.socket, theirs = socket.socketpair()
            self.writer = self.reader = self.socket.fileno()
            self.stdin = theirs.detach()
            self.stdout = os.dup(self.stdin)
        else:
            self.reader, self.stdout = os.pipe()
            self._make_input(kind, body)
        for end in (self.writer, self.reader):
            if end is not None:
                os.set_blocking(end, False)

    def _make_input(self, kind: str, body: Body | Stream | None) -> None:
        if kind == "pipe":
            self.stdin, self.writer = os.pipe()
        elif kind == "null":
            self.stdin = os.open(os.devnull, os.O_RDONLY | os.O_CLOEXEC)
        elif kind == "file":
            with tempfile.TemporaryFile() as file:
                while body is not None and (block := body.read(PIECE)):
                    file.write(block)
                file.flush()
                os.lseek(file.fileno(), 0, os.SEEK_SET)
                self.stdin = os.dup(file.fileno())

    def give_away(self) -> None:
        """The program has its ends; nobody else needs them."""
        for end in (self.stdin, self.stdout):
            if end is not None:
                os.close(end)

    def unread(self) -> int:
        """Not to be had of a closed end. Of a socket, any number but 0."""
        request = termios.TIOCOUTQ if self.socket else termios.FIONREAD
        answer = fcntl.ioctl(self.writer, request, b"\0\0\0\0")
        return int.from_bytes(answer, sys.byteorder)

    def end_input(self) -> None:
        if self.writer is None:
            return
        if self.socket is None:
            os.close(self.writer)
        elif self.reader is not None:
            with contextlib.suppress(OSError):
                self.socket.shutdown(socket.SHUT_WR)
        self.writer = None

    def end_output(self) -> None:
        if self.reader is not None and self.socket is None:
            os.close(self.reader)
        self.reader = None

    def hang_up(self) -> None:
        self.end_input()
        self.end_output()
        if self.socket is not None:
            self.socket.close()


class Feeder:
    """Writes the body to the program's standard input."""

    def __init__(self, channel: Channel, body: Body | Stream | None, settings: Settings):
        self.channel = channel
        self.body = body if channel.writer is not None else None
        sizes = settings.chunk or [PIECE]
        self.sizes = itertools.chain(sizes, itertools.repeat(sizes[-1]))
        self.is_paced = bool(settings.chunk or settings.pause)
        self.pause = settings.pause
        self.keeps_open = settings.hold_open
        self.limit = settings.abort_after
        self.pending = b""
        self.sent = 0
        self.ready_at = 0.0
        self.has_all = False
        self.was_refused = False
        self.goes_away = False

    def fill(self) -> None:
        """Writes what can be written before the program starts: whether it has
        left something unread, or finds the end, must not depend on who is
        faster."""
        if self.channel.writer is None or isinstance(self.body, Stream) or self.is_paced:
            return
        while not (self.pending or self.has_all):
            self._proceed()
        if self.has_all and self.limit is None and not self.keeps_open:
            self.channel.end_input()

    def next_event(self, now: float) -> tuple[int, int, float | None] | None:
        """What to wait for, and how long: a descriptor and what poll is to tell
        of it. None when nothing will come."""
        writer = self.channel.writer
        if writer is None:
            return None
        if self.pending:
            return writer, select.POLLOUT, None
        if self.is_paced and now < self.ready_at:
            return writer, 0, self.ready_at - now
        if self.is_paced and self.channel.unread():
            return writer, 0, UNREAD_POLL_SECONDS
        if not self.has_all:
            if isinstance(self.body, Stream):
                return self.body.fileno(), select.POLLIN, None
            return writer, select.POLLOUT, None
        return self._next_event_at_the_end(writer, now)

    def _next_event_at_the_end(
        self, writer: int, now: float
    ) -> tuple[int, int, float | None] | None:
        if self.limit is not None:
            if self.channel.unread() and now < self.ready_at + READ_BEFORE_LEAVING_SECONDS:
                return writer, 0, UNREAD_POLL_SECONDS
            self.goes_away = True
            return None
        if self.keeps_open:
            return writer, 0, None
        self.channel.end_input()
        return None

    def handle(self, descriptor: int, events: int) -> None:
        if descriptor == self.channel.writer and events & (select.POLLERR | select.POLLHUP):
            self._refuse()
        else:
            self._proceed()

    def _proceed(self) -> None:
        if not self.pending:
            self._fetch()
        if self.has_all:
            return
        try:
            count = os.write(self.channel.writer, self.pending)
        except BlockingIOError:
            return
        except (BrokenPipeError, ConnectionResetError):
            self._refuse()
            return
        self.sent += count
        self.pending = self.pending[count:]
        if not self.pending:
            self.ready_at = time.monotonic() + self.pause

    def _fetch(self) -> None:
        count = next(self.sizes)
        if self.limit is not None:
            count = min(count, self.limit - self.sent)
        self.pending = self.body.read(count) if self.body is not None and count else b""
        self.has_all = not self.pending

    def _refuse(self) -> None:
        self.was_refused = True
        self.pending = b""
        self.channel.end_input()
