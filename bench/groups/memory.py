"""The peak memory of an upload, and whether it grows with the size."""

import dataclasses
import pathlib
import tempfile

from frame import Bench, Experiment
from groups.upload import Uploads

# The size in megabytes with which the large upload is compared.
SMALL = 1


def run(bench: Bench) -> None:
    with tempfile.TemporaryDirectory(dir=bench.memory) as inputs:
        uploads = Uploads(pathlib.Path(inputs))
        compare(bench, uploads, "small", SMALL, rounds=11)
        compare(bench, uploads, "large", 64 if bench.quick else 4096, rounds=3)


def compare(bench: Bench, uploads: Uploads, size: str, megabytes: int, rounds: int) -> None:
    """Stores the uploads on a disk, because the large one may not fit in memory."""
    store = bench.disk / "upload"
    cases = []
    for program in bench.programs_of("upload"):
        if program.is_ours or program.is_floor:
            case = uploads.case(program, megabytes, "pipe", store)
            trial = uploads.case(program, SMALL, "pipe", store)
            cases.append(dataclasses.replace(case, trial=trial))
    bench.record(
        Experiment(
            f"memory/{size}",
            f"Memory for an upload of {megabytes} MB",
            bench.measure(cases, rounds),
            quantity="peak_kb",
        )
    )
