"""The socket of one service: what it is, and who may connect."""

import os
import stat

from zancgi_doctor.deployment import name_error, socket_path
from zancgi_doctor.files import access_error, has_others, kind_of, way_to
from zancgi_doctor.findings import by_access, finding, sayer
from zancgi_doctor.impostors import why_not_trust_link
from zancgi_doctor.texts import reason


def check_socket(site, service):
    error = name_error(site, service)
    yield finding("socket.name", service, "failure" if error else "ok", error=error)
    if error:
        return
    path = socket_path(site, service)
    kind = socket_kind("socket.kind", service, path, "the back end")
    yield kind
    if kind.state == "ok":
        # The run directory is looked at elsewhere.
        unsafe = why_not_trust_link(site, service)
        outcome = "failure" if unsafe else "ok"
        yield finding("socket.safe", service, outcome, path=path, unsafe=unsafe)
        yield socket_access(site, service, path)
        outcome = "warning" if has_others(way_to(path), stat.S_IWOTH) else "ok"
        yield finding("socket.strangers", service, outcome, path=path)


def socket_kind(name, subject, path, listener):
    say = sayer(name, subject, path=path, listener=listener)
    try:
        mode = os.stat(path).st_mode
    except PermissionError as error:
        return say("unchecked", error=reason(error))
    except OSError as error:
        return say("failure missing", error=reason(error))
    return say("ok") if stat.S_ISSOCK(mode) else say("failure kind", kind=kind_of(mode))


def socket_access(site, service, path):
    say = sayer("socket.access", service, path=path, user=site.identity.name)
    return by_access(say, site.as_front_end(access_error, path, os.W_OK))
