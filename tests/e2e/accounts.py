"""System accounts for the front end that the machine does not have.

A wrapper library answers the front end's look-ups from files. As root its
process really takes on their ids; as an ordinary user a second library makes it
believe so, and the accounts have the ids of the caller.
"""

import os
import pathlib
import shlex

IS_ROOT = os.geteuid() == 0
# As root: ids that no account of the machine has.
UID, GID = (54321, 54322) if IS_ROOT else (os.getuid(), os.getgid())
FURTHER_GROUP = 54323
NAMES_ONLY = "libnss_wrapper.so"
WRAPPERS = NAMES_ONLY if IS_ROOT else "libnss_wrapper.so libuid_wrapper.so"


class Accounts:
    def __init__(self, folder):
        self.folder = pathlib.Path(folder)
        self.folder.mkdir()
        # Read by processes that are no longer the one that made them.
        self.folder.chmod(0o755)
        self.users, self.groups = self.folder / "passwd", self.folder / "group"
        self.users.touch()
        self.groups.touch()

    def add(self, name, home, uid=UID, gid=GID):
        """An account without a group beside its own, but for one as root: nobody
        who is that account already would have it."""
        with self.users.open("a") as file:
            file.write(f"{name}:x:{uid}:{gid}::{home}:/bin/sh\n")
        if IS_ROOT and uid == UID:
            with self.groups.open("a") as file:
                file.write(f"further-{name}:x:{FURTHER_GROUP}:{name}\n")

    def make_home(self, name, uid=UID, gid=GID):
        """A folder that belongs to the account of that name, and an account."""
        home = self.folder / name
        home.mkdir(mode=0o700)
        os.chown(home, uid, gid)
        self.add(name, home, uid, gid)
        return home

    def front(self, front, wrappers=WRAPPERS, **more):
        """A program that is the given one among these accounts. Nothing of it
        comes through the web server."""
        variables = {
            "NSS_WRAPPER_PASSWD": self.users, "NSS_WRAPPER_GROUP": self.groups,
            "UID_WRAPPER": 1, "UID_WRAPPER_ROOT": 1, "LD_PRELOAD": wrappers, **more,
        }
        settings = shlex.join(f"{name}={value}" for name, value in variables.items())
        program = self.folder / f"front-{len(list(self.folder.glob('front-*')))}"
        program.write_text(f'#!/bin/sh\nexec env {settings} {shlex.quote(str(front))} "$@"\n')
        program.chmod(0o755)
        return program
