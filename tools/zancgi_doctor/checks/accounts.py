"""The accounts that front ends become, their homes, and the sources of accounts."""

import grp
import os
import pwd
import re
import stat
from functools import partial

from zancgi_doctor.checks.tmp_dir import COPY, files_in, judge_leftovers
from zancgi_doctor.children import run_in_child
from zancgi_doctor.files import access_error, first_unsafe, mount_of, path_to, read_text
from zancgi_doctor.findings import by_access, by_amount, by_danger, by_kind, finding, reporter
from zancgi_doctor.identities import Identity
from zancgi_doctor.libraries import linker_cache
from zancgi_doctor.texts import group_name, listed, quote, reason, size_text, user_name


def check_account(site, account):
    try:
        entry = pwd.getpwnam(account)
    except KeyError:
        yield finding("account.exists", account, "failure")
        return
    yield finding("account.exists", account, "ok")
    yield account_numbers(entry)
    home = account_home(entry)
    yield home
    if home.state == "ok" and entry.pw_uid != 0:
        yield account_way(entry)
        yield account_confinement(site, entry)
        if site.confined:
            yield account_folder(site, entry)
            yield account_session(site, entry)
        yield account_hand_over(site, entry)
        yield account_space(site, entry)
        yield account_leftovers(entry)


def account_numbers(entry):
    group = group_name(entry.pw_uid)
    report = reporter("account.numbers", entry.pw_name, uid=entry.pw_uid, group=group)
    if entry.pw_uid == 0:
        return report("warning root")
    if entry.pw_uid < 1000:
        return report("warning low")
    try:
        namesake = grp.getgrgid(entry.pw_uid)
    except KeyError:
        return report("ok")
    is_member = entry.pw_gid == namesake.gr_gid or entry.pw_name in namesake.gr_mem
    return report("ok" if is_member else "warning group")


def account_home(entry):
    path = entry.pw_dir
    report = reporter("account.home", entry.pw_name, path=path)
    return by_kind(report, path, stat.S_ISDIR) if path else report("failure empty")


def account_way(entry):
    unsafe = first_unsafe(path_to(entry.pw_dir)[:-1], {0}, allows_sticky=False)
    return by_danger(reporter("account.way", entry.pw_name, path=entry.pw_dir), unsafe)


def why_not_confine(path):
    """Why it is unsafe to confine a process to a folder; empty if it is safe."""
    return next(filter(None, map(why_not_roots, path_to(path))), "") or why_not_local(path)


def why_not_roots(step):
    mode = step.status.st_mode
    if step.status.st_uid != 0:
        return f"{quote(step.path)} belongs to user {user_name(step.status.st_uid)}"
    if not step.is_link() and mode & (stat.S_IWGRP | stat.S_IWOTH):
        return f"{quote(step.path)} is writable by others than its owner"
    return ""


def why_not_local(path):
    mount = mount_of(path)
    if mount.is_fuse() or mount.is_remote():
        return f"{quote(path)} is on a file system of type {quote(mount.kind)}"
    return ""


def account_confinement(site, entry):
    path = entry.pw_dir
    report = reporter("account.confinement", entry.pw_name, path=path)
    return by_danger(report, why_not_confine(path), "failure" if site.confined else "skipped")


def account_folder(site, entry):
    path = entry.pw_dir
    report = reporter("account.folder", entry.pw_name, path=path)
    if os.geteuid() != 0:
        return report("unchecked")
    folder = run_in_child(site.timeout, find_writable_folder, path, identity_after_su(entry))
    return report("ok" if folder else "failure", folder=folder)


def identity_after_su(entry):
    """The library uses the user number as the first group."""
    groups = os.getgrouplist(entry.pw_name, entry.pw_uid)
    return Identity(entry.pw_name, entry.pw_uid, entry.pw_gid, groups)


def find_writable_folder(home, identity):
    """The home or a folder below it that an identity can write in; empty if there is
    none. The identity need not be able to reach the home itself."""
    os.chdir(home)
    identity.take_on()
    for folder, folders, _ in os.walk("."):
        if access_error(folder, os.W_OK | os.X_OK) == "":
            return os.path.normpath(os.path.join(home, folder))
        folders.sort()
    return ""


def account_session(site, entry):
    """The library calls PAM after confinement, and only if root owns the root directory."""
    path = entry.pw_dir
    login = os.path.join(path, "etc/pam.d/login")
    unsafe = why_not_roots(path_to(path)[-1]) or why_not_local(path)
    if not unsafe and not os.path.exists(login):
        unsafe = f"PAM looks for {quote(login)}, which does not exist"
    report = reporter("account.session", entry.pw_name, path=path, login=login)
    return by_danger(report, unsafe, "warning" if site.pam else "skipped")


def account_hand_over(site, entry):
    path = entry.pw_dir
    mount = mount_of(path)
    report = reporter("account.hand-over", entry.pw_name, path=path, kind=mount.kind)
    if mount.is_remote():
        return report("warning remote")
    if mount.is_fuse():
        return report("warning fuse")
    if os.statvfs(path).f_flag & os.ST_RDONLY:
        return report("failure read-only")
    if site.identity.uid != 0:
        return report("failure user", user=site.identity.name)
    return by_access(report, site.as_front_end(access_error, path, os.W_OK | os.X_OK))


def account_space(site, entry):
    path = entry.pw_dir
    report = reporter("account.space", entry.pw_name, path=path, tmp_dir=site.tmp_dir)
    try:
        together = os.stat(site.tmp_dir).st_dev == os.stat(path).st_dev
    except OSError as error:
        return report("unchecked", error=reason(error))
    if together:
        return report("ok moved")
    file_system = os.statvfs(path)
    free = file_system.f_bfree * file_system.f_frsize
    return by_amount(partial(report, size=size_text(free)), free, site.min_free, 2 * site.min_free)


def account_leftovers(entry):
    """Copies by root. Files of the account may have such names too."""
    path = entry.pw_dir
    copies = (status for status in files_in(path, COPY) if status.st_uid == 0)
    nouns = ("copy of an upload", "copies of uploads")
    return judge_leftovers("account.leftovers", entry.pw_name, path, copies, nouns)


def check_nss(_site):
    path = "/etc/nsswitch.conf"
    report = reporter("nss.sources", path)
    try:
        text = read_text(path)
    except OSError as error:
        yield report("warning missing", error=reason(error))
        return
    sources = []
    for line in text.splitlines():
        database, colon, words = line.partition("#")[0].partition(":")
        if colon and database.strip() in ("passwd", "group", "initgroups"):
            sources += re.sub(r"\[[^]]*\]", " ", words).split()
    sources = list(dict.fromkeys(sources))
    # Built into the C library.
    modules = [source for source in sources if source not in ("files", "dns")]
    cache = linker_cache()
    missing = [source for source in modules if f"libnss_{source}.so.2" not in cache]
    yield report("warning" if missing else "ok", names=listed(missing or sources))
