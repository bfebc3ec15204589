"""What a program wants of the dynamic linker, read from its file."""

import dataclasses
import errno
import itertools
import os
import stat

# Of an entry of the dynamic section.
TAG_SIZE = 16


class NotElf(Exception):
    """The file is no dynamically linked program of this machine's kind."""


@dataclasses.dataclass
class Dynamic:
    """What an ELF file wants of the dynamic linker."""

    needed: list
    rpath: str
    runpath: str


def dynamic_of(path):
    """Reads the dynamic section of a 64-bit file. Nothing of it is run."""
    descriptor = os.open(path, os.O_RDONLY | os.O_NONBLOCK | os.O_CLOEXEC)
    with os.fdopen(descriptor, "rb") as stream:
        if not stat.S_ISREG(os.fstat(descriptor).st_mode):
            raise NotElf("is no regular file")
        magic = stream.read(6)
        if magic[:2] == b"#!":
            raise NotElf("is a script")
        if magic != b"\x7fELF\x02\x01":
            raise NotElf("is no 64-bit program")
        return read_dynamic(stream)


def read_dynamic(stream):
    # Few checks want it, and it takes long to load.
    from elftools.elf.elffile import ELFFile

    found = {"DT_NEEDED": [], "DT_RPATH": [], "DT_RUNPATH": []}
    try:
        for segment in ELFFile(stream).iter_segments("PT_DYNAMIC"):
            for tag in itertools.islice(segment.iter_tags(), segment["p_filesz"] // TAG_SIZE):
                if tag["d_tag"] in found:
                    found[tag["d_tag"]].append(getattr(tag, tag["d_tag"][3:].lower()))
    except Exception as error:  # a damaged file brings all kinds of them
        if isinstance(error, OSError) and error.errno != errno.EINVAL:
            raise
        raise NotElf("is cut short") from None
    needed, rpath, runpath = found.values()
    return Dynamic(needed, ":".join(rpath), ":".join(runpath))
