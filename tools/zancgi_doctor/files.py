"""Files, their paths and mounts, and the users who can change them."""

import dataclasses
import errno
import os
import re
import stat

from zancgi_doctor.texts import group_name, quote, reason, user_name

FILE_LIMIT = 1 << 20


def read_file(path):
    """The beginning of a regular file; empty for other kinds of files."""
    descriptor = os.open(path, os.O_RDONLY | os.O_NONBLOCK | os.O_NOCTTY | os.O_CLOEXEC)
    with os.fdopen(descriptor, "rb") as stream:
        if not stat.S_ISREG(os.fstat(descriptor).st_mode):
            return b""
        return stream.read(FILE_LIMIT)


def read_text(path):
    return os.fsdecode(read_file(path))


def text_or_nothing(path):
    try:
        return read_text(path)
    except OSError:
        return ""


def kind_of(mode):
    kinds = {
        stat.S_ISDIR: "a folder",
        stat.S_ISREG: "a regular file",
        stat.S_ISSOCK: "a socket",
        stat.S_ISFIFO: "a FIFO",
        stat.S_ISLNK: "a symbolic link",
        stat.S_ISCHR: "a device",
        stat.S_ISBLK: "a device",
    }
    return next(kind for is_kind, kind in kinds.items() if is_kind(mode))


def access_error(path, mode):
    """Why a path cannot be used; empty if it can."""
    if os.access(path, mode, effective_ids=True):
        return ""
    try:
        os.stat(path)
    except OSError as error:
        return reason(error)
    if mode & os.W_OK and os.statvfs(path).f_flag & os.ST_RDONLY:
        return "the file system is mounted read-only"
    return "Permission denied"


@dataclasses.dataclass
class Step:
    """A folder, link or file on a path."""

    path: str
    status: os.stat_result

    def is_link(self):
        return stat.S_ISLNK(self.status.st_mode)


def path_to(path):
    """All folders and links that the kernel passes when it resolves a path, and the file."""
    here = Step("/", os.lstat("/"))
    steps = [here]
    if not path.startswith("/"):
        path = os.path.join(os.getcwd(), path)
    to_go = path.split("/")
    links = 0
    while to_go:
        part = to_go.pop(0)
        if part in ("", "."):
            continue
        if part == "..":
            here = Step(os.path.dirname(here.path), os.lstat(os.path.dirname(here.path)))
            continue
        next_path = os.path.join(here.path, part)
        step = Step(next_path, os.lstat(next_path))
        steps.append(step)
        if not step.is_link():
            here = step
            continue
        links += 1
        if links > 40:
            raise OSError(errno.ELOOP, os.strerror(errno.ELOOP), path)
        target = os.readlink(next_path)
        if target.startswith("/"):
            here = steps[0]
        to_go = target.split("/") + to_go
    if steps[-1] is not here:  # the path ends with ".."
        steps.append(here)
    return steps


def has_others(steps, right):
    """Whether every user can reach the end of a path, and has a permission there."""
    reachable = all(step.is_link() or step.status.st_mode & stat.S_IXOTH for step in steps[:-1])
    return bool(reachable and steps[-1].status.st_mode & right)


def who_can_change(step, trusted, allows_sticky=True):
    """Why untrusted users can change a folder or link; empty if they cannot."""
    status = step.status
    if status.st_uid not in trusted:
        return f"belongs to user {user_name(status.st_uid)}"
    if step.is_link() or (allows_sticky and status.st_mode & stat.S_ISVTX):
        return ""
    if status.st_mode & stat.S_IWOTH:
        return "is writable by everybody"
    if status.st_mode & stat.S_IWGRP and status.st_gid != 0:
        return f"is writable by group {group_name(status.st_gid)}"
    return ""


def first_unsafe(steps, trusted, **options):
    for step in steps:
        why = who_can_change(step, trusted, **options)
        if why:
            return f"{quote(step.path)} {why}"
    return ""


def unsafe_end(steps, trusted):
    """The same, if a sticky folder is safe on the path but not at its end."""
    before = first_unsafe(steps[:-1], trusted)
    return before or first_unsafe(steps[-1:], trusted, allows_sticky=False)


@dataclasses.dataclass
class Mount:
    point: str
    kind: str
    options: set

    def is_fuse(self):
        return self.kind == "fuse" or self.kind.startswith(("fuse.", "fuseblk"))

    def is_remote(self):
        return self.kind in ("nfs", "nfs4", "cifs", "smb3", "9p", "ceph", "afs")


def unescape_mount(text):
    return re.sub(r"\\([0-7]{3})", lambda match: chr(int(match[1], 8)), text)


def all_mounts():
    for line in read_text("/proc/self/mountinfo").splitlines():
        fields, _, rest = line.partition(" - ")
        kind, _, super_options = rest.split(" ", 2)
        parts = fields.split(" ")
        options = set(parts[5].split(",")) | set(super_options.split(","))
        yield Mount(unescape_mount(parts[4]), kind, options)


def mount_of(path):
    """The mount of a path: the last one with the longest mount point."""
    path = os.path.realpath(path)
    found = Mount("/", "unknown", set())
    for mount in all_mounts():
        inside = mount.point == "/" or (path + "/").startswith(mount.point + "/")
        if inside and len(mount.point) >= len(found.point):
            found = mount
    return found
