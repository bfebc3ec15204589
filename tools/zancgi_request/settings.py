"""What the command line asks for."""

import types

from zancgi_tools.version import version

NAME = "zancgi-request"
NAME_AND_VERSION = f"{NAME}/{version()}"


class Settings(types.SimpleNamespace):
    """The program, the URL, and the fields that the options name."""


def is_written(settings: Settings) -> bool:
    """Whether it matters how the body is written."""
    goes_away = settings.abort_after is not None
    return bool(goes_away or settings.hold_open or settings.chunk or settings.pause)
