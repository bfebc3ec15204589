"""One run of the program, directly or by a command such as gdb."""

import contextlib
import ctypes
import dataclasses
import errno
import functools
import os
import select
import shlex
import signal
import subprocess
import sys
import time

from zancgi_request.answer import Answer
from zancgi_request.body import PIECE
from zancgi_request.failures import Failure, Status, misused
from zancgi_request.feeder import Channel, Event, Feeder
from zancgi_request.options import Settings
from zancgi_request.report import Report
from zancgi_request.servers import Variables

# The seconds that other processes of the program have to end after it.
CLEAN_UP_SECONDS = 1.0
# The seconds from SIGTERM to SIGKILL.
HEED_SIGTERM_SECONDS = 2.0


def find_program(path: str) -> str:
    program = os.path.abspath(path)
    if not os.path.exists(program):
        raise Failure(Status.NOT_FOUND, f"there is no program {path}")
    if os.path.isdir(program):
        raise Failure(Status.CANNOT_RUN, f"{path} is a folder")
    if not os.access(program, os.X_OK):
        raise Failure(Status.CANNOT_RUN, f"{path} is not executable: see chmod(1)")
    return program


class Debugger:
    """The command that runs the program, or none."""

    def __init__(self, settings: Settings):
        self.words = settings.debugger
        if settings.valgrind:
            self.words = ["valgrind", "-q", f"--error-exitcode={Status.MEMORY_ERRORS}"]
        # gdb reads commands, so it gets the terminal.
        self.is_interactive = bool(self.words) and "gdb" in os.path.basename(self.words[0])
        if self.is_interactive and settings.repeat > 1:
            misused("--repeat cannot be used with gdb")
        # gdb starts the program by a shell, which can redirect descriptors 0 to 9 only.
        self.reserved = [
            os.open(os.devnull, os.O_RDWR | os.O_CLOEXEC) for _ in range(2 * self.is_interactive)
        ]
        if any(descriptor > 9 for descriptor in self.reserved):
            raise Failure(Status.CANNOT_RUN, "too many descriptors are open for a debugger")

    def command(self, argument: str, variables: Variables) -> list[str]:
        if not self.is_interactive:
            return [*self.words, argument]
        environment = " ".join(shlex.quote(f"{n}={v}") for n, v in sorted(variables.items()))
        return [
            self.words[0],
            "-ex",
            f"set exec-wrapper env -i {environment}",
            "-ex",
            f"set args {self._redirections}",
            *self.words[1:],
            argument,
        ]

    def lend(self, channel: Channel) -> None:
        """gdb passes these descriptors on, and the program's shell redirects them."""
        stdin, stdout = self.reserved
        self._redirections = f"<&- >&{stdout}"
        if channel.stdin is not None:
            os.dup2(channel.stdin, stdin)
            self._redirections = f"<&{stdin} >&{stdout}"
        os.dup2(channel.stdout, stdout)

    def take_back(self) -> None:
        for descriptor in self.reserved:
            os.close(descriptor)


def start(
    program: str, argument: str, variables: Variables, channel: Channel, debugger: Debugger
) -> subprocess.Popen[bytes]:
    folder = os.path.dirname(program)
    try:
        if debugger.is_interactive:
            debugger.lend(channel)
            return subprocess.Popen(
                debugger.command(program, variables),
                cwd=folder,
                stdout=sys.stderr.fileno(),
                pass_fds=debugger.reserved,
            )
        return subprocess.Popen(
            debugger.command(program if debugger.words else argument, variables),
            executable=None if debugger.words else program,
            cwd=folder,
            env={os.fsencode(n): os.fsencode(v) for n, v in variables.items()},
            stdin=subprocess.DEVNULL if channel.stdin is None else channel.stdin,
            stdout=channel.stdout,
            start_new_session=True,
            preexec_fn=functools.partial(os.close, 0) if channel.stdin is None else None,
        )
    except OSError as error:
        words = {errno.ENOEXEC: "it is neither a program nor a script that begins with #!"}
        reason = words.get(error.errno, error.strerror)
        what = debugger.words[0] if debugger.words else program
        raise Failure(Status.CANNOT_RUN, f"cannot run {what}: {reason}") from None
    finally:
        debugger.take_back()
        channel.give_away()


@dataclasses.dataclass
class Exchange:
    """One run of the program: writes its body, reads its answer, and ends it."""

    process: subprocess.Popen[bytes]
    channel: Channel
    feeder: Feeder
    answer: Answer
    report: Report
    ended: int | None = None
    ended_at: float = 0.0

    def __post_init__(self) -> None:
        self.has_terminal = os.getpgid(self.process.pid) == os.getpgid(0)

    def run(self, abort_signal: int) -> None:
        watch = os.pidfd_open(self.process.pid)
        try:
            while self.ended is None or self.channel.reader is not None:
                self._wait(watch)
                if self.feeder.disconnects:
                    self.feeder.disconnects = False
                    self._disconnect(abort_signal)
        finally:
            os.close(watch)

    def _wait(self, watch: int) -> None:
        poll = select.poll()
        timeout = None
        wish = self.feeder.next_event(time.monotonic())
        if self.feeder.disconnects:
            return
        events: dict[int, int] = {}
        if wish is not None:
            descriptor, events[descriptor], timeout = wish
        if self.channel.reader is not None:
            events[self.channel.reader] = events.get(self.channel.reader, 0) | select.POLLIN
        if self.ended is None:
            events[watch] = select.POLLIN
        elif not self.report.has_reported_open_output:
            left = max(0.0, self.ended_at + CLEAN_UP_SECONDS - time.monotonic())
            timeout = left if timeout is None else min(timeout, left)
            if left == 0.0:
                self.report.report_open_output(children())
                timeout = None
        for descriptor, mask in events.items():
            poll.register(descriptor, mask)
        for descriptor, got in poll.poll(None if timeout is None else timeout * 1000 + 0.5):
            self._handle(descriptor, got, watch, wish)

    def _handle(self, descriptor: int, got: int, watch: int, wish: Event | None) -> None:
        if descriptor == watch:
            self.ended = self.process.wait()
            self.ended_at = time.monotonic()
        if descriptor == self.channel.reader and got & ~select.POLLOUT:
            self._read()
        if wish is not None and descriptor == wish[0]:
            relevant = got & (wish[1] | select.POLLERR | select.POLLHUP)
            if relevant and self.channel.writer is not None:
                self.feeder.handle(descriptor, relevant)

    def _read(self) -> None:
        try:
            content = os.read(self.channel.reader, PIECE)
        except BlockingIOError:
            return
        except ConnectionResetError:
            # The program did not read the whole body.
            content = b""
        if content:
            self.answer.feed(content)
        else:
            self.channel.end_output()

    def _disconnect(self, number: int) -> None:
        self.report.has_disconnected = True
        self.report.sent_signal = number
        if number:
            self.send(number)
        self.channel.hang_up()

    def send(self, number: int) -> None:
        with contextlib.suppress(ProcessLookupError):
            if self.has_terminal:
                self.process.send_signal(number)
            else:
                os.killpg(self.process.pid, number)

    def end(self) -> None:
        """Ends all processes of the program that still run."""
        self.send(signal.SIGTERM)
        with contextlib.suppress(subprocess.TimeoutExpired):
            self.process.wait(HEED_SIGTERM_SECONDS)
        self.send(signal.SIGKILL)
        self.process.wait()


def adopt_orphans() -> None:
    """Processes that the program leaves running become children of this one."""
    pr_set_child_subreaper = 36
    ctypes.CDLL(None).prctl(pr_set_child_subreaper, 1, 0, 0, 0)


def children() -> list[str]:
    """The running children, as "NAME (ID)"."""
    with contextlib.suppress(ChildProcessError):
        while os.waitpid(-1, os.WNOHANG)[0]:
            pass
    found = []
    with contextlib.suppress(OSError), open(f"/proc/self/task/{os.getpid()}/children") as file:
        for number in file.read().split():
            with contextlib.suppress(OSError), open(f"/proc/{number}/comm") as comm:
                found.append(f"{comm.read().strip()} ({number})")
    return found


def remaining_processes() -> list[str]:
    """The processes that still run when the time for them is over."""
    deadline = time.monotonic() + CLEAN_UP_SECONDS
    while (found := children()) and time.monotonic() < deadline:
        time.sleep(0.01)
    return found
