"""The socket of one service: what it is, and who may connect."""

import os
import stat

from zancgi_doctor.deployment import name_error, socket_path
from zancgi_doctor.files import access_error, has_others, kind_of, way_to
from zancgi_doctor.findings import BECOME_ROOT, failure, ok, unchecked, warning
from zancgi_doctor.impostors import why_not_trust_link
from zancgi_doctor.texts import quote, reason


def check_socket(site, service):
    error = name_error(site, service)
    if error:
        yield failure(
            "socket.name",
            service,
            f"The library refuses the service name {quote(service)}: {error}.",
            "Choose a shorter name without a slash, and no dot in front, or a shorter TOV_RUN_DIR.",
        )
        return
    yield ok("socket.name", service, f"The service name {quote(service)} is accepted.")
    kind = socket_kind("socket.kind", service, socket_path(site, service), "the back end")
    yield kind
    if kind.state == "ok":
        yield socket_safe(site, service)
        yield socket_access(site, service)
        yield socket_strangers(site, service)


def socket_kind(name, subject, path, listener):
    try:
        status = os.stat(path)
    except PermissionError as error:
        return unchecked(
            name, subject, f"{quote(path)} cannot be looked at: {reason(error)}.", BECOME_ROOT
        )
    except OSError as error:
        return failure(
            name,
            subject,
            f"There is no socket at {quote(path)}: {reason(error)}.",
            f"Start {listener}, and see that it makes its socket there.",
        )
    if not stat.S_ISSOCK(status.st_mode):
        return failure(
            name,
            subject,
            f"{quote(path)} is {kind_of(status.st_mode)}, not a socket.",
            f"Remove it and start {listener} again.",
        )
    return ok(name, subject, f"{quote(path)} is a socket.")


def socket_safe(site, service):
    """The run directory is looked at elsewhere."""
    name, path = "socket.safe", socket_path(site, service)
    unsafe = why_not_trust_link(site, service)
    if unsafe:
        return failure(
            name,
            service,
            f"Others can pose as the back end behind the link {quote(path)}: {unsafe}.",
            "Let every folder on the way be writable by root and the back end's user only.",
        )
    return ok(name, service, f"No link leads from {quote(path)} to where others can write.")


def socket_access(site, service):
    name, path = "socket.access", socket_path(site, service)
    error = site.as_front_end(access_error, path, os.W_OK)
    if error is None:
        return unchecked(
            name,
            service,
            f"Whether {site.who()} may connect to {quote(path)} is not known.",
            BECOME_ROOT,
        )
    if error:
        return failure(
            name,
            service,
            f"{site.who_first()} may not connect to {quote(path)}: {error}.",
            "Let the socket's group be the front end's and its mode 660 (uWSGI: chmod-socket = 660 "
            "and chown-socket).",
        )
    return ok(name, service, f"{site.who_first()} may connect to {quote(path)}.")


def socket_strangers(site, service):
    name, path = "socket.strangers", socket_path(site, service)
    if has_others(way_to(path), stat.S_IWOTH):
        return warning(
            name,
            service,
            f"Every local user may connect to {quote(path)}, and claim any caller's address.",
            "Set the socket's mode to 660 (uWSGI: chmod-socket = 660), or take the right to search "
            "the run directory from others.",
        )
    return ok(name, service, f"Strangers may not connect to {quote(path)}.")
