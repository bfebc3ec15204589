"""The rights of the checks, and the process that starts front ends: its limits,
streams and environment."""

import math
import os
import re

from zancgi_doctor.files import read_text
from zancgi_doctor.findings import by_amount, finding, reporter
from zancgi_doctor.libraries import split_search_path
from zancgi_doctor.texts import MEBIBYTE, counted, reason, size_text, user_name

# The row in /proc/PID/limits, its format, and the values below which it is a failure or a warning.
LIMITS = {
    "limits.descriptors": ("Max open files", str, 16, 64),
    "limits.memory": ("Max address space", size_text, 32 * MEBIBYTE, 64 * MEBIBYTE),
    "limits.processor": ("Max cpu time", lambda limit: counted(limit, "second"), 1, 5),
    # No limit is high enough.
    "limits.file-size": ("Max file size", size_text, 0, math.inf),
}


def check_identity(site):
    outcome = "ok" if site.has_rights else "unchecked"
    caller = user_name(os.geteuid())
    yield finding("identity.rights", site.identity.name, outcome, caller=caller)


def process_name(site):
    return f"process {site.pid}" if site.pid else "this process"


def soft_limits(site):
    """The limits by name; None for no limit."""
    limits = {}
    for line in read_text(f"/proc/{site.pid or 'self'}/limits").splitlines()[1:]:
        name, soft = re.match(r"(.*?)\s{2,}(\S+)", line).groups()
        limits[name] = None if soft == "unlimited" else int(soft)
    return limits


def check_limits(site):
    limits = soft_limits(site)
    subject = process_name(site)
    for name, (row, shown, too_few, few) in LIMITS.items():
        if limits[row] is None:
            yield finding(name, subject, "ok none")
        else:
            report = reporter(name, subject, limit=shown(limits[row]))
            yield by_amount(report, limits[row], too_few, few)


def check_process(site):
    yield process_streams(site)
    yield process_environment(site)


def process_streams(site):
    report = reporter("process.streams", process_name(site))
    folder = f"/proc/{site.pid or 'self'}/fd"
    try:
        closed = site.closed_streams
        if site.pid:
            closed = sorted({0, 1, 2} - set(map(int, os.listdir(folder))))
        target = "" if 2 in closed else os.readlink(f"{folder}/2")
    except OSError as error:
        return report("unchecked", error=reason(error))
    if closed:
        return report("warning closed", numbers=" and ".join(map(str, closed)))
    is_lost = target == "/dev/null" and site.environment.get("TOV_LOG", "") in ("", "stderr")
    return report("warning lost" if is_lost else "ok")


def process_environment(site):
    report = reporter("process.environment", process_name(site))
    for item in split_search_path(site.environment.get("LD_LIBRARY_PATH", "")):
        if not item.startswith("/"):
            return report("failure")
    for variable in ("LD_PRELOAD", "LD_AUDIT"):
        if site.environment.get(variable):
            return report("warning code", variable=variable)
    return report("warning proxy" if site.environment.get("HTTP_PROXY") else "ok")
