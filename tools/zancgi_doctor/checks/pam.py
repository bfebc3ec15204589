"""PAM, for front ends that open a session for an account."""

import ctypes
import os
import re
import stat

from zancgi_doctor.files import first_unsafe, kind_of, read_file, text_or_nothing, way_to
from zancgi_doctor.findings import BECOME_ROOT, failure, ok, unchecked, warning
from zancgi_doctor.texts import counted, listed, printable, quote, reason

PAM_FOLDERS = (
    "/lib/x86_64-linux-gnu/security",
    "/usr/lib/x86_64-linux-gnu/security",
    "/lib64/security",
    "/usr/lib64/security",
    "/lib/security",
    "/usr/lib/security",
)
NO_SESSION = "the switch to an account goes on without a session"


def check_pam(_site):
    yield pam_library()
    service = pam_service("/etc/pam.d/login")
    yield service
    if service.state == "ok":
        yield pam_modules("/etc/pam.d/login")


def pam_library():
    name, subject = "pam.library", "libpam.so.0"
    try:
        ctypes.CDLL(subject)
    except OSError as error:
        return warning(
            name,
            subject,
            f"libpam.so.0 cannot be loaded ({printable(str(error))}), so {NO_SESSION}.",
            "Install the package libpam0g, if a front end asks for PAM sessions.",
        )
    return ok(name, subject, "libpam.so.0 can be loaded.")


def pam_service(path):
    name = "pam.service"
    try:
        status = os.stat(path)
    except OSError as error:
        return warning(
            name,
            path,
            f"The PAM service 'login' is not configured ({reason(error)}), so PAM takes "
            "the service 'other', which mostly refuses.",
            "Install the package login, or write /etc/pam.d/login with a session stack.",
        )
    if not stat.S_ISREG(status.st_mode):
        return failure(
            name,
            path,
            f"{quote(path)} is {kind_of(status.st_mode)}.",
            "Replace it by the file of the package login.",
        )
    unsafe = first_unsafe(way_to(path), {0}, allows_sticky=False)
    if unsafe:
        return failure(
            name,
            path,
            f"Others can choose what PAM runs as root: {unsafe}.",
            "Let it and every folder above it belong to root, writable by root only.",
        )
    try:
        read_file(path)
    except OSError as error:
        return unchecked(name, path, f"{quote(path)} cannot be read: {reason(error)}.", BECOME_ROOT)
    return ok(name, path, "The PAM service 'login' is configured.")


def session_modules(path, seen):
    """The modules that the session stack of a file names, without those that
    may be missing (a dash in front)."""
    if path in seen:
        return
    seen.add(path)
    text = text_or_nothing(path).replace("\\\n", " ")
    for line in text.splitlines():
        fields = re.findall(r"\[[^]]*\]|\S+", line.partition("#")[0])
        if len(fields) == 2 and fields[0] == "@include":
            yield from session_modules(os.path.join("/etc/pam.d", fields[1]), seen)
        elif len(fields) >= 3 and fields[0].lower() == "session":
            if fields[1].lower() in ("include", "substack"):
                yield from session_modules(os.path.join("/etc/pam.d", fields[2]), seen)
            else:
                yield fields[2]


def find_module(module):
    paths = [os.path.join(folder, module) for folder in PAM_FOLDERS]
    return next((path for path in paths if os.path.exists(path)), None)


def pam_modules(path):
    name = "pam.modules"
    modules = list(dict.fromkeys(session_modules(path, set())))
    missing = [module for module in modules if find_module(module) is None]
    if missing:
        return warning(
            name,
            path,
            f"The session stack of 'login' names modules that are not there: "
            f"{listed(missing)}.",
            f"Install the packages that have them, or take the lines out; if one fails, "
            f"{NO_SESSION}.",
        )
    for module in modules:
        unsafe = first_unsafe(way_to(find_module(module)), {0}, allows_sticky=False)
        if unsafe:
            return failure(
                name,
                path,
                f"Others can change a PAM module, which runs as root: {unsafe}.",
                "Let modules and every folder above belong to root, writable by root only.",
            )
    return ok(
        name,
        path,
        f"{counted(len(modules), 'module')} of the session stack of 'login' can be found.",
    )
