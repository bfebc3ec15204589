"""Finds shared libraries as the dynamic linker does, without running it."""

import contextlib
import dataclasses
import errno
import itertools
import os
import re
import stat
import subprocess

# The linker searches these last.
FOLDERS = ("/lib/x86_64-linux-gnu", "/usr/lib/x86_64-linux-gnu", "/lib64", "/usr/lib64", "/lib",
           "/usr/lib")  # fmt: skip
# The size of an entry in the dynamic section.
TAG_SIZE = 16


class NotElf(Exception):
    """The file is not a dynamically linked program for this kind of machine."""


@dataclasses.dataclass
class Dynamic:
    """What an ELF file requests from the dynamic linker."""

    needed: list
    rpath: str
    runpath: str


def dynamic_of(path):
    """Reads the dynamic section of a 64-bit file, without running the file."""
    descriptor = os.open(path, os.O_RDONLY | os.O_NONBLOCK | os.O_CLOEXEC)
    with os.fdopen(descriptor, "rb") as stream:
        if not stat.S_ISREG(os.fstat(descriptor).st_mode):
            raise NotElf("is not a regular file")
        magic = stream.read(6)
        if magic[:2] == b"#!":
            raise NotElf("is a script")
        if magic != b"\x7fELF\x02\x01":
            raise NotElf("is not a 64-bit program")
        return read_dynamic(stream)


def read_dynamic(stream):
    # It loads slowly, and few checks need it.
    from elftools.elf.elffile import ELFFile

    found = {"DT_NEEDED": [], "DT_RPATH": [], "DT_RUNPATH": []}
    try:
        for segment in ELFFile(stream).iter_segments("PT_DYNAMIC"):
            for tag in itertools.islice(segment.iter_tags(), segment["p_filesz"] // TAG_SIZE):
                if tag["d_tag"] in found:
                    found[tag["d_tag"]].append(getattr(tag, tag["d_tag"][3:].lower()))
    except Exception as error:  # damaged files cause exceptions of many types
        if isinstance(error, OSError) and error.errno != errno.EINVAL:
            raise
        raise NotElf("is truncated") from None
    needed, rpath, runpath = found.values()
    return Dynamic(needed, ":".join(rpath), ":".join(runpath))


def linker_cache():
    """The paths in the linker's cache, by library name."""
    listing = subprocess.run(
        ["/sbin/ldconfig", "-p"], stdin=subprocess.DEVNULL, capture_output=True, check=False
    )
    lines = os.fsdecode(listing.stdout)
    known = re.findall(r"^\t(\S+) \(libc6,x86-64[^)]*\) => (.*)$", lines, re.MULTILINE)
    # If a name occurs more than once, the first counts.
    return dict(reversed(known))


class LibrarySearch:
    def __init__(self, environment):
        self.cache = linker_cache()
        self.library_path = split_search_path(environment.get("LD_LIBRARY_PATH", ""))
        self.found = {}
        self.missing = []

    def search(self, path, inherited=()):
        """Finds the libraries that a file needs, and theirs. They inherit an RPATH."""
        dynamic = dynamic_of(path)
        origin = os.path.dirname(path)
        rpath = [] if dynamic.runpath else [*expand(dynamic.rpath, origin), *inherited]
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
                self.search(self.found[name], rpath)

    def _find(self, name, folders):
        places = [name]
        if "/" not in name:
            places = [os.path.join(folder, name) for folder in folders]
            places.append(self.cache.get(name, ""))
            places += [os.path.join(folder, name) for folder in FOLDERS]
        return next(filter(os.path.exists, places), None)


def split_search_path(text):
    """Splits as the linker does: an empty item is the current directory."""
    return re.split("[:;]", text) if text else []


def expand(text, origin):
    return [
        re.sub(r"\$(ORIGIN|\{ORIGIN\})", lambda _: origin, item) for item in split_search_path(text)
    ]
