"""The program zancgi-request."""

import signal
import sys

from zancgi_request.exchange import adopt_orphans
from zancgi_request.failures import Failure, Interrupted, Status, catch_signals
from zancgi_request.options import NAME, default_settings, parse_command_line
from zancgi_request.player import Player


def main(arguments: list[str]) -> int:
    settings = default_settings()
    # If the caller ignores SIGCHLD, the status of children is lost.
    signal.signal(signal.SIGCHLD, signal.SIG_DFL)
    try:
        settings = parse_command_line(arguments)
        catch_signals(is_interactive=False)
        adopt_orphans()
        return Player(settings).play()
    except Failure as failure:
        if failure.status == Status.USAGE or not settings.silent or settings.show_error:
            print(f"{NAME}: {failure}", file=sys.stderr)
        if failure.status == Status.USAGE:
            print(f"Try '{NAME} --help'.", file=sys.stderr)
        return failure.status
    except OSError as error:
        print(f"{NAME}: {error}", file=sys.stderr)
        return Status.CANNOT_RUN
    except Interrupted as interruption:
        return Status.SIGNALLED + interruption.number
