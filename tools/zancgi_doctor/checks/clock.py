"""The clock, by which sessions end."""

import ctypes
import os
import time

from zancgi_doctor.findings import failure, ok, warning

BEGINNING_OF_2024 = 1704067200
TIME_ERROR = 5


def clock_state():
    """What the kernel says of its clock; TIME_ERROR if nobody keeps it right."""
    library = ctypes.CDLL(None, use_errno=True)
    state = library.adjtimex(ctypes.create_string_buffer(1024))  # all zero: only reads
    if state < 0:
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()))
    return state


def check_clock(_site):
    name, subject = "clock.time", "clock"
    now = time.time()
    if now < BEGINNING_OF_2024:
        yield failure(
            name,
            subject,
            f"The clock says {time.strftime('%Y-%m-%d', time.gmtime(now))}.",
            "Set it, and have it kept right (systemd-timesyncd, chrony).",
        )
    elif clock_state() == TIME_ERROR:
        yield warning(
            name,
            subject,
            "The clock is not synchronised, so sessions may end early or late.",
            "Have it kept right on this machine or its host (systemd-timesyncd, chrony).",
        )
    else:
        yield ok(name, subject, "The clock is synchronised.")
