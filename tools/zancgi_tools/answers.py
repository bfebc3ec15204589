"""How the header of an answer is read, a back end's as well as a program's."""

import re

# What methods and names of headers consist of (RFC 9110, section 5.6.2).
TOKEN = r"[!#$%&'*+.^_`|~0-9A-Za-z-]+"


def parse_length(text: str) -> int | None:
    """A Content-Length of 64 bits; None if it is none. Python converts no
    thousands of digits."""
    digits = text.lstrip("0") or "0"
    if not text or not re.fullmatch("[0-9]{1,20}", digits) or int(digits) >= 1 << 64:
        return None
    return int(digits)
