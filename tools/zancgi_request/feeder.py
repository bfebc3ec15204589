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
from zancgi_request.options import Settings

# The interval of checks whether a chunk has been read, in seconds.
UNREAD_POLL_SECONDS = 0.001
# How long the client waits for the program to read before it disconnects.
READ_BEFORE_LEAVING_SECONDS = 1.0
# A descriptor, its poll events, and how long to wait for them.
Event = tuple[int, int, float | None]


class Channel:
    """The program's standard input and output, and the tool's ends of them."""

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
        """Closes the program's ends after it has started."""
        for end in (self.stdin, self.stdout):
            if end is not None:
                os.close(end)

    def unread(self) -> int:
        """Bytes that the program has not read, for a socket roughly; the writer must be open."""
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
        self.disconnects = False

    def fill(self) -> None:
        """Writes as much as possible before the program starts, so that it finds the
        same input however fast it is."""
        if self.channel.writer is None or isinstance(self.body, Stream) or self.is_paced:
            return
        while not (self.pending or self.has_all):
            self._proceed()
        if self.has_all and self.limit is None and not self.keeps_open:
            self.channel.end_input()

    def next_event(self, now: float) -> Event | None:
        """The next event to wait for; None if there is none."""
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

    def _next_event_at_the_end(self, writer: int, now: float) -> Event | None:
        if self.limit is not None:
            if self.channel.unread() and now < self.ready_at + READ_BEFORE_LEAVING_SECONDS:
                return writer, 0, UNREAD_POLL_SECONDS
            self.disconnects = True
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
