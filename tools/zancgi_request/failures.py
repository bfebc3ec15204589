"""Failures of a request, their exit statuses, and signals that end the tool before
the program has ended."""

import contextlib
import enum
import signal
from collections.abc import Iterator
from typing import NoReturn


class Status(enum.IntEnum):
    """Exit statuses. Those with the same meaning as one of curl's have its number."""

    SUCCESS = 0
    USAGE = 2
    BAD_URL = 3
    CLIENT_ERROR = 4
    SERVER_ERROR = 5
    BROKEN_ANSWER = 8
    SHORT_ANSWER = 18
    HTTP_ERROR = 22
    CANNOT_WRITE = 23
    CANNOT_READ = 26
    TIMED_OUT = 28
    TOO_MANY_REDIRECTS = 47
    NO_ANSWER = 52
    MEMORY_ERRORS = 99
    CANNOT_RUN = 126
    NOT_FOUND = 127
    SIGNALLED = 128


class Failure(Exception):
    """Ends the request, for the reason in its text."""

    def __init__(self, status: int, text: str):
        super().__init__(text)
        self.status = status


def misused(text: str) -> NoReturn:
    raise Failure(Status.USAGE, text)


@contextlib.contextmanager
def failing_with(status: Status, what: str) -> Iterator[None]:
    """Turns an error of the system into a failure."""
    try:
        yield
    except OSError as error:
        raise Failure(status, f"{what}: {error.strerror}") from None


# Signals that also end the program.
CAUGHT = (signal.SIGALRM, signal.SIGTERM, signal.SIGHUP, signal.SIGINT)


class Interrupted(Exception):
    """A signal has arrived."""

    def __init__(self, number: int):
        super().__init__(number)
        self.number = number


def interrupt(number: int, _frame: object) -> NoReturn:
    # Further signals must not interrupt the end of the program.
    for other in CAUGHT:
        signal.signal(other, disregard)
    raise Interrupted(number)


def hold_signals() -> list[int]:
    """Until catch_signals, signals are only appended to this list."""
    held: list[int] = []
    for number in CAUGHT:
        if signal.getsignal(number) is interrupt:
            signal.signal(number, lambda number, _frame: held.append(number))
    return held


def disregard(_number: int, _frame: object) -> None:
    """Unlike SIG_IGN, the program does not inherit this."""


def catch_signals(is_interactive: bool) -> None:
    for number in CAUGHT:
        signal.signal(number, interrupt)
    if is_interactive:
        # At a terminal, SIGINT is for the debugger.
        signal.signal(signal.SIGINT, disregard)
