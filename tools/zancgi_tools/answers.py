"""The syntax of header lines in answers of programs and back ends."""

import re

# Methods and header names (RFC 9110, section 5.6.2).
TOKEN = r"[!#$%&'*+.^_`|~0-9A-Za-z-]+"


def parse_length(text: str) -> int | None:
    """A Content-Length of up to 64 bits; None for other texts. Python refuses to
    convert thousands of digits, so leading zeros are removed first."""
    digits = text.lstrip("0") or "0"
    if not text or not re.fullmatch("[0-9]{1,20}", digits) or int(digits) >= 1 << 64:
        return None
    return int(digits)
