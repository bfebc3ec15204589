"""The users and groups whose rights are taken on."""

import contextlib
import dataclasses
import grp
import os
import pwd

from zancgi_doctor.texts import quote


class Unknown(Exception):
    """A user or group that the machine does not have."""


@dataclasses.dataclass
class Identity:
    name: str
    uid: int
    gid: int
    groups: list

    def is_own(self):
        return (self.uid, self.gid) == (os.geteuid(), os.getegid())

    def take_on(self):
        if self.is_own():
            return
        os.setgroups(self.groups)
        os.setresgid(self.gid, self.gid, self.gid)
        os.setresuid(self.uid, self.uid, self.uid)


def find_user(text):
    """Name, number and group of a user, who may be a number only."""
    with contextlib.suppress(KeyError):
        entry = pwd.getpwuid(int(text)) if text.isdecimal() else pwd.getpwnam(text)
        return entry.pw_name, entry.pw_uid, entry.pw_gid
    if text.isdecimal():
        return text, int(text), int(text)
    raise Unknown(f"there is no user {quote(text)}")


def find_group(text):
    if text.isdecimal():
        return int(text)
    with contextlib.suppress(KeyError):
        return grp.getgrnam(text).gr_gid
    raise Unknown(f"there is no group {quote(text)}")


def resolve_identity(text):
    """The user and groups that --as names, as plain data."""
    user, _, group = text.partition(":")
    name, uid, gid = find_user(user or str(os.geteuid()))
    if not text:
        return [name, uid, os.getegid(), os.getgroups()]
    if group:
        gid = find_group(group)
    return [name, uid, gid, os.getgrouplist(name, gid)]
