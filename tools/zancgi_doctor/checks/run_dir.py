"""The run directory, where back ends have their sockets."""

import os
import stat

from zancgi_doctor.deployment import SUN_PATH_LIMIT, not_seen
from zancgi_doctor.files import access_error, kind_of
from zancgi_doctor.findings import BECOME_ROOT, failure, ok, skipped, unchecked, warning
from zancgi_doctor.impostors import why_not_trust_folder
from zancgi_doctor.mounts import mount_of
from zancgi_doctor.systemd import makes_folder, systemd_runs
from zancgi_doctor.texts import counted, listed, printable, quote, reason, user_name


def check_run_dir(site):
    path = site.run_dir
    exists = run_dir_exists(site)
    yield exists
    yield run_dir_length(path)
    if exists.state != "ok":
        return
    yield run_dir_safe(site)
    yield run_dir_reboot(path)
    yield run_dir_names(path)


def run_dir_exists(site):
    name, path = "run-dir.exists", site.run_dir
    if not path.startswith("/"):
        return failure(
            name,
            path,
            f"The run directory {quote(path)} is relative, and the library changes the current "
            "directory before it looks there.",
            "Set TOV_RUN_DIR to a path that begins with a slash.",
        )
    try:
        status = os.stat(path)
    except OSError as error:
        missing = failure(
            name,
            path,
            f"The run directory {quote(path)} cannot be found: {reason(error)}.",
            "Have it made by a tmpfiles.d rule such as 'd /run/tov 0755 root root', or by "
            "RuntimeDirectory= of the back end's unit, or set TOV_RUN_DIR.",
        )
        return not_seen(site, missing, path, error)
    if not stat.S_ISDIR(status.st_mode):
        return failure(
            name,
            path,
            f"The run directory {quote(path)} is {kind_of(status.st_mode)}.",
            "Put a folder there, or set TOV_RUN_DIR to one.",
        )
    error = site.as_front_end(access_error, path, os.X_OK)
    if error:
        return failure(
            name,
            path,
            f"The run directory {quote(path)} cannot be searched by {site.who()}: {error}.",
            "Give that user's group the right to search it and all folders above it "
            "(chmod g+x, chgrp).",
        )
    return ok(name, path, f"The run directory {quote(path)} exists.")


def run_dir_length(path):
    name = "run-dir.length"
    room = SUN_PATH_LIMIT - len(os.fsencode(path)) - len("/.sock")
    message = (
        f"The path of the run directory leaves {counted(max(room, 0), 'byte')} for the name "
        "of a service."
    )
    remedy = "Choose a shorter path for TOV_RUN_DIR."
    if room < 1:
        return failure(name, path, message, remedy)
    if room < 16:
        return warning(name, path, message, remedy)
    return ok(name, path, message)


def run_dir_safe(site):
    name, path = "run-dir.safe", site.run_dir
    owner = os.stat(path).st_uid
    remedy = (
        "Let it and every folder above it be writable by root and the back end's user only "
        "(chown, chmod go-w)."
    )
    unsafe = why_not_trust_folder(path)
    if unsafe:
        return failure(name, path, f"Others can pose as a back end: {unsafe}.", remedy)
    # Who checks as themself has not said that front ends run so.
    is_other = site.has_rights and not site.identity.is_own()
    if is_other and site.as_front_end(access_error, path, os.W_OK) == "":
        return warning(
            name,
            path,
            f"The front end's {site.who()} may write in {quote(path)}, and so replace a socket.",
            remedy,
        )
    return ok(name, path, f"Only root and user {user_name(owner)} can replace a socket.")


def run_dir_reboot(path):
    name = "run-dir.reboot"
    if mount_of(path).kind not in ("tmpfs", "ramfs"):
        return ok(name, path, f"{quote(path)} is on a disk and outlasts a reboot.")
    maker = makes_folder(os.path.realpath(path))
    if maker:
        return ok(name, path, f"{quote(path)} is made at every start by {maker}.")
    if not systemd_runs():
        return skipped(
            name,
            path,
            f"{quote(path)} is in memory; whatever starts the back end has to make it, since "
            "systemd does not run here.",
        )
    return warning(
        name,
        path,
        f"{quote(path)} is in memory and nothing makes it again after a reboot.",
        f"Put 'd {printable(path)} 0755 root root' into /etc/tmpfiles.d/tov.conf, or "
        "RuntimeDirectory= into the back end's unit.",
    )


def run_dir_names(path):
    name = "run-dir.names"
    try:
        names = sorted(os.listdir(path))
    except OSError as error:
        return unchecked(
            name, path, f"{quote(path)} cannot be listed: {reason(error)}.", BECOME_ROOT
        )
    hidden = [entry for entry in names if entry.startswith(".") and entry.endswith(".sock")]
    if hidden:
        return warning(
            name,
            path,
            f"{listed(hidden)} cannot be asked for: the name of a service must not begin "
            "with a dot.",
            "Give the back end's socket another name.",
        )
    others = [entry for entry in names if not entry.endswith((".sock", ".pid", ".lock"))]
    if others:
        return warning(
            name,
            path,
            f"In {quote(path)} lies what is no socket: {listed(others)}.",
            "Keep other files elsewhere, so that only the back ends write there.",
        )
    return ok(name, path, f"Nothing but sockets lies in {quote(path)}.")
