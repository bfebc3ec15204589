"""The configuration of systemd: tmpfiles.d rules and units."""

import contextlib
import fnmatch
import os
import re

from zancgi_doctor.files import text_or_nothing
from zancgi_doctor.texts import quote

# Its configuration folders in order of precedence. The last one has no rules.
PLACES = ("/etc", "/run", "/usr/local/lib", "/usr/lib", "/lib")


def systemd_runs():
    return os.path.isdir("/run/systemd/system")


def configuration_files(folders, pattern):
    """Finds files as systemd does: a file hides those of the same name in later folders."""
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
    """The rule or unit that creates a folder at boot; empty if there is none."""
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
    """All values of a setting in the file of a unit."""
    return re.findall(rf"^[ \t]*{name}[ \t]*=(.*)$", text_or_nothing(unit), re.M)


def unit_name(path):
    """The name of the unit that a file or drop-in configures."""
    folder, name = os.path.split(path)
    return os.path.basename(folder).removesuffix(".d") if name.endswith(".conf") else name


def sockets_of_program(program):
    """The paths on which a program, or systemd for it, listens."""
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
