"""Shared libraries, found where the dynamic linker finds them, without running it."""

import contextlib
import os
import re
import subprocess

from zancgi_doctor.elf import NotElf, dynamic_of


def linker_cache():
    """The libraries that the system's linker knows, by name."""
    listing = subprocess.run(
        ["/sbin/ldconfig", "-p"], stdin=subprocess.DEVNULL, capture_output=True, check=False
    )
    found = {}
    for line in os.fsdecode(listing.stdout).splitlines():
        match = re.fullmatch(r"\t(\S+) \(libc6,x86-64[^)]*\) => (.*)", line)
        if match:
            found.setdefault(match[1], match[2])
    return found


class LibrarySearch:
    """Finds shared libraries where the dynamic linker would, without it."""

    FOLDERS = (
        "/lib/x86_64-linux-gnu",
        "/usr/lib/x86_64-linux-gnu",
        "/lib64",
        "/usr/lib64",
        "/lib",
        "/usr/lib",
    )

    def __init__(self, environment):
        self.cache = linker_cache()
        self.library_path = split_search_path(environment.get("LD_LIBRARY_PATH", ""))
        self.found = {}
        self.missing = []

    def search(self, path):
        self._search(path, [])

    def _search(self, path, inherited):
        dynamic = dynamic_of(path)
        origin = os.path.dirname(path)
        rpath = [] if dynamic.runpath else expand(dynamic.rpath, origin) + inherited
        folders = [*rpath, *self.library_path, *expand(dynamic.runpath, origin)]
        for name in dynamic.needed:
            if name in self.found or name in self.missing:
                continue
            where = self._find(name, folders)
            if where is None:
                self.missing.append(name)
                continue
            self.found[name] = os.path.realpath(where)
            with contextlib.suppress(NotElf, OSError):
                self._search(self.found[name], rpath)

    def _find(self, name, folders):
        if "/" in name:
            return name if os.path.exists(name) else None
        for folder in folders:
            if os.path.exists(os.path.join(folder, name)):
                return os.path.join(folder, name)
        if os.path.exists(self.cache.get(name, "")):
            return self.cache[name]
        for folder in self.FOLDERS:
            if os.path.exists(os.path.join(folder, name)):
                return os.path.join(folder, name)
        return None


def split_search_path(text):
    """As the linker splits it: an empty item is the current directory."""
    return re.split("[:;]", text) if text else []


def expand(text, origin):
    return [
        re.sub(r"\$(ORIGIN|\{ORIGIN\})", lambda _: origin, item) for item in split_search_path(text)
    ]
