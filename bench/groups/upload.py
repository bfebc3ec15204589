"""What it costs to take an upload and keep it as a file."""

import dataclasses
import itertools
import os
import pathlib
import shutil
import tempfile

from frame import Bench, Case, Experiment, Stored
from machine import file_system
from programs import Program
from request import MULTIPART, Piece, form_end, part_head, post

MEGABYTE = 1 << 20
SMALL = 64

REFERENCES = ("copy", "copy_shifted", "php_upload", "cgicc_upload")

# libcgicc and librudecgi keep an upload in memory, in several copies.
MEMORY_FACTOR = 10


class Uploads:
    """Bodies of any number of megabytes."""

    def __init__(self, folder: pathlib.Path) -> None:
        self.folder = folder
        self.head = self._write("head", part_head("u", "upload.bin"))
        self.content = self._write("megabyte", content())
        self.tail = self._write("tail", form_end())

    def case(self, program: Program, megabytes: int, way: str, store: pathlib.Path) -> Case:
        content = Piece(self.content, megabytes)
        body = (Piece(self.head), content, Piece(self.tail))
        kept = Stored(store, kept_of(program, body))
        request = post(MULTIPART, self._as_file(body, megabytes) if way == "file" else body)
        variables = {
            "STORE": str(store),
            "TMP": str(store.parent),
            "SKIP": str(self.head.stat().st_size),
        }
        request = dataclasses.replace(request, variables={**request.variables, **variables})
        return Case(program, request, b"%d\n" % kept.size(), kept)

    def _as_file(self, body: tuple[Piece, ...], megabytes: int) -> pathlib.Path:
        """On tmpfs, which is read as fast as what a web server has just written
        to a disk."""
        path = self.folder / f"body-{megabytes}"
        if not path.exists():
            with path.open("wb") as file:
                for piece in body:
                    content = piece.path.read_bytes()
                    for _ in range(piece.count):
                        file.write(content)
        return path

    def _write(self, name: str, content: bytes) -> pathlib.Path:
        path = self.folder / name
        path.write_bytes(content)
        return path


def content() -> bytes:
    """As in compressed files, CR and LF come as often as other bytes; but no CR
    where a first read may end. Our library then stores other bytes, which is
    kept for compatibility."""
    bytes_by_chance = os.urandom(MEGABYTE)
    first = 65536
    return bytes_by_chance[:first].replace(b"\r", b"\n") + bytes_by_chance[first:]


def kept_of(program: Program, body: tuple[Piece, Piece, Piece]) -> tuple[Piece, ...]:
    """The floors keep more than the file: the body, or all but its head."""
    if program.name == "copy":
        return body
    return body[1:] if program.name == "copy_shifted" else body[1:2]


def run(bench: Bench) -> None:
    folders = {"memory": bench.memory, "disk": bench.disk}
    with tempfile.TemporaryDirectory(dir=bench.memory) as inputs:
        uploads = Uploads(pathlib.Path(inputs))
        compare_all(bench, uploads)
        for way, (place, folder) in itertools.product(("pipe", "file"), folders.items()):
            compare_large(bench, f"upload/{way}-{place}", uploads, way, folder)


def compare_all(bench: Bench, uploads: Uploads) -> None:
    """The large ones would take the slower peers many minutes."""
    megabytes = SMALL // 4 if bench.quick else SMALL
    cases = [
        uploads.case(program, megabytes, "pipe", bench.memory / "upload")
        for program in bench.programs_of("upload")
    ]
    title = upload_title(megabytes, "pipe", bench.memory)
    measured = bench.measure(cases, rounds=3)
    bench.record(Experiment("upload-peers/pipe-memory", title, measured, REFERENCES))


def compare_large(
    bench: Bench, name: str, uploads: Uploads, way: str, folder: pathlib.Path
) -> None:
    megabytes = megabytes_that_fit(bench, SMALL if bench.quick else 1024)
    store = folder / "upload"
    cases = []
    for program in bench.programs_of("upload"):
        case = uploads.case(program, megabytes, way, store)
        if program.is_ours or program.is_floor:
            cases.append(case)
        elif program.name in REFERENCES:
            trial = uploads.case(program, min(megabytes, SMALL), way, store)
            cases.append(dataclasses.replace(case, every=3, trial=trial))
    measured = bench.measure(cases, rounds=9)
    title = upload_title(megabytes, way, folder)
    bench.record(Experiment(name, title, measured, REFERENCES))


def upload_title(megabytes: int, way: str, folder: pathlib.Path) -> str:
    return f"Upload of {megabytes} MB from a {way} onto {file_system(str(folder))}"


def megabytes_that_fit(bench: Bench, megabytes: int) -> int:
    """As many as wished for, or half as many, and so on."""
    memory = memory_available()
    disk = shutil.disk_usage(bench.disk).free
    while megabytes * MEGABYTE * MEMORY_FACTOR > memory or megabytes * MEGABYTE * 2 > disk:
        megabytes //= 2
    return megabytes


def memory_available() -> int:
    for line in pathlib.Path("/proc/meminfo").read_text().splitlines():
        if line.startswith("MemAvailable:"):
            return int(line.split()[1]) * 1024
    return 0
