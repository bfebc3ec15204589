"""The temporary directory, where uploads lie while front ends work."""

import contextlib
import os
import re
import stat
import time

from zancgi_doctor.deployment import not_seen
from zancgi_doctor.files import access_error, first_unsafe, has_others, kind_of, read_text, way_to
from zancgi_doctor.findings import BECOME_ROOT, failure, ok, skipped, unchecked, warning
from zancgi_doctor.identities import accounts_of_group
from zancgi_doctor.mounts import mount_of
from zancgi_doctor.systemd import is_aged, systemd_runs
from zancgi_doctor.texts import counted, group_name, listed, quote, reason, size_text, time_text

ENTRY_LIMIT = 100_000
OLD_SECONDS = 24 * 3600
# The names of uploads, and of their copies on the way to another file system.
UPLOAD = "zantemp.*"
COPY = r"\.tov-[0-9A-Za-z]{6}"
# Those of everybody, whose mode must stay.
PUBLIC_FOLDERS = ("/tmp", "/var/tmp", "/dev/shm")


def check_tmp_dir(site):
    exists = tmp_dir_exists(site)
    yield exists
    if exists.state != "ok":
        return
    path = site.tmp_dir
    yield tmp_dir_writable(site)
    yield tmp_dir_safe(site)
    yield tmp_dir_listing(site)
    yield tmp_dir_file_system(site)
    file_system = os.statvfs(path)
    yield tmp_dir_space(site, file_system)
    yield tmp_dir_inodes(path, file_system)
    yield tmp_dir_leftovers(path)
    yield tmp_dir_ageing(path)


def tmp_dir_exists(site):
    name, path = "tmp-dir.exists", site.tmp_dir
    if not path.startswith("/"):
        return failure(
            name,
            path,
            f"The temporary directory {quote(path)} is relative, so where uploads go depends on "
            "the place of the program.",
            "Set TMP to a path that begins with a slash.",
        )
    try:
        status = os.stat(path)
    except OSError as error:
        missing = failure(
            name,
            path,
            f"The temporary directory {quote(path)} cannot be found: {reason(error)}.",
            "Make it, with mode 0700, for the front end's user, or set TMP.",
        )
        return not_seen(site, missing, path, error)
    if not stat.S_ISDIR(status.st_mode):
        return failure(
            name,
            path,
            f"The temporary directory {quote(path)} is {kind_of(status.st_mode)}.",
            "Put a folder there, or set TMP to one.",
        )
    return ok(name, path, f"The temporary directory {quote(path)} exists.")


def tmp_dir_writable(site):
    name, path = "tmp-dir.writable", site.tmp_dir
    error = site.as_front_end(access_error, path, os.W_OK | os.X_OK)
    if error is None:
        return unchecked(
            name,
            path,
            f"Whether {site.who()} may write in {quote(path)} is not known.",
            BECOME_ROOT,
        )
    if error:
        return failure(
            name,
            path,
            f"{site.who_first()} cannot write in {quote(path)}: {error}.",
            "Let it belong to the front end's user, and be mounted writable.",
        )
    return ok(name, path, f"{site.who_first()} may write in {quote(path)}.")


def tmp_dir_safe(site):
    name, path = "tmp-dir.safe", site.tmp_dir
    unsafe = first_unsafe(way_to(path), {0, site.identity.uid})
    if unsafe:
        return failure(
            name,
            path,
            f"Others can exchange uploads for files of their own: {unsafe}.",
            "Let it belong to the front end's user with mode 0700, or to root with mode 1733 "
            "for front ends of several users.",
        )
    return ok(name, path, f"Nobody else can exchange uploads in {quote(path)}.")


def tmp_dir_listing(site):
    name, path = "tmp-dir.listing", site.tmp_dir
    readers = who_can_list(site, way_to(path))
    if not readers:
        return ok(name, path, f"Nobody else can list the uploads in {quote(path)}.")
    remedy = (
        "Set its mode to 0700, or for front ends of several users to 1733, owned by root, as the "
        "package's /var/spool/zancgi."
    )
    if os.path.realpath(path) in PUBLIC_FOLDERS:
        remedy = (
            "Set TMP to a folder of the front ends' own with mode 0700, or to the package's "
            "/var/spool/zancgi; without TMP uploads go to /tmp."
        )
    return warning(
        name,
        path,
        f"{readers} can list {quote(path)}, and read an upload there while it is handed over: it "
        "has mode 0644 before it is moved.",
        remedy,
    )


def who_can_list(site, steps):
    """At the beginning of a sentence; empty if only root and the front end can."""
    if has_others(steps, stat.S_IROTH):
        return "Every local user"
    status = steps[-1].status
    if not status.st_mode & stat.S_IRGRP:
        return ""
    others = accounts_of_group(status.st_gid) - {"root", site.identity.name}
    return f"Group {group_name(status.st_gid)} ({listed(sorted(others))})" if others else ""


def tmp_dir_file_system(site):
    name, path = "tmp-dir.file-system", site.tmp_dir
    mount = mount_of(path)
    if mount.is_remote() or mount.is_fuse():
        return warning(
            name,
            path,
            f"{quote(path)} is on a file system of type {quote(mount.kind)}.",
            "Use a local file system: uploads would cross the network, or another program, twice.",
        )
    if mount.kind in ("tmpfs", "ramfs"):
        return in_memory(site, path, mount)
    message = f"{quote(path)} is on a file system of type {quote(mount.kind)}."
    if mount.options & {"usrquota", "grpquota", "prjquota", "usrjquota", "uquota", "gquota"}:
        message = message[:-1] + f", with quotas: see what {site.who()} has left."
    return ok(name, path, message)


def in_memory(site, path, mount):
    name = "tmp-dir.file-system"
    available = memory_available()
    message = (
        f"{quote(path)} is in memory ({mount.kind}), of which {size_text(available)} "
        "are available."
    )
    if available < site.min_free:
        return warning(
            name,
            path,
            message,
            "Set TMP to a folder on a disk, such as /var/tmp/panel, or add memory.",
        )
    return ok(name, path, message)


def memory_available():
    found = re.search(r"^MemAvailable:\s+(\d+) kB", read_text("/proc/meminfo"), re.M)
    return int(found[1]) * 1024 if found else 0


def tmp_dir_space(site, file_system):
    blocks = file_system.f_bfree if site.identity.uid == 0 else file_system.f_bavail
    free = blocks * file_system.f_frsize
    return judge_space("tmp-dir.space", site.tmp_dir, site.tmp_dir, free, site.min_free)


def judge_space(name, subject, path, free, wanted):
    message = f"{size_text(free)} are free on the file system of {quote(path)}."
    remedy = "Remove what is not needed, or use a larger file system; see --min-free."
    if free < wanted:
        return failure(name, subject, message, remedy)
    if free < 2 * wanted:
        return warning(name, subject, message, remedy)
    return ok(name, subject, message)


def tmp_dir_inodes(path, file_system):
    name = "tmp-dir.inodes"
    if file_system.f_files == 0:
        return ok(name, path, f"The file system of {quote(path)} has no fixed number of inodes.")
    free = file_system.f_favail
    message = f"{counted(free, 'inode is', 'inodes are')} free on the file system of {quote(path)}."
    remedy = "Remove small files that are not needed; each upload takes an inode."
    if free < 1000:
        return failure(name, path, message, remedy)
    if free < 10_000:
        return warning(name, path, message, remedy)
    return ok(name, path, message)


def files_in(path, pattern):
    """The status of each regular file of such a name, not followed or opened."""
    with os.scandir(path) as entries:
        for _, entry in zip(range(ENTRY_LIMIT), entries):
            if re.fullmatch(pattern, entry.name, re.DOTALL):
                with contextlib.suppress(OSError):  # gone meanwhile
                    status = entry.stat(follow_symlinks=False)
                    if stat.S_ISREG(status.st_mode):
                        yield status


def judge_leftovers(name, subject, path, find, nouns, remedy):
    """Of what find() returns, the status of each file, those that have been left
    by killed front ends."""

    def number_of(files):
        return counted(len(files), f"{nouns[0]} is", f"{nouns[1]} are")

    try:
        files = list(find())
    except OSError as error:
        return unchecked(
            name, subject, f"{quote(path)} cannot be listed: {reason(error)}.", BECOME_ROOT
        )
    now = time.time()
    old = [status for status in files if now - status.st_mtime > OLD_SECONDS]
    if not old:
        return ok(
            name,
            subject,
            f"{number_of(files)} in {quote(path)}, none older than a day.",
        )
    size = sum(status.st_size for status in old)
    age = now - min(status.st_mtime for status in old)
    return warning(
        name,
        subject,
        f"In {quote(path)} {number_of(old)} left over, {size_text(size)} in all, "
        f"the oldest {time_text(age)} old.",
        remedy,
    )


def tmp_dir_leftovers(path):
    return judge_leftovers(
        "tmp-dir.leftovers",
        path,
        path,
        lambda: files_in(path, f"{UPLOAD}|{COPY}"),
        ("upload", "uploads"),
        "Remove files named zantemp* and .tov-?????? that are older than a day, and have that done "
        "by a tmpfiles.d rule; see why front ends are killed.",
    )


def tmp_dir_ageing(path):
    name = "tmp-dir.ageing"
    if is_aged(os.path.realpath(path)):
        return ok(name, path, f"A tmpfiles.d rule removes old files from {quote(path)}.")
    if not systemd_runs():
        return skipped(
            name,
            path,
            f"Whether old files are removed from {quote(path)} is not known, since systemd does "
            "not run here.",
        )
    return warning(
        name,
        path,
        f"No tmpfiles.d rule removes old files from {quote(path)}, where killed front ends leave "
        "their uploads.",
        "Set TMP to a folder of the front ends' own that has such a rule: 'd /var/spool/zancgi "
        "1733 root root 1d'.",
    )
