"""What ends the tool before the program has ended."""

import signal
from typing import NoReturn

# Those that end the program too.
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


def disregard(_number: int, _frame: object) -> None:
    """Unlike SIG_IGN, this is not handed down."""


def catch_signals(is_interactive: bool) -> None:
    for number in CAUGHT:
        signal.signal(number, interrupt)
    if is_interactive:
        # At a terminal this one is the debugger's.
        signal.signal(signal.SIGINT, disregard)
