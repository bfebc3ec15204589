"""The socket of fcgiwrap, which starts front ends for whoever may connect."""

import stat

from zancgi_doctor.checks.sockets import socket_kind
from zancgi_doctor.files import has_others, way_to
from zancgi_doctor.findings import failure, ok, warning
from zancgi_doctor.identities import accounts_of_group, find_user
from zancgi_doctor.impostors import why_not_trust_socket
from zancgi_doctor.texts import listed, quote


def check_fcgi(site, path):
    kind = socket_kind("fcgi.kind", path, path, "fcgiwrap")
    yield kind
    if kind.state == "ok":
        yield fcgi_safe(path)
        yield fcgi_strangers(site, path)


def fcgi_safe(path):
    name = "fcgi.safe"
    unsafe = why_not_trust_socket(path)
    if unsafe:
        return failure(
            name,
            path,
            "Others can listen in place of fcgiwrap, and get the sessions of all visitors: "
            f"{unsafe}.",
            "Put the socket into a folder that only root can change, such as /run.",
        )
    return ok(name, path, f"Nobody else can replace the socket {quote(path)}.")


def fcgi_strangers(site, path):
    """Whoever sends a FastCGI request chooses the program and its variables."""
    name = "fcgi.strangers"
    remedy = (
        "Let it belong to the web server's user with mode 0600 (SocketUser= and SocketMode=0600 in "
        "its socket unit)."
    )
    steps = way_to(path)
    if has_others(steps, stat.S_IWOTH):
        return failure(
            name,
            path,
            f"Every local user may connect to {quote(path)}, and so start front ends as "
            f"{site.who()} with any variables.",
            remedy,
        )
    accounts = sorted(accounts_with_access(steps[-1].status))
    if len(accounts) > 1:
        return warning(
            name,
            path,
            f"Not only the web server may connect to {quote(path)} and start front ends as "
            f"{site.who()}, but all of {listed(accounts)}.",
            remedy,
        )
    return ok(name, path, f"Only {listed(accounts) or 'root'} may connect to {quote(path)}.")


def accounts_with_access(status):
    """By the bits of the owner and of the group, without root."""
    accounts = set()
    if status.st_mode & stat.S_IWUSR:
        accounts.add(find_user(str(status.st_uid))[0])
    if status.st_mode & stat.S_IWGRP:
        accounts |= accounts_of_group(status.st_gid)
    return accounts - {"root"}
