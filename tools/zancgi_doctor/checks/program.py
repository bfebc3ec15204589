"""The front end's program, its folder and its shared libraries."""

import contextlib
import os
import re
import shlex
import stat

from zancgi_doctor.deployment import Site
from zancgi_doctor.files import access_error, first_unsafe, mount_of, path_to, read_file
from zancgi_doctor.files import read_text, unsafe_end
from zancgi_doctor.findings import by_access, by_kind, finding, reporter
from zancgi_doctor.libraries import LibrarySearch, NotElf, dynamic_of, expand
from zancgi_doctor.texts import listed, quote, reason


def check_program(site):
    file = program_file(site)
    yield file
    if file.state == "failure" or not os.path.exists(site.program):
        return
    path = os.path.realpath(site.program)
    yield program_safe(site, path)
    yield program_set_id(site, path)
    if is_script(path):
        yield from check_launcher(site, path)
        return
    yield program_work_dir(site)
    yield from program_libraries(site, path)


def check_launcher(site, path):
    """A script that the web server starts instead of the front end."""
    report = reporter("program.launcher", site.program, path=path)
    programs = programs_started_by(path)
    if len(programs) != 1 or is_script(programs[0]):
        yield report("unchecked")
        return
    yield report("ok", program=programs[0])
    yield from check_program(Site(**{**vars(site), "program": programs[0]}))


def is_script(path):
    try:
        return read_file(path).startswith(b"#!")
    except OSError:
        return False


def programs_started_by(script):
    """The programs that its exec commands start: the last absolute path of a program
    in each, because commands such as timeout come before it. Variables that the
    script sets to a path are expanded."""
    text = read_text(script).replace("\\\n", " ")
    paths = dict(re.findall(r"^\s*(\w+)=(/\S+)$", text, re.MULTILINE))
    programs = []
    for line in re.findall(r"^(?:.*[);]\s*)?\s*exec\s+(.*)", text, re.MULTILINE):
        with contextlib.suppress(ValueError):  # unbalanced quotes
            words = shlex.split(line, comments=True)
            words = [paths.get(word.strip("${}"), word) for word in words]
            programs += [word for word in words if is_program(word)][-1:]
    return list(dict.fromkeys(programs))


def is_program(path):
    return path.startswith("/") and os.path.isfile(path) and os.access(path, os.X_OK)


def program_file(site):
    path = site.program
    report = reporter("program.file", path, user=site.identity.name)
    found = by_kind(report, path, stat.S_ISREG, site.hidden("unchecked hidden"))
    if found.state != "ok":
        return found
    error = site.as_front_end(access_error, path, os.X_OK)
    if error == "" and "noexec" in mount_of(path).options:
        return report("failure noexec")
    return by_access(report, error)


def program_safe(site, path):
    report = reporter("program.safe", site.program, path=path, user=site.identity.name)
    steps = path_to(site.program)
    owner = steps[-1].status.st_uid
    trusted = {0} if site.identity.uid == 0 else {0, owner}
    unsafe = unsafe_end(steps, trusted)
    if unsafe:
        return report("failure", unsafe=unsafe)
    return report("warning" if owner == site.identity.uid != 0 else "ok")


def program_set_id(site, path):
    mode = os.stat(path).st_mode
    bit = "set-uid" if mode & stat.S_ISUID else "set-gid" if mode & stat.S_ISGID else ""
    return finding("program.set-id", site.program, "warning" if bit else "ok", bit=bit)


def program_work_dir(site):
    """The constructor of Cgi changes to the parent of the program's folder."""
    folder = os.path.dirname(site.program) or "."
    path = os.path.realpath(os.path.join(folder, ".."))
    report = reporter("program.work-dir", site.program, path=path, user=site.identity.name)
    error = site.as_front_end(access_error, path, os.X_OK)
    return report("warning", error=error) if error else by_access(report, error)


def program_libraries(site, path):
    report = reporter("program.libraries", site.program, path=path)
    try:
        dynamic = dynamic_of(path)
        search = LibrarySearch(site.environment)
        search.search(path)
    except NotElf as error:
        yield report("skipped", error=error)
        return
    except OSError as error:
        yield report("unchecked", error=reason(error))
        return
    own = [path for library, path in search.found.items() if library.startswith("libzancgi.so")]
    yield report(
        "failure" if search.missing else "ok",
        names=listed(search.missing),
        count=len(search.found),
        own=f"libzancgi is {quote(own[0])}" if own else "libzancgi, if used, is linked statically",
    )
    yield search_path_safe(site, path, dynamic)


def search_path_safe(site, path, dynamic):
    report = reporter("program.search-path", site.program)
    origin = os.path.dirname(path)
    for item in expand(dynamic.rpath, origin) + expand(dynamic.runpath, origin):
        unsafe = unsafe_folder(item, {0, os.stat(path).st_uid})
        if unsafe:
            return report("failure", unsafe=unsafe)
    return report("ok")


def unsafe_folder(path, trusted):
    if not path:
        return "an empty item stands for the current directory"
    if not path.startswith("/"):
        return f"{quote(path)} is relative to the current directory"
    try:
        return first_unsafe(path_to(path), trusted)
    except OSError:
        return ""  # only users who can write in a folder above could create it
