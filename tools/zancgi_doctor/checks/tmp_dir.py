"""The temporary directory, which stores uploads."""

import contextlib
import os
import re
import stat
import time

from zancgi_doctor.deployment import by_folder
from zancgi_doctor.files import access_error, first_unsafe, has_others, mount_of, path_to, read_text
from zancgi_doctor.findings import by_access, by_amount, by_danger, finding, reporter
from zancgi_doctor.identities import accounts_of_group
from zancgi_doctor.systemd import is_aged, systemd_runs
from zancgi_doctor.texts import counted, group_name, listed, reason, size_text, time_text

ENTRY_LIMIT = 100_000
OLD_SECONDS = 24 * 3600
# The names of uploads, and of unfinished copies to another file system.
UPLOAD = "zantemp.*"
COPY = r"\.tov-[0-9A-Za-z]{6}"
# Folders for every user: their mode must not be changed.
PUBLIC_FOLDERS = ("/tmp", "/var/tmp", "/dev/shm")
QUOTAS = {"usrquota", "grpquota", "prjquota", "usrjquota", "uquota", "gquota"}


def check_tmp_dir(site):
    path = site.tmp_dir
    exists = by_folder(site, reporter("tmp-dir.exists", path), path)
    yield exists
    if exists.state != "ok":
        return
    report = reporter("tmp-dir.writable", path, user=site.identity.name)
    yield by_access(report, site.as_front_end(access_error, path, os.W_OK | os.X_OK))
    unsafe = first_unsafe(path_to(path), {0, site.identity.uid})
    yield by_danger(reporter("tmp-dir.safe", path), unsafe)
    yield tmp_dir_listing(site)
    yield tmp_dir_file_system(site)
    file_system = os.statvfs(path)
    yield tmp_dir_space(site, file_system)
    yield tmp_dir_inodes(path, file_system)
    uploads = files_in(path, f"{UPLOAD}|{COPY}")
    yield judge_leftovers("tmp-dir.leftovers", path, path, uploads, ("upload", "uploads"))
    yield tmp_dir_ageing(path)


def tmp_dir_listing(site):
    path = site.tmp_dir
    readers = who_can_list(site, path_to(path))
    is_public = os.path.realpath(path) in PUBLIC_FOLDERS
    outcome = "ok" if not readers else "warning public" if is_public else "warning"
    return finding("tmp-dir.listing", path, outcome, readers=readers)


def who_can_list(site, steps):
    """The subject of a sentence; empty if only root and the front end can list it."""
    if has_others(steps, stat.S_IROTH):
        return "Every local user"
    status = steps[-1].status
    if not status.st_mode & stat.S_IRGRP:
        return ""
    others = accounts_of_group(status.st_gid) - {"root", site.identity.name}
    return f"Group {group_name(status.st_gid)} ({listed(sorted(others))})" if others else ""


def tmp_dir_file_system(site):
    path = site.tmp_dir
    mount = mount_of(path)
    report = reporter("tmp-dir.file-system", path, kind=mount.kind, user=site.identity.name)
    if mount.is_remote() or mount.is_fuse():
        return report("warning remote")
    if mount.kind in ("tmpfs", "ramfs"):
        available = memory_available()
        outcome = "warning memory" if available < site.min_free else "ok memory"
        return report(outcome, size=size_text(available))
    return report("ok quota" if mount.options & QUOTAS else "ok")


def memory_available():
    found = re.search(r"^MemAvailable:\s+(\d+) kB", read_text("/proc/meminfo"), re.M)
    return int(found[1]) * 1024 if found else 0


def tmp_dir_space(site, file_system):
    blocks = file_system.f_bfree if site.identity.uid == 0 else file_system.f_bavail
    free = blocks * file_system.f_frsize
    report = reporter("tmp-dir.space", site.tmp_dir, size=size_text(free))
    return by_amount(report, free, site.min_free, 2 * site.min_free)


def tmp_dir_inodes(path, file_system):
    if file_system.f_files == 0:
        return finding("tmp-dir.inodes", path, "ok none")
    free = file_system.f_favail
    report = reporter("tmp-dir.inodes", path, count=counted(free, "inode is", "inodes are"))
    return by_amount(report, free, 1000, 10_000)


def files_in(path, pattern):
    """The status of each regular file with a matching name. Follows no links."""
    with os.scandir(path) as entries:
        for _, entry in zip(range(ENTRY_LIMIT), entries):
            if re.fullmatch(pattern, entry.name, re.DOTALL):
                with contextlib.suppress(OSError):  # removed meanwhile
                    status = entry.stat(follow_symlinks=False)
                    if stat.S_ISREG(status.st_mode):
                        yield status


def judge_leftovers(name, subject, path, files, nouns):
    """The finding from the files, given by their status, that killed front ends left."""
    report = reporter(name, subject, path=path)

    def number_of(files):
        return counted(len(files), f"{nouns[0]} is", f"{nouns[1]} are")

    try:
        files = list(files)
    except OSError as error:
        return report("unchecked", error=reason(error))
    now = time.time()
    old = [status for status in files if now - status.st_mtime > OLD_SECONDS]
    if not old:
        return report("ok", count=number_of(files))
    size = size_text(sum(status.st_size for status in old))
    age = time_text(now - min(status.st_mtime for status in old))
    return report("warning", count=number_of(old), size=size, age=age)


def tmp_dir_ageing(path):
    report = reporter("tmp-dir.ageing", path)
    if is_aged(os.path.realpath(path)):
        return report("ok")
    return report("warning" if systemd_runs() else "skipped")
