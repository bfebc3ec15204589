"""The socket of fcgiwrap, which starts front ends for whoever may connect."""

import stat

from zancgi_doctor.checks.sockets import socket_kind
from zancgi_doctor.files import has_others, way_to
from zancgi_doctor.findings import finding, sayer
from zancgi_doctor.identities import accounts_of_group, find_user
from zancgi_doctor.impostors import why_not_trust_socket
from zancgi_doctor.texts import listed


def check_fcgi(site, path):
    kind = socket_kind("fcgi.kind", path, path, "fcgiwrap")
    yield kind
    if kind.state == "ok":
        unsafe = why_not_trust_socket(path)
        yield finding("fcgi.safe", path, "failure" if unsafe else "ok", unsafe=unsafe)
        yield fcgi_strangers(site, path)


def fcgi_strangers(site, path):
    """Whoever sends a FastCGI request chooses the program and its variables."""
    say = sayer("fcgi.strangers", path, user=site.identity.name)
    steps = way_to(path)
    if has_others(steps, stat.S_IWOTH):
        return say("failure")
    accounts = sorted(accounts_with_access(steps[-1].status))
    return say("warning" if len(accounts) > 1 else "ok", accounts=listed(accounts) or "root")


def accounts_with_access(status):
    """By the bits of the owner and of the group, without root."""
    accounts = set()
    if status.st_mode & stat.S_IWUSR:
        accounts.add(find_user(str(status.st_uid))[0])
    if status.st_mode & stat.S_IWGRP:
        accounts |= accounts_of_group(status.st_gid)
    return accounts - {"root"}
