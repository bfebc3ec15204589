"""The settings from the command line."""

import types

from zancgi_tools.version import version

NAME = "zancgi-request"
NAME_AND_VERSION = f"{NAME}/{version()}"


class Settings(types.SimpleNamespace):
    """The program, the URL and the fields of the options."""


def is_written(settings: Settings) -> bool:
    """Whether options control how the body is written."""
    disconnects = settings.abort_after is not None
    return bool(disconnects or settings.hold_open or settings.chunk or settings.pause)
