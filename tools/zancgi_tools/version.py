"""Which version this is."""

import contextlib
import pathlib
import re

# Filled in by the installation.
VERSION = "@PROJECT_VERSION@"
# The source of the version, as seen from the source tree.
HEADER = pathlib.Path(__file__).parents[2] / "src" / "zancgi" / "zancgi.h"


def version() -> str:
    if VERSION[0].isdecimal():
        return VERSION
    with contextlib.suppress(OSError):
        parts = re.findall(r"#define ZANCGI_VERSION_[A-Z]+ (\d+)\n", HEADER.read_text())
        return ".".join(parts)
    return "unknown"
