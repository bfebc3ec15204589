"""The accounts that front ends become, and their homes."""

import grp
import os
import pwd
import stat

from zancgi_doctor.checks.tmp_dir import judge_space
from zancgi_doctor.files import access_error, first_unsafe, kind_of, way_to
from zancgi_doctor.findings import BECOME_ROOT, failure, ok, skipped, unchecked, warning
from zancgi_doctor.mounts import mount_of
from zancgi_doctor.texts import group_name, quote, reason, size_text, user_name


def check_account(site, account):
    try:
        entry = pwd.getpwnam(account)
    except KeyError:
        yield failure(
            "account.exists",
            account,
            f"There is no account {quote(account)}.",
            "Make it with adduser, or see whether its directory service answers.",
        )
        return
    yield ok("account.exists", account, f"The account {quote(account)} exists.")
    yield account_numbers(entry)
    home = account_home(entry)
    yield home
    if home.state == "ok" and entry.pw_uid != 0:
        yield account_way(entry)
        yield account_confinement(site, entry)
        yield account_hand_over(site, entry)
        yield account_space(site, entry)


def account_numbers(entry):
    name, subject = "account.numbers", entry.pw_name
    if entry.pw_uid == 0:
        return warning(
            name,
            subject,
            f"The account {quote(subject)} has user number 0: nothing is handed over, "
            "nothing confined, and the request goes on as root.",
            "Have the front end refuse accounts with user number 0.",
        )
    if entry.pw_uid < 1000:
        return warning(
            name,
            subject,
            f"The account {quote(subject)} has user number {entry.pw_uid}, and the "
            f"process will be in group {group_name(entry.pw_uid)} of the same number.",
            "Give accounts of users numbers from 1000 on.",
        )
    try:
        group = grp.getgrgid(entry.pw_uid)
    except KeyError:
        group = None
    if group and entry.pw_gid != group.gr_gid and subject not in group.gr_mem:
        return warning(
            name,
            subject,
            f"The process will be in group {group_name(group.gr_gid)}, whose number is "
            f"that of user {quote(subject)}, though the account is not in it.",
            "Give the account a group of its user's number, as adduser does.",
        )
    return ok(name, subject, f"The numbers of account {quote(subject)} bring it no foreign group.")


def account_home(entry):
    name, subject, path = "account.home", entry.pw_name, entry.pw_dir
    remedy = "Give the account a home that is a folder (usermod --home, mkhomedir_helper)."
    if not path:
        return failure(
            name,
            subject,
            f"The account {quote(subject)} has an empty home, which stands "
            "for the front end's current directory.",
            remedy,
        )
    try:
        status = os.stat(path)
    except PermissionError as error:
        return unchecked(
            name,
            subject,
            f"The home {quote(path)} cannot be looked at: {reason(error)}.",
            BECOME_ROOT,
        )
    except OSError as error:
        return failure(
            name,
            subject,
            f"The home {quote(path)} of account {quote(subject)} cannot be found: "
            f"{reason(error)}.",
            remedy,
        )
    if not stat.S_ISDIR(status.st_mode):
        return failure(
            name,
            subject,
            f"The home {quote(path)} of account {quote(subject)} is {kind_of(status.st_mode)}.",
            remedy,
        )
    return ok(name, subject, f"The home {quote(path)} exists.")


def account_way(entry):
    name, subject = "account.way", entry.pw_name
    steps = way_to(entry.pw_dir)
    unsafe = first_unsafe(steps[:-1], {0}, allows_sticky=False)
    if unsafe:
        return failure(
            name,
            subject,
            f"Root can be led astray on the way to the home: {unsafe}.",
            "Let every folder above the home, and every link to it, belong to root, writable by "
            "root only.",
        )
    return ok(name, subject, f"Only root can change the way to {quote(entry.pw_dir)}.")


def why_not_confine(path):
    """Why a process must not be confined to a folder; empty if it may."""
    for step in way_to(path):
        mode = step.status.st_mode
        if step.status.st_uid != 0:
            return f"{quote(step.path)} belongs to user {user_name(step.status.st_uid)}"
        if not step.is_link() and mode & (stat.S_IWGRP | stat.S_IWOTH):
            return f"{quote(step.path)} is writable by others than its owner"
    mount = mount_of(path)
    if mount.is_fuse() or mount.is_remote():
        return f"{quote(path)} is on a file system of type {quote(mount.kind)}"
    return ""


def account_confinement(site, entry):
    name, subject, path = "account.confinement", entry.pw_name, entry.pw_dir
    why = why_not_confine(path)
    if not why:
        return ok(name, subject, f"A process may be confined to {quote(path)}.")
    message = f"No process must be confined to {quote(path)}: {why}."
    if not site.confined:
        return skipped(name, subject, message)
    return failure(
        name,
        subject,
        message,
        "Let the home and every folder above it belong to root with mode 755 on a local file "
        "system, and give the account a folder inside; or do not ask for use_chroot.",
    )


def account_hand_over(site, entry):
    name, subject, path = "account.hand-over", entry.pw_name, entry.pw_dir
    mount = mount_of(path)
    if mount.is_remote():
        return warning(
            name,
            subject,
            f"The home {quote(path)} is on {quote(mount.kind)}, whose server mostly "
            "does not let root write (root_squash).",
            "Export it with no_root_squash to this machine only, or keep homes on a local disk.",
        )
    if mount.is_fuse():
        return warning(
            name,
            subject,
            f"The home {quote(path)} is on {quote(mount.kind)}, which mostly does not let "
            "root in.",
            "Mount it with allow_root, or keep homes on a local disk.",
        )
    if os.statvfs(path).f_flag & os.ST_RDONLY:
        return failure(
            name,
            subject,
            f"Uploads cannot be put into {quote(path)}: the file system is mounted read-only.",
            "Mount it writable.",
        )
    if site.identity.uid != 0:
        return failure(
            name,
            subject,
            f"Uploads cannot be handed over, since {site.who()} is not root.",
            "Have the web server start the front end as root, if it is to become accounts.",
        )
    error = site.as_front_end(access_error, path, os.W_OK | os.X_OK)
    if error is None:
        return unchecked(
            name, subject, f"Whether root can write in {quote(path)} is not known.", BECOME_ROOT
        )
    if error:
        return failure(
            name,
            subject,
            f"Uploads cannot be put into {quote(path)}: {error}.",
            "See why root may not write there: attributes (lsattr) or a security module.",
        )
    return ok(name, subject, f"Root can put uploads into {quote(path)}.")


def account_space(site, entry):
    name, subject, path = "account.space", entry.pw_name, entry.pw_dir
    try:
        together = os.stat(site.tmp_dir).st_dev == os.stat(path).st_dev
    except OSError as error:
        return unchecked(
            name,
            subject,
            f"Whether uploads have to be copied is not known: {reason(error)}.",
            "Mend the temporary directory first.",
        )
    if together:
        return ok(name, subject, f"Uploads are moved to {quote(path)} without being copied.")
    file_system = os.statvfs(path)
    free = file_system.f_bfree * file_system.f_frsize
    finding = judge_space(name, subject, path, free, site.min_free)
    finding.message = (
        f"Uploads are copied from {quote(site.tmp_dir)} to another file system, on "
        f"which {size_text(free)} are free."
    )
    return finding
