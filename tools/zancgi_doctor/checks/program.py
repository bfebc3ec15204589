"""The front end's program, its folder and its shared libraries."""

import contextlib
import dataclasses
import os
import re
import shlex
import stat

from zancgi_doctor.deployment import not_seen
from zancgi_doctor.elf import NotElf, dynamic_of
from zancgi_doctor.files import access_error, first_unsafe, kind_of, read_file, read_text, way_to
from zancgi_doctor.findings import BECOME_ROOT, failure, ok, skipped, unchecked, warning
from zancgi_doctor.libraries import LibrarySearch, expand
from zancgi_doctor.mounts import mount_of
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
    """A script that the web server starts in place of the front end."""
    name, programs = "program.launcher", programs_started_by(path)
    if len(programs) != 1 or is_script(programs[0]):
        yield unchecked(
            name,
            site.program,
            f"{quote(path)} is a script, and the program that it starts is not plain from it: its "
            "libraries and its working directory were not looked at.",
            "Name the front end's own program with --program.",
        )
        return
    (program,) = programs
    yield ok(
        name,
        site.program,
        f"{quote(path)} is a script that starts {quote(program)}, which is checked as well; the "
        "variables and limits that the script sets are not known.",
    )
    yield from check_program(dataclasses.replace(site, program=program))


def is_script(path):
    try:
        return read_file(path).startswith(b"#!")
    except OSError:
        return False


def programs_started_by(script):
    """What its commands "exec" start: the last word of each that is the whole path
    of a program, since one that starts another program comes before it. A
    variable stands for the path that a line of the script gives it."""
    text = read_text(script).replace("\\\n", " ")
    paths = dict(re.findall(r"^\s*(\w+)=(/\S+)$", text, re.MULTILINE))
    programs = []
    for line in re.findall(r"^(?:.*[);]\s*)?\s*exec\s+(.*)", text, re.MULTILINE):
        with contextlib.suppress(ValueError):  # quotes that do not end there
            words = [paths.get(word.strip("${}"), word) for word in shlex.split(line, comments=True)]
            programs += [word for word in words if is_program(word)][-1:]
    return list(dict.fromkeys(programs))


def is_program(path):
    return path.startswith("/") and os.path.isfile(path) and os.access(path, os.X_OK)


def program_file(site):
    name, path = "program.file", site.program
    remedy = "Name the file that the web server starts, and make it executable (chmod 755)."
    try:
        status = os.stat(path)
    except OSError as error:
        missing = failure(
            name, path, f"The program {quote(path)} cannot be found: {reason(error)}.", remedy
        )
        return not_seen(site, missing, path, error)
    if not stat.S_ISREG(status.st_mode):
        return failure(
            name, path, f"The program {quote(path)} is {kind_of(status.st_mode)}.", remedy
        )
    error = site.as_front_end(access_error, path, os.X_OK)
    if error is None:
        return unchecked(
            name, path, f"Whether {site.who()} may run {quote(path)} is not known.", BECOME_ROOT
        )
    if error:
        return failure(
            name, path, f"{site.who_first()} may not run {quote(path)}: {error}.", remedy
        )
    if "noexec" in mount_of(path).options:
        return failure(
            name,
            path,
            f"{quote(path)} is on a file system that is mounted noexec.",
            "Put the program elsewhere, or mount that file system without noexec.",
        )
    return ok(name, path, f"{site.who_first()} may run {quote(path)}.")


def program_safe(site, path):
    name = "program.safe"
    steps = way_to(site.program)
    owner = steps[-1].status.st_uid
    trusted = {0} if site.identity.uid == 0 else {0, owner}
    unsafe = first_unsafe(steps[:-1], trusted) or first_unsafe(
        steps[-1:], trusted, allows_sticky=False
    )
    remedy = "Let the program and every folder above it belong to root, writable by root only."
    if unsafe:
        return failure(name, site.program, f"Others can replace the program: {unsafe}.", remedy)
    if owner == site.identity.uid != 0:
        return warning(
            name,
            site.program,
            f"The program belongs to the {site.who()} that it runs as, who can change it.",
            remedy,
        )
    return ok(name, site.program, f"Only root and its owner can change {quote(path)}.")


def program_set_id(site, path):
    name, mode = "program.set-id", os.stat(path).st_mode
    if mode & (stat.S_ISUID | stat.S_ISGID):
        bit = "set-uid" if mode & stat.S_ISUID else "set-gid"
        return warning(
            name,
            site.program,
            f"The program has the {bit} bit: whoever may run it chooses its environment, "
            "TOV_RUN_DIR and TOV_LOG included.",
            "Take the bit away (chmod ug-s) and have the web server start it as the right user.",
        )
    return ok(name, site.program, "The program has no set-uid or set-gid bit.")


def program_work_dir(site):
    """The folder above the program's folder, to which the constructor goes."""
    name = "program.work-dir"
    folder = os.path.dirname(site.program) or "."
    path = os.path.realpath(os.path.join(folder, ".."))
    error = site.as_front_end(access_error, path, os.X_OK)
    if error is None:
        return unchecked(
            name,
            site.program,
            f"Whether {site.who()} may enter {quote(path)} is not known.",
            BECOME_ROOT,
        )
    if error:
        return warning(
            name,
            site.program,
            f"The program's working directory {quote(path)} cannot be entered by {site.who()}: "
            f"{error}; it stays where the web server starts it.",
            "Let that user search the folder and all folders above it (chmod +x).",
        )
    return ok(name, site.program, f"The program's working directory will be {quote(path)}.")


def program_libraries(site, path):
    name = "program.libraries"
    try:
        dynamic = dynamic_of(path)
        search = LibrarySearch(site.environment)
        search.search(path)
    except NotElf as error:
        yield skipped(
            name, site.program, f"{quote(path)} {error}: what it needs was not looked for."
        )
        return
    except OSError as error:
        yield unchecked(
            name, site.program, f"{quote(path)} cannot be read: {reason(error)}.", BECOME_ROOT
        )
        return
    yield libraries_found(site.program, search)
    yield search_path_safe(site, path, dynamic)


def libraries_found(program, search):
    name = "program.libraries"
    if search.missing:
        return failure(
            name,
            program,
            f"The program needs shared libraries that are not found: {listed(search.missing)}.",
            "Install the packages that have them; behind an installation of your own run ldconfig.",
        )
    own = [path for library, path in search.found.items() if library.startswith("libzancgi.so")]
    version = f"libzancgi is {quote(own[0])}" if own else "libzancgi, if any, is linked in"
    return ok(
        name,
        program,
        f"The shared libraries of the program are found ({len(search.found)}); {version}.",
    )


def search_path_safe(site, path, dynamic):
    name, origin = "program.search-path", os.path.dirname(path)
    for item in expand(dynamic.rpath, origin) + expand(dynamic.runpath, origin):
        why = unsafe_folder(item, {0, os.stat(path).st_uid})
        if why:
            return failure(
                name,
                site.program,
                f"Shared libraries are looked for where others can put them: {why}.",
                "Link the program without that -rpath, or make the folder root's.",
            )
    return ok(name, site.program, "Shared libraries are looked for in trusted folders only.")


def unsafe_folder(path, trusted):
    if not path:
        return "an empty item stands for the current directory"
    if not path.startswith("/"):
        return f"{quote(path)} is relative to the current directory"
    try:
        return first_unsafe(way_to(path), trusted)
    except OSError:
        return ""  # not there: whoever could make it can write in a folder above
