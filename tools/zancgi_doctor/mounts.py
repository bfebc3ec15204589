"""The mounted file systems."""

import dataclasses
import os
import re

from zancgi_doctor.files import read_text


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
