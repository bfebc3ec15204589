"""The accounts that front ends become, and their homes."""

import grp
import os
import pwd
import stat

from zancgi_doctor.checks.tmp_dir import COPY, files_in, judge_leftovers, judge_space
from zancgi_doctor.children import run_in_child
from zancgi_doctor.files import access_error, first_unsafe, kind_of, way_to
from zancgi_doctor.findings import BECOME_ROOT, failure, ok, skipped, unchecked, warning
from zancgi_doctor.identities import Identity
from zancgi_doctor.mounts import mount_of
from zancgi_doctor.texts import group_name, printable, quote, reason, size_text, user_name


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
        if site.confined:
            yield account_folder(site, entry)
            yield account_session(site, entry)
        yield account_hand_over(site, entry)
        yield account_space(site, entry)
        yield account_leftovers(entry)


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
    return next(filter(None, map(why_not_roots, way_to(path))), "") or why_not_local(path)


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


def account_folder(site, entry):
    name, subject, path = "account.folder", entry.pw_name, entry.pw_dir
    if os.geteuid() != 0:
        return unchecked(
            name, subject, f"Where account {quote(subject)} may write is not known.", BECOME_ROOT
        )
    folder = run_in_child(site.timeout, find_writable_folder, path, identity_after_su(entry))
    if folder:
        return ok(name, subject, f"The account {quote(subject)} may write in {quote(folder)}.")
    return failure(
        name,
        subject,
        f"Confined to {quote(path)}, the account {quote(subject)} may write in no folder there, so "
        "its front ends cannot keep a file, nor rename or remove what was uploaded.",
        "Make a folder inside that belongs to the account, for instance "
        f"'install -d -o {printable(subject)} -m 0700 {printable(path)}/files'.",
    )


def identity_after_su(entry):
    """The library takes the user's number for the first of the groups."""
    groups = os.getgrouplist(entry.pw_name, entry.pw_uid)
    return Identity(entry.pw_name, entry.pw_uid, entry.pw_gid, groups)


def find_writable_folder(home, identity):
    """A folder below the home, or the home itself, in which an identity may
    write that need not reach the home from outside; empty if there is none."""
    os.chdir(home)
    identity.take_on()
    for folder, folders, _ in os.walk("."):
        if access_error(folder, os.W_OK | os.X_OK) == "":
            return os.path.normpath(os.path.join(home, folder))
        folders.sort()
    return ""


def account_session(site, entry):
    """PAM is called after the confinement, and only in a root directory that is
    root's own."""
    name, subject, path = "account.session", entry.pw_name, entry.pw_dir
    why = why_not_roots(way_to(path)[-1]) or why_not_local(path)
    login = os.path.join(path, "etc/pam.d/login")
    if not why and not os.path.exists(login):
        why = f"{quote(login)} does not exist, where PAM then looks"
    if not why:
        return ok(name, subject, f"Confined to {quote(path)}, PAM finds {quote(login)}.")
    message = f"Confined to {quote(path)}, the account {quote(subject)} gets no PAM session: {why}."
    if not site.pam:
        return skipped(name, subject, message)
    return warning(
        name,
        subject,
        message,
        "Ask for use_chroot or for use_pam, not for both; or keep in the home, which must be "
        "root's own, a configuration of PAM and the modules that it names.",
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


def account_leftovers(entry):
    """Copies that root had begun, beside which the home has the account's own files."""
    path = entry.pw_dir
    return judge_leftovers(
        "account.leftovers",
        entry.pw_name,
        path,
        lambda: (status for status in files_in(path, COPY) if status.st_uid == 0),
        ("copy of an upload", "copies of uploads"),
        "They are root's and count in no quota of the account. Remove them: find "
        f"{quote(path)} -maxdepth 1 -name '.tov-??????' -user root -mtime +0 -delete; and see why "
        "front ends are killed while they copy.",
    )
