"""Who else could listen where a front end or a web server connects."""

import os

from zancgi_doctor.deployment import socket_path
from zancgi_doctor.files import first_unsafe, way_to


def why_not_trust_folder(path):
    """Why others than root and its owner can replace a socket in a folder; empty
    if they cannot. Where it is sticky, anybody can come first."""
    steps = way_to(path)
    trusted = {0, steps[-1].status.st_uid}
    return first_unsafe(steps[:-1], trusted) or first_unsafe(
        steps[-1:], trusted, allows_sticky=False
    )


def why_not_trust_socket(path):
    """The same of one socket, wherever links lead, by others than root and its own
    owner."""
    steps = way_to(path)
    trusted = {0, steps[-1].status.st_uid}
    ends = [step for step in steps if step.is_link()] + steps[-1:]
    holders = {os.path.dirname(step.path) for step in ends}
    return first_unsafe(steps[:-1], trusted) or first_unsafe(
        [step for step in steps if step.path in holders], trusted, allows_sticky=False
    )


def why_not_trust_link(site, service):
    """The same of a link to a socket, which may lead anywhere."""
    path = socket_path(site, service)
    if not os.path.islink(path):
        return ""
    steps = way_to(path)
    owner = steps[-1].status.st_uid
    return first_unsafe(steps[:-1], {0, owner, os.stat(site.run_dir).st_uid})
