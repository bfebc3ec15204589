"""Names, numbers and errors as parts of sentences."""

import functools
import grp
import pwd

MEBIBYTE = 1 << 20


def escape(character):
    code = ord(character)
    if character == "\\":
        return r"\\"
    if character.isprintable():
        return character
    if 0xDC80 <= code <= 0xDCFF:  # a byte that is not UTF-8
        code -= 0xDC00
    if code < 0x100:
        return f"\\x{code:02x}"
    return f"\\u{code:04x}" if code < 0x10000 else f"\\U{code:08x}"


def printable(text, limit=200):
    """Untrusted text, made harmless for terminals and logs."""
    shown = "".join(map(escape, text[:limit]))
    return shown + "..." if len(text) > limit else shown


def quote(text):
    return f"'{printable(text)}'"


def reason(error):
    return error.strerror or printable(str(error))


def describe_error(error):
    name = error.filename if isinstance(error.filename, str) else ""
    return f"{reason(error)}: {quote(name)}" if name else reason(error)


def size_text(size):
    for unit in ("bytes", "KB", "MB", "GB"):
        if size < 1024:
            break
        size /= 1024
    else:
        unit = "TB"
    return f"{size:.0f} {unit}" if unit == "bytes" else f"{size:.1f} {unit}"


def time_text(seconds):
    if seconds < 1:
        return f"{seconds * 1000:.1f} ms"
    if seconds < 3600:
        return f"{seconds:.1f} s"
    return f"{seconds / 3600:.0f} hours"


def counted(number, noun, nouns=None):
    return f"{number} {noun if number == 1 else nouns or noun + 's'}"


def listed(names, most=3):
    """The first few names, and the number of the others."""
    shown = ", ".join(quote(name) for name in names[:most])
    return shown + f" and {len(names) - most} more" if len(names) > most else shown


def name_of(look_up, number):
    try:
        return quote(look_up(number)[0])
    except KeyError:
        return f"number {number}"


user_name = functools.partial(name_of, pwd.getpwuid)
group_name = functools.partial(name_of, grp.getgrgid)
