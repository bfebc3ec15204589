"""What systemd is configured to make, to remove and to run: tmpfiles.d and units."""

import contextlib
import fnmatch
import os
import re

from zancgi_doctor.files import text_or_nothing
from zancgi_doctor.texts import quote

# Where its configuration is, in the order of precedence. Rules are not in the last.
PLACES = ("/etc", "/run", "/usr/local/lib", "/usr/lib", "/lib")


def systemd_runs():
    return os.path.isdir("/run/systemd/system")


def configuration_files(folders, pattern):
    """As systemd finds them: a file hides those of its name in later folders."""
    found = {}
    for folder in folders:
        with contextlib.suppress(OSError):
            for name in os.listdir(folder):
                if fnmatch.fnmatch(name, pattern):
                    found.setdefault(name, os.path.join(folder, name))
    return [found[name] for name in sorted(found)]


def tmpfiles_rules():
    folders = [f"{place}/tmpfiles.d" for place in PLACES[:-1]]
    for path in configuration_files(folders, "*.conf"):
        for line in text_or_nothing(path).splitlines():
            fields = line.split()
            if len(fields) >= 2 and not fields[0].startswith("#"):
                fields += ["-"] * (6 - len(fields))
                yield fields


def makes_folder(path):
    """Whether a rule or a unit makes a folder when the machine starts."""
    path = re.sub("^/var/run/", "/run/", path)
    for kind, rule_path, *_ in tmpfiles_rules():
        if kind[0] in "dDvqQ" and re.sub("^/var/run/", "/run/", rule_path).rstrip("/") == path:
            return "a tmpfiles.d rule"
    for unit in unit_files("service"):
        for names in settings("RuntimeDirectory", unit):
            if path in [f"/run/{name.partition(':')[0]}" for name in names.split()]:
                return f"the unit {quote(unit)}"
    return ""


def settings(name, unit):
    """The values that a setting is given in the file of a unit."""
    return re.findall(rf"^[ \t]*{name}[ \t]*=(.*)$", text_or_nothing(unit), re.M)


def unit_name(path):
    """The unit that a file is about: it, or the one whose drop-in it is."""
    folder, name = os.path.split(path)
    return os.path.basename(folder).removesuffix(".d") if name.endswith(".conf") else name


def sockets_of_program(program):
    """The paths where systemd, or the program itself, listens for a program."""
    services = {}
    for unit in unit_files("service"):
        for line in settings("ExecStart", unit):
            if re.match(rf"[-@:+!]*/(\S*/)?{program}(\s|$)", line.strip()):
                services.setdefault(unit_name(unit), []).extend(
                    re.findall(r"\s-s\s*unix:(/\S+)", line)
                )
    paths = [path for found in services.values() for path in found]
    served = {name.replace(".service", ".socket"): name for name in services}
    for unit in unit_files("socket"):
        served |= {unit_name(unit): name.strip() for name in settings("Service", unit)}
    for unit in unit_files("socket"):
        if served.get(unit_name(unit)) in services:
            paths += [path.strip() for path in settings("ListenStream", unit)]
    return [path for path in dict.fromkeys(paths) if path.startswith("/")]


def unit_files(kind):
    folders = [f"{place}/systemd/system" for place in PLACES]
    yield from configuration_files(folders, f"*.{kind}")
    for folder in folders:
        for drop_ins in configuration_files([folder], f"*.{kind}.d"):
            yield from configuration_files([drop_ins], "*.conf")


def is_aged(folder):
    """Whether a rule removes old files from a folder."""
    return any(
        kind[0] in "dDevqQ" and rule[3] != "-" and fnmatch.fnmatch(folder, path.rstrip("/") or "/")
        for kind, path, *rule in tmpfiles_rules()
    )
