"""The run directory, the sockets of back ends in it, and the socket of fcgiwrap."""

import os
import stat

from zancgi_doctor.deployment import SUN_PATH_LIMIT, by_folder, name_error, socket_path
from zancgi_doctor.deployment import why_not_trust_folder, why_not_trust_link, why_not_trust_socket
from zancgi_doctor.files import access_error, has_others, mount_of, path_to
from zancgi_doctor.findings import by_access, by_amount, by_danger, by_kind, finding, reporter
from zancgi_doctor.identities import accounts_of_group, find_user
from zancgi_doctor.systemd import makes_folder, systemd_runs
from zancgi_doctor.texts import counted, listed, reason, user_name


def check_run_dir(site):
    path = site.run_dir
    exists = run_dir_exists(site)
    yield exists
    room = SUN_PATH_LIMIT - len(os.fsencode(path)) - len("/.sock")
    report = reporter("run-dir.length", path, room=counted(max(room, 0), "byte"))
    yield by_amount(report, room, 1, 16)
    if exists.state != "ok":
        return
    yield run_dir_safe(site)
    yield run_dir_reboot(path)
    yield run_dir_names(path)


def run_dir_exists(site):
    path = site.run_dir
    report = reporter("run-dir.exists", path)
    found = by_folder(site, report, path)
    if found.state != "ok":
        return found
    error = site.as_front_end(access_error, path, os.X_OK)
    return report("failure search", user=site.identity.name, error=error) if error else found


def run_dir_safe(site):
    path = site.run_dir
    report = reporter("run-dir.safe", path)
    unsafe = why_not_trust_folder(path)
    if unsafe:
        return report("failure", unsafe=unsafe)
    # Without --as, the front end's user is unknown.
    is_other = site.has_rights and not site.identity.is_own()
    if is_other and site.as_front_end(access_error, path, os.W_OK) == "":
        return report("warning", user=site.identity.name)
    return report("ok", owner=user_name(os.stat(path).st_uid))


def run_dir_reboot(path):
    report = reporter("run-dir.reboot", path)
    if mount_of(path).kind not in ("tmpfs", "ramfs"):
        return report("ok disk")
    maker = makes_folder(os.path.realpath(path))
    if maker:
        return report("ok made", maker=maker)
    return report("warning" if systemd_runs() else "skipped")


def run_dir_names(path):
    report = reporter("run-dir.names", path)
    try:
        names = sorted(os.listdir(path))
    except OSError as error:
        return report("unchecked", error=reason(error))
    hidden = [entry for entry in names if entry.startswith(".") and entry.endswith(".sock")]
    if hidden:
        return report("warning hidden", names=listed(hidden))
    others = [entry for entry in names if not entry.endswith((".sock", ".pid", ".lock"))]
    return report("warning others", names=listed(others)) if others else report("ok")


def check_socket(site, service):
    error = name_error(site, service)
    yield finding("socket.name", service, "failure" if error else "ok", error=error)
    if error:
        return
    path = socket_path(site, service)
    report = reporter("socket.kind", service, path=path, listener="the back end")
    kind = by_kind(report, path, stat.S_ISSOCK)
    yield kind
    if kind.state == "ok":
        # run-dir.safe covers the folder itself.
        unsafe = why_not_trust_link(site, service)
        yield by_danger(reporter("socket.safe", service, path=path), unsafe)
        report = reporter("socket.access", service, path=path, user=site.identity.name)
        yield by_access(report, site.as_front_end(access_error, path, os.W_OK))
        outcome = "warning" if has_others(path_to(path), stat.S_IWOTH) else "ok"
        yield finding("socket.strangers", service, outcome, path=path)


def check_fcgi(site, path):
    report = reporter("fcgi.kind", path, path=path, listener="fcgiwrap")
    kind = by_kind(report, path, stat.S_ISSOCK)
    yield kind
    if kind.state == "ok":
        yield by_danger(reporter("fcgi.safe", path), why_not_trust_socket(path))
        yield fcgi_strangers(site, path)


def fcgi_strangers(site, path):
    """A FastCGI request names the program to start, and its environment."""
    report = reporter("fcgi.strangers", path, user=site.identity.name)
    steps = path_to(path)
    if has_others(steps, stat.S_IWOTH):
        return report("failure")
    accounts = sorted(accounts_with_access(steps[-1].status))
    return report("warning" if len(accounts) > 1 else "ok", accounts=listed(accounts) or "root")


def accounts_with_access(status):
    """Those with write permission as owner or group, except root."""
    accounts = set()
    if status.st_mode & stat.S_IWUSR:
        accounts.add(find_user(str(status.st_uid))[0])
    if status.st_mode & stat.S_IWGRP:
        accounts |= accounts_of_group(status.st_gid)
    return accounts - {"root"}
