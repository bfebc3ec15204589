"""How a request may fail, and the exit status of each failure."""

import enum
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
