"""What a program wants of the dynamic linker, read from its file."""

import contextlib
import dataclasses
import itertools
import os
import stat
import struct

from zancgi_doctor.files import FILE_LIMIT

DT_NULL, DT_NEEDED, DT_STRTAB, DT_RPATH, DT_RUNPATH = 0, 1, 5, 15, 29
PT_LOAD, PT_DYNAMIC = 1, 2


class NotElf(Exception):
    """The file is no dynamically linked program of this machine's kind."""


@dataclasses.dataclass
class Dynamic:
    """What an ELF file wants of the dynamic linker."""

    needed: list
    rpath: str
    runpath: str


class ElfFile:
    """Reads the dynamic section of a 64-bit file. Nothing of it is run."""

    def __init__(self, path):
        descriptor = os.open(path, os.O_RDONLY | os.O_NONBLOCK | os.O_CLOEXEC)
        self.stream = os.fdopen(descriptor, "rb")
        status = os.fstat(descriptor)
        self.size = status.st_size
        if not stat.S_ISREG(status.st_mode):
            raise NotElf("is no regular file")

    def close(self):
        self.stream.close()

    def dynamic(self):
        tags = self._tags()
        base = self._offset(next((value for tag, value in tags if tag == DT_STRTAB), 0))

        def texts(wanted):
            return [self._text(base + value) for tag, value in tags if tag == wanted]

        return Dynamic(texts(DT_NEEDED), ":".join(texts(DT_RPATH)), ":".join(texts(DT_RUNPATH)))

    def _at(self, offset, size):
        if offset + size > self.size:
            raise NotElf("is cut short")
        self.stream.seek(offset)
        return self.stream.read(size)

    def _tags(self):
        header = self.stream.read(64)
        if header[:2] == b"#!":
            raise NotElf("is a script")
        if len(header) < 64 or header[:6] != b"\x7fELF\x02\x01":
            raise NotElf("is no 64-bit program")
        offset, size, count = struct.unpack("<32xQ14xHH6x", header)
        entries = [struct.unpack("<IIQQQQ", self._at(offset + i * size, 40)) for i in range(count)]
        self.loaded = [entry[2:6] for entry in entries if entry[0] == PT_LOAD]
        for kind, _, begin, _, _, length in entries:
            if kind == PT_DYNAMIC:
                table = self._at(begin, min(length, FILE_LIMIT) // 16 * 16)
                entries = struct.iter_unpack("<qQ", table)
                return list(itertools.takewhile(lambda entry: entry[0] != DT_NULL, entries))
        return []

    def _offset(self, address):
        for offset, start, _, size in self.loaded:
            if start <= address < start + size:
                return address - start + offset
        return 0

    def _text(self, offset):
        length = max(min(self.size - offset, 4096), 0)
        return os.fsdecode(self._at(offset, length).partition(b"\0")[0])


def dynamic_of(path):
    with contextlib.closing(ElfFile(path)) as file:
        return file.dynamic()
