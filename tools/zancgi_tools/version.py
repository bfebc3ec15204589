"""The version of the tools."""

import contextlib
import pathlib
import re

# The installation replaces this.
VERSION = "@PROJECT_VERSION@"
# The header that defines the version, in the source tree.
HEADER = pathlib.Path(__file__).parents[2] / "src" / "zancgi" / "zancgi.h"


def version() -> str:
    if VERSION[0].isdecimal():
        return VERSION
    with contextlib.suppress(OSError):
        parts = re.findall(r"#define ZANCGI_VERSION_[A-Z]+ (\d+)\n", HEADER.read_text())
        return ".".join(parts)
    return "unknown"
