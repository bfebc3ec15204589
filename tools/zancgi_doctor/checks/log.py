"""Where the messages of front ends go, and who reads them."""

import os
import re
import socket
import stat

from zancgi_doctor.files import access_error, kind_of
from zancgi_doctor.findings import BECOME_ROOT, failure, ok, unchecked, warning
from zancgi_doctor.texts import quote, reason


def check_log(site):
    target = site.environment.get("TOV_LOG", "") or "stderr"
    if target == "stderr":
        yield ok("log.target", target, "Messages go to standard error, the web server's error log.")
    elif target == "syslog":
        yield log_to_syslog()
    else:
        yield log_to_file(site, target)
        yield log_reader(target)
    yield log_level(site)


def log_to_syslog():
    name = "log.target"
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM | socket.SOCK_NONBLOCK) as client:
        try:
            client.connect("/dev/log")
        except OSError as error:
            return failure(
                name,
                "syslog",
                f"Messages are to go to syslog, but nobody takes them: {reason(error)}.",
                "Start a system logger that listens on /dev/log, or set TOV_LOG to the path of a "
                "file.",
            )
    return ok(name, "syslog", "Messages go to syslog.")


def log_file_error(path):
    """Why the library could not append to a file; empty if it could."""
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
    name = "log.target"
    if not path.startswith("/"):
        return warning(
            name,
            path,
            f"The path {quote(path)} in TOV_LOG is relative, so the place of the log depends "
            "on who starts the front end.",
            "Set TOV_LOG to a path that begins with a slash.",
        )
    error = site.as_front_end(log_file_error, path)
    if error is None:
        return unchecked(
            name, path, f"Whether {site.who()} may write {quote(path)} is not known.", BECOME_ROOT
        )
    if error:
        return failure(
            name,
            path,
            f"{site.who_first()} cannot write the log {quote(path)}: {error}; messages "
            "go to standard error instead.",
            "Make the file for the front end's user with mode 0640.",
        )
    if is_fifo(path):
        return warning(
            name,
            path,
            f"The log {quote(path)} is a FIFO: while nobody reads from it, messages go to standard "
            "error instead.",
            "See that its reader runs, or set TOV_LOG to 'syslog' or to the path of a file.",
        )
    return ok(name, path, f"{site.who_first()} can write the log {quote(path)}.")


def is_fifo(path):
    try:
        return stat.S_ISFIFO(os.lstat(path).st_mode)
    except OSError:
        return False


def log_reader(path):
    name = "log.reader"
    try:
        status = os.lstat(path)
    except OSError:
        return ok(name, path, "The log will be made with mode 0640.")
    if status.st_mode & stat.S_IROTH and stat.S_ISREG(status.st_mode):
        return warning(
            name,
            path,
            f"Everybody can read the log {quote(path)}.",
            "Take that right away (chmod o-r), here and in the configuration of logrotate.",
        )
    return ok(name, path, "Strangers cannot read the log.")


def log_level(site):
    name, text = "log.level", site.environment.get("TOV_LOG_LEVEL", "")
    if not text:
        return ok(name, "TOV_LOG_LEVEL", "Messages are written up to level 4, warnings.")
    if not re.fullmatch("[0-9]+", text):
        return warning(
            name,
            "TOV_LOG_LEVEL",
            f"TOV_LOG_LEVEL is {quote(text)}, which is no number and counts as 4.",
            "Set it to a number from 0 to 9.",
        )
    digits = text.lstrip("0")
    level = int(digits or "0") if len(digits) <= 1 else 9
    if level >= 7:
        return warning(
            name,
            "TOV_LOG_LEVEL",
            f"At level {level} the log holds queries, and with them session ids and passwords.",
            "Set TOV_LOG_LEVEL to 6 or less.",
        )
    if level < 4:
        return warning(
            name,
            "TOV_LOG_LEVEL",
            f"At level {level} warnings are not logged.",
            "Set TOV_LOG_LEVEL to 4.",
        )
    return ok(name, "TOV_LOG_LEVEL", f"Messages are written up to level {level}.")
