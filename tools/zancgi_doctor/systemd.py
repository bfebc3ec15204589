"""What systemd has been told to make and to remove: rules of tmpfiles.d and units."""

import contextlib
import fnmatch
import os
import re

from zancgi_doctor.files import text_or_nothing
from zancgi_doctor.texts import quote


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
    folders = (
        "/etc/tmpfiles.d",
        "/run/tmpfiles.d",
        "/usr/local/lib/tmpfiles.d",
        "/usr/lib/tmpfiles.d",
    )
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
    for unit in unit_files():
        for names in re.findall(r"^\s*RuntimeDirectory\s*=(.*)$", text_or_nothing(unit), re.M):
            if path in [f"/run/{name.partition(':')[0]}" for name in names.split()]:
                return f"the unit {quote(unit)}"
    return ""


def unit_files():
    folders = (
        "/etc/systemd/system",
        "/run/systemd/system",
        "/usr/local/lib/systemd/system",
        "/usr/lib/systemd/system",
        "/lib/systemd/system",
    )
    yield from configuration_files(folders, "*.service")
    for folder in folders:
        for drop_ins in configuration_files([folder], "*.service.d"):
            yield from configuration_files([drop_ins], "*.conf")


def is_aged(folder):
    """Whether a rule removes old files from a folder."""
    return any(
        kind[0] in "dDevqQ" and rule[3] != "-" and fnmatch.fnmatch(folder, path.rstrip("/") or "/")
        for kind, path, *rule in tmpfiles_rules()
    )
