"""The deployment that is looked at, and where its sockets are."""

import dataclasses
import errno
import os
import stat

from zancgi_doctor.children import run_in_child
from zancgi_doctor.files import kind_of
from zancgi_doctor.identities import Identity
from zancgi_doctor.systemd import sockets_of_program
from zancgi_doctor.texts import reason

SUN_PATH_LIMIT = 107
# Where packages put it.
FCGI_SOCKETS = ("/run/fcgiwrap.socket", "/run/fcgiwrap.sock")


@dataclasses.dataclass
class Site:
    run_dir: str
    services: list
    fcgi_sockets: list
    program: str
    identity: Identity
    tmp_dir: str
    accounts: list
    confined: bool
    pam: bool
    session: str
    timeout: float
    min_free: int
    pid: int
    environment: dict
    has_rights: bool
    closed_streams: list

    def as_front_end(self, function, *arguments):
        """What the front end's user would get; nothing if that cannot be said."""
        if not self.has_rights:
            return None
        return run_in_child(self.timeout, function, *arguments, identity=self.identity)


def cannot_see(site, say, error, outcome="unchecked"):
    """The finding that something is missing, unless it is only hidden from one
    who is not the front end's user."""
    is_hidden = error.errno == errno.EACCES and not site.has_rights
    return say(outcome if is_hidden else "failure missing", error=reason(error))


def folder_error(site, say, path):
    """What is wrong with a folder by its path alone; nothing if all is well."""
    if not path.startswith("/"):
        return say("failure relative")
    try:
        mode = os.stat(path).st_mode
    except OSError as error:
        return cannot_see(site, say, error)
    return None if stat.S_ISDIR(mode) else say("failure kind", kind=kind_of(mode))


def services_of(site):
    """Those that were named, or all that have a socket."""
    if site.services:
        return site.services
    try:
        names = os.listdir(site.run_dir)
    except OSError:
        return []
    return sorted(
        name[: -len(".sock")]
        for name in names
        if name.endswith(".sock") and not name.startswith(".")
    )


def fcgi_sockets_of(site):
    """Those that were named, or all that lie where fcgiwrap is configured."""
    if site.fcgi_sockets:
        return site.fcgi_sockets
    places = [*FCGI_SOCKETS, *sockets_of_program("fcgiwrap")]
    return [path for path in dict.fromkeys(places) if os.path.lexists(path)]


def socket_path(site, service):
    return f"{site.run_dir}/{service}.sock"


def name_error(site, service):
    if not service:
        return "it is empty"
    if service.startswith("."):
        return "it begins with a dot"
    if "/" in service:
        return "it contains a slash"
    length = len(os.fsencode(socket_path(site, service)))
    if length > SUN_PATH_LIMIT:
        return f"the path of its socket has {length} bytes, more than {SUN_PATH_LIMIT}"
    return ""
