"""The time to receive an upload and store it as a file."""

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

# libcgicc and librudecgi hold several copies of an upload in memory.
MEMORY_FACTOR = 10


class Uploads:
    """Makes uploads of any number of megabytes."""

    def __init__(self, folder: pathlib.Path) -> None:
        self.folder = folder
        self.head = self._write("head", part_head("u", "upload.bin"))
        self.content = self._write("megabyte", content())
        self.tail = self._write("tail", form_end())

    def case(self, program: Program, megabytes: int, source: str, store: pathlib.Path) -> Case:
        body = (Piece(self.head), Piece(self.content, megabytes), Piece(self.tail))
        stored = Stored(store, stored_pieces(program, body))
        request = post(MULTIPART, self._as_file(body, megabytes) if source == "file" else body)
        variables = {
            "STORE": str(store),
            "TMP": str(store.parent),
            "SKIP": str(self.head.stat().st_size),
        }
        request = dataclasses.replace(request, variables={**request.variables, **variables})
        return Case(program, request, b"%d\n" % stored.size(), stored)

    def _as_file(self, body: tuple[Piece, ...], megabytes: int) -> pathlib.Path:
        """The body on tmpfs, where reading is as fast as from a file that a web
        server has just written to a disk."""
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
    """Random bytes, like those of a compressed file, but without a CR where the
    first read may end: `Cgi` then stores other bytes, which is kept for
    compatibility."""
    random_bytes = os.urandom(MEGABYTE)
    first = 65536
    return random_bytes[:first].replace(b"\r", b"\n") + random_bytes[first:]


def stored_pieces(program: Program, body: tuple[Piece, Piece, Piece]) -> tuple[Piece, ...]:
    """Most programs store the file only. One floor stores the whole body, the
    other all but the headers of the part."""
    if program.name == "copy":
        return body
    return body[1:] if program.name == "copy_shifted" else body[1:2]


def run(bench: Bench) -> None:
    folders = {"memory": bench.memory, "disk": bench.disk}
    with tempfile.TemporaryDirectory(dir=bench.memory) as inputs:
        uploads = Uploads(pathlib.Path(inputs))
        compare_all(bench, uploads)
        for source, (place, folder) in itertools.product(("pipe", "file"), folders.items()):
            compare_large(bench, f"upload/{source}-{place}", uploads, source, folder)


def compare_all(bench: Bench, uploads: Uploads) -> None:
    """Uses a smaller upload, because a large one would take minutes with some
    peers."""
    megabytes = SMALL // 4 if bench.quick else SMALL
    cases = [
        uploads.case(program, megabytes, "pipe", bench.memory / "upload")
        for program in bench.programs_of("upload")
    ]
    title = upload_title(megabytes, "pipe", bench.memory)
    measured = bench.measure(cases, rounds=3)
    bench.record(Experiment("upload-peers/pipe-memory", title, measured, REFERENCES))


def compare_large(
    bench: Bench, name: str, uploads: Uploads, source: str, folder: pathlib.Path
) -> None:
    megabytes = megabytes_that_fit(bench, SMALL if bench.quick else 1024)
    store = folder / "upload"
    cases = []
    for program in bench.programs_of("upload"):
        case = uploads.case(program, megabytes, source, store)
        if program.is_ours or program.is_floor:
            cases.append(case)
        elif program.name in REFERENCES:
            trial = uploads.case(program, min(megabytes, SMALL), source, store)
            cases.append(dataclasses.replace(case, every=3, trial=trial))
    measured = bench.measure(cases, rounds=9)
    title = upload_title(megabytes, source, folder)
    bench.record(Experiment(name, title, measured, REFERENCES))


def upload_title(megabytes: int, source: str, folder: pathlib.Path) -> str:
    return f"Upload of {megabytes} MB from a {source} onto {file_system(str(folder))}"


def megabytes_that_fit(bench: Bench, megabytes: int) -> int:
    """Halves the number until memory and disk have room for the upload."""
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
