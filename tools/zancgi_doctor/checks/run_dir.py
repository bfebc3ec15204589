"""The run directory, where back ends have their sockets."""

import os

from zancgi_doctor.deployment import SUN_PATH_LIMIT, folder_error
from zancgi_doctor.files import access_error
from zancgi_doctor.findings import by_amount, sayer
from zancgi_doctor.impostors import why_not_trust_folder
from zancgi_doctor.mounts import mount_of
from zancgi_doctor.systemd import makes_folder, systemd_runs
from zancgi_doctor.texts import counted, listed, reason, user_name


def check_run_dir(site):
    path = site.run_dir
    exists = run_dir_exists(site)
    yield exists
    room = SUN_PATH_LIMIT - len(os.fsencode(path)) - len("/.sock")
    say = sayer("run-dir.length", path, room=counted(max(room, 0), "byte"))
    yield by_amount(say, room, 1, 16)
    if exists.state != "ok":
        return
    yield run_dir_safe(site)
    yield run_dir_reboot(path)
    yield run_dir_names(path)


def run_dir_exists(site):
    path = site.run_dir
    say = sayer("run-dir.exists", path)
    error = folder_error(site, say, path)
    if error:
        return error
    error = site.as_front_end(access_error, path, os.X_OK)
    if error:
        return say("failure search", user=site.identity.name, error=error)
    return say("ok")


def run_dir_safe(site):
    path = site.run_dir
    say = sayer("run-dir.safe", path)
    unsafe = why_not_trust_folder(path)
    if unsafe:
        return say("failure", unsafe=unsafe)
    # Who checks as themself has not said that front ends run so.
    is_other = site.has_rights and not site.identity.is_own()
    if is_other and site.as_front_end(access_error, path, os.W_OK) == "":
        return say("warning", user=site.identity.name)
    return say("ok", owner=user_name(os.stat(path).st_uid))


def run_dir_reboot(path):
    say = sayer("run-dir.reboot", path)
    if mount_of(path).kind not in ("tmpfs", "ramfs"):
        return say("ok disk")
    maker = makes_folder(os.path.realpath(path))
    if maker:
        return say("ok made", maker=maker)
    return say("warning" if systemd_runs() else "skipped")


def run_dir_names(path):
    say = sayer("run-dir.names", path)
    try:
        names = sorted(os.listdir(path))
    except OSError as error:
        return say("unchecked", error=reason(error))
    hidden = [entry for entry in names if entry.startswith(".") and entry.endswith(".sock")]
    if hidden:
        return say("warning hidden", names=listed(hidden))
    others = [entry for entry in names if not entry.endswith((".sock", ".pid", ".lock"))]
    return say("warning others", names=listed(others)) if others else say("ok")
