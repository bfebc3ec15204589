"""Which version this is."""

import pathlib
import re

from zancgi_doctor.files import text_or_nothing

# Filled in by the installation.
VERSION = "@PROJECT_VERSION@"
# The source of the version, as seen from the source tree.
HEADER = pathlib.Path(__file__).parents[2] / "src" / "zancgi" / "zancgi.h"


def version():
    if VERSION[0].isdecimal():
        return VERSION
    parts = re.findall(r"#define ZANCGI_VERSION_[A-Z]+ (\d+)\n", text_or_nothing(HEADER))
    return ".".join(parts) or "unknown"
