"""The deployment, the paths of its sockets, and who can replace them."""

import argparse
import os
import stat

from zancgi_doctor.children import run_in_child
from zancgi_doctor.files import first_unsafe, path_to, unsafe_end
from zancgi_doctor.findings import by_kind
from zancgi_doctor.systemd import sockets_of_program

SUN_PATH_LIMIT = 107
# The paths of Debian's and other packages.
FCGI_SOCKETS = ("/run/fcgiwrap.socket", "/run/fcgiwrap.sock")


class Site(argparse.Namespace):
    """The options, and the settings that follow from them."""

    def as_front_end(self, function, *arguments):
        """The result for the front end's user; None if the caller lacks the rights."""
        if not self.has_rights:
            return None
        return run_in_child(self.timeout, function, *arguments, identity=self.identity)

    def hidden(self, outcome="unchecked"):
        """The outcome if the caller cannot see a path, but the front end's user perhaps can."""
        return "failure missing" if self.has_rights else outcome


def by_folder(site, report, path):
    """The finding from the path and the kind of a folder."""
    if not path.startswith("/"):
        return report("failure relative")
    return by_kind(report, path, stat.S_ISDIR, site.hidden())


def services_of(site):
    """The services that the options name, or all with a socket."""
    if site.services:
        return site.services
    try:
        names = os.listdir(site.run_dir)
    except OSError:
        return []
    sockets = [name for name in names if name.endswith(".sock") and not name.startswith(".")]
    return sorted(name.removesuffix(".sock") for name in sockets)


def fcgi_sockets_of(site):
    """The sockets that the options name, or all that fcgiwrap is configured with."""
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


def why_not_trust_folder(path):
    """Why users other than root and its owner can replace a socket in a folder; empty
    if they cannot. A sticky folder does not help: anybody can be first to create it."""
    steps = path_to(path)
    return unsafe_end(steps, {0, steps[-1].status.st_uid})


def why_not_trust_socket(path):
    """The same for one socket and all links to it, and the owner of the socket."""
    steps = path_to(path)
    trusted = {0, steps[-1].status.st_uid}
    ends = [step for step in steps if step.is_link()] + steps[-1:]
    holders = {os.path.dirname(step.path) for step in ends}
    return first_unsafe(steps[:-1], trusted) or first_unsafe(
        [step for step in steps if step.path in holders], trusted, allows_sticky=False
    )


def why_not_trust_link(site, service):
    """The same for a link to a socket."""
    path = socket_path(site, service)
    if not os.path.islink(path):
        return ""
    steps = path_to(path)
    owner = steps[-1].status.st_uid
    return first_unsafe(steps[:-1], {0, owner, os.stat(site.run_dir).st_uid})
