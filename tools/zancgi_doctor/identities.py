"""Users and groups, and the change to their rights."""

import contextlib
import dataclasses
import grp
import os
import pwd
import re

from zancgi_doctor.texts import quote


# setresuid ignores the highest number, so nobody can have it.
NOBODY = 0xFFFFFFFF


class Unknown(Exception):
    """There is no such user or group."""


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


def accounts_of_group(gid):
    """The names of the accounts with this primary group, and of its other members."""
    accounts = {entry.pw_name for entry in pwd.getpwall() if entry.pw_gid == gid}
    with contextlib.suppress(KeyError):
        accounts.update(grp.getgrgid(gid).gr_mem)
    return accounts


def as_number(text):
    """The number of a user or group; None for a name."""
    if re.fullmatch("[0-9]{1,10}", text) and int(text) < NOBODY:
        return int(text)
    return None


def find_user(text):
    """Name, number and group of a user, who may have a number without an entry."""
    number = as_number(text)
    with contextlib.suppress(KeyError):
        entry = pwd.getpwnam(text) if number is None else pwd.getpwuid(number)
        return entry.pw_name, entry.pw_uid, entry.pw_gid
    if number is not None:
        return text, number, number
    raise Unknown(f"there is no user {quote(text)}")


def find_group(text):
    number = as_number(text)
    if number is not None:
        return number
    with contextlib.suppress(KeyError):
        return grp.getgrnam(text).gr_gid
    raise Unknown(f"there is no group {quote(text)}")


def resolve_identity(text):
    """The user and groups that --as names, as a list for JSON."""
    user, _, group = text.partition(":")
    name, uid, gid = find_user(user or str(os.geteuid()))
    if not text:
        return [name, uid, os.getegid(), os.getgroups()]
    if group:
        gid = find_group(group)
    return [name, uid, gid, os.getgrouplist(name, gid)]
