"""How a request may fail, the exit status of each failure, and the signals that
end the tool before the program has ended."""

import contextlib
import enum
import signal
from collections.abc import Iterator
from typing import NoReturn


class Status(enum.IntEnum):
    """Exit statuses. Where curl has one of the same meaning, it is curl's."""

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
    """Ends the request; the text says why."""

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


# The signals that end the program too.
CAUGHT = (signal.SIGALRM, signal.SIGTERM, signal.SIGHUP, signal.SIGINT)


class Interrupted(Exception):
    """A signal has come."""

    def __init__(self, number: int):
        super().__init__(number)
        self.number = number


def interrupt(number: int, _frame: object) -> NoReturn:
    # The program is then ended, and nothing is to come in between.
    for other in CAUGHT:
        signal.signal(other, disregard)
    raise Interrupted(number)


def hold_signals() -> list[int]:
    """Until they are caught again, those that come are only put into this list."""
    held: list[int] = []
    for number in CAUGHT:
        if signal.getsignal(number) is interrupt:
            signal.signal(number, lambda number, _frame: held.append(number))
    return held


def disregard(_number: int, _frame: object) -> None:
    """Unlike SIG_IGN, this is not handed down."""


def catch_signals(is_interactive: bool) -> None:
    for number in CAUGHT:
        signal.signal(number, interrupt)
    if is_interactive:
        # At a terminal this one is the debugger's.
        signal.signal(signal.SIGINT, disregard)
