"""The log of front ends: its target, readers and level."""

import os
import re
import socket
import stat

from zancgi_doctor.files import access_error, kind_of
from zancgi_doctor.findings import by_access, finding, reporter
from zancgi_doctor.texts import reason


def check_log(site):
    target = site.environment.get("TOV_LOG", "") or "stderr"
    if target == "stderr":
        yield finding("log.target", target, "ok stderr")
    elif target == "syslog":
        yield log_to_syslog(target)
    else:
        yield log_to_file(site, target)
        yield log_reader(target)
    yield log_level(site.environment.get("TOV_LOG_LEVEL", ""))


def log_to_syslog(target):
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM | socket.SOCK_NONBLOCK) as client:
        try:
            client.connect("/dev/log")
        except OSError as error:
            return finding("log.target", target, "failure syslog", error=reason(error))
    return finding("log.target", target, "ok syslog")


def log_file_error(path):
    """Why the library cannot append to a file; empty if it can."""
    try:
        status = os.lstat(path)
    except FileNotFoundError:
        return access_error(os.path.dirname(path) or ".", os.W_OK | os.X_OK)
    except OSError as error:
        return reason(error)
    if stat.S_ISLNK(status.st_mode):
        return "it is a symbolic link, which is not followed"
    if stat.S_ISDIR(status.st_mode) or stat.S_ISSOCK(status.st_mode):
        return f"it is {kind_of(status.st_mode)}"
    return access_error(path, os.W_OK)


def log_to_file(site, path):
    report = reporter("log.target", path, user=site.identity.name)
    if not path.startswith("/"):
        return report("warning relative")
    error = site.as_front_end(log_file_error, path)
    return report("warning fifo") if error == "" and is_fifo(path) else by_access(report, error)


def is_fifo(path):
    try:
        return stat.S_ISFIFO(os.lstat(path).st_mode)
    except OSError:
        return False


def log_reader(path):
    report = reporter("log.reader", path)
    try:
        status = os.lstat(path)
    except OSError:
        return report("ok new")
    is_readable = status.st_mode & stat.S_IROTH and stat.S_ISREG(status.st_mode)
    return report("warning" if is_readable else "ok")


def log_level(text):
    report = reporter("log.level", "TOV_LOG_LEVEL")
    if not text:
        return report("ok none")
    if not re.fullmatch("[0-9]+", text):
        return report("warning number", level=text)
    digits = text.lstrip("0")
    level = int(digits or "0") if len(digits) <= 1 else 9
    outcome = "warning high" if level >= 7 else "warning low" if level < 4 else "ok"
    return report(outcome, level=level)
