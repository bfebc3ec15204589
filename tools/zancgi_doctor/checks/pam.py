"""PAM, which front ends can use to open a session for an account."""

import ctypes
import os
import re
import stat

from zancgi_doctor.files import first_unsafe, kind_of, path_to, read_file, text_or_nothing
from zancgi_doctor.findings import finding, reporter
from zancgi_doctor.libraries import FOLDERS
from zancgi_doctor.texts import counted, listed, reason


def check_pam(_site):
    yield pam_library()
    service = pam_service("/etc/pam.d/login")
    yield service
    if service.state == "ok":
        yield pam_modules("/etc/pam.d/login")


def pam_library():
    name = "libpam.so.0"
    try:
        ctypes.CDLL(name)
    except OSError as error:
        return finding("pam.library", name, "warning", error=str(error))
    return finding("pam.library", name, "ok")


def pam_service(path):
    report = reporter("pam.service", path)
    try:
        mode = os.stat(path).st_mode
    except OSError as error:
        return report("warning", error=reason(error))
    if not stat.S_ISREG(mode):
        return report("failure kind", kind=kind_of(mode))
    unsafe = first_unsafe(path_to(path), {0}, allows_sticky=False)
    if unsafe:
        return report("failure", unsafe=unsafe)
    try:
        read_file(path)
    except OSError as error:
        return report("unchecked", error=reason(error))
    return report("ok")


def session_modules(path, seen):
    """The modules in the session stack of a file, except those that may be missing
    (their lines begin with a dash)."""
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
    paths = [os.path.join(folder, "security", module) for folder in FOLDERS]
    return next((path for path in paths if os.path.exists(path)), None)


def pam_modules(path):
    report = reporter("pam.modules", path)
    modules = list(dict.fromkeys(session_modules(path, set())))
    missing = [module for module in modules if find_module(module) is None]
    if missing:
        return report("warning", names=listed(missing))
    for module in modules:
        unsafe = first_unsafe(path_to(find_module(module)), {0}, allows_sticky=False)
        if unsafe:
            return report("failure", unsafe=unsafe)
    return report("ok", count=counted(len(modules), "module"))
