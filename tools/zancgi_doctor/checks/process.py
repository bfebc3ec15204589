"""The process that starts front ends: its limits, streams and environment."""

import os
import re

from zancgi_doctor.files import read_text
from zancgi_doctor.findings import BECOME_ROOT, failure, ok, unchecked, warning
from zancgi_doctor.libraries import split_search_path
from zancgi_doctor.texts import MEBIBYTE, counted, reason, size_text

LIMITS = {
    "limits.descriptors": ("Max open files", "open files", 16, 64, 1),
    "limits.memory": ("Max address space", "memory", 32, 64, MEBIBYTE),
    "limits.processor": ("Max cpu time", "processor time", 1, 5, 1),
}


def process_name(site):
    return f"process {site.pid}" if site.pid else "this process"


def soft_limits(site):
    """By name; None where there is no limit."""
    limits = {}
    for line in read_text(f"/proc/{site.pid or 'self'}/limits").splitlines()[1:]:
        name, soft = re.match(r"(.*?)\s{2,}(\S+)", line).groups()
        limits[name] = None if soft == "unlimited" else int(soft)
    return limits


def check_limits(site):
    limits = soft_limits(site)
    subject = process_name(site)
    for name, (row, what, too_few, few, unit) in LIMITS.items():
        yield judge_limit(name, subject, limits[row], what, too_few * unit, few * unit)
    yield limit_of_file_size(subject, limits["Max file size"])


def limit_text(name, limit):
    if name == "limits.memory":
        return size_text(limit)
    return counted(limit, "second") if name == "limits.processor" else str(limit)


def judge_limit(name, subject, limit, what, too_few, few):
    remedy = "Raise it where the web server is started (LimitNOFILE=, LimitAS=, LimitCPU=; ulimit)."
    if limit is None:
        return ok(
            name, subject, f"There is no limit of {what}; front ends have to set one themselves."
        )
    message = f"The limit of {what} is {limit_text(name, limit)}."
    if limit < too_few:
        return failure(name, subject, message, remedy)
    if limit < few:
        return warning(name, subject, message, remedy)
    return ok(name, subject, message)


def limit_of_file_size(subject, limit):
    name = "limits.file-size"
    if limit is None:
        return ok(name, subject, "There is no limit of the size of files.")
    return warning(
        name,
        subject,
        f"The limit of the size of files is {size_text(limit)}: a larger upload kills "
        "the front end, and its file stays.",
        "Take the limit away (LimitFSIZE=infinity, ulimit -f unlimited), or ignore SIGXFSZ.",
    )


def check_process(site):
    yield process_streams(site)
    yield process_environment(site)


def process_streams(site):
    name, subject = "process.streams", process_name(site)
    folder = f"/proc/{site.pid or 'self'}/fd"
    try:
        closed = site.closed_streams
        if site.pid:
            closed = sorted({0, 1, 2} - set(map(int, os.listdir(folder))))
        target = "" if 2 in closed else os.readlink(f"{folder}/2")
    except OSError as error:
        return unchecked(
            name,
            subject,
            f"The descriptors of {subject} cannot be seen: {reason(error)}.",
            BECOME_ROOT,
        )
    if closed:
        numbers = " and ".join(map(str, closed))
        return warning(
            name,
            subject,
            f"Of the descriptors 0, 1 and 2 of {subject}, {numbers} cannot be used: closed.",
            "Start the web server with all three open, at least to /dev/null.",
        )
    if target == "/dev/null" and site.environment.get("TOV_LOG", "") in ("", "stderr"):
        return warning(
            name,
            subject,
            f"Standard error of {subject} is /dev/null, so the log of front ends is "
            "lost unless the web server gives them another.",
            "Set TOV_LOG to 'syslog' or to the path of a file.",
        )
    return ok(name, subject, f"Standard input, output and error of {subject} are open.")


def process_environment(site):
    name, subject = "process.environment", process_name(site)
    for item in split_search_path(site.environment.get("LD_LIBRARY_PATH", "")):
        if not item.startswith("/"):
            return failure(
                name,
                subject,
                "LD_LIBRARY_PATH has an empty or relative item, which stands for the "
                "current directory, an account's home for instance.",
                "Take the item out, and the colon at the beginning or end.",
            )
    for variable in ("LD_PRELOAD", "LD_AUDIT"):
        if site.environment.get(variable):
            return warning(
                name,
                subject,
                f"{variable} is set, so foreign code runs in front ends.",
                f"Take {variable} out of the web server's environment.",
            )
    if site.environment.get("HTTP_PROXY"):
        return warning(
            name,
            subject,
            "HTTP_PROXY is set, which front ends and back ends take for a header of the "
            "browser.",
            "Take it out of the web server's environment (http_proxy is a safe name).",
        )
    return ok(name, subject, "The environment holds nothing that endangers front ends.")
