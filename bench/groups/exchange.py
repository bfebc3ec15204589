"""The time of a program that queries a back end over a Unix socket."""

import contextlib
import dataclasses
import pathlib
import subprocess
import tempfile
from collections.abc import Iterator

from frame import Bench, Case, Experiment
from request import get
from spawner import Failed

# Size of the answer in bytes, and number of runs of each program.
ANSWERS = {"1KB": (1000, 600), "10MB": (10_000_000, 120)}


def run(bench: Bench) -> None:
    with tempfile.TemporaryDirectory(dir=bench.memory) as folder:
        with back_end(bench, pathlib.Path(folder)):
            for name, (size, rounds) in ANSWERS.items():
                compare(bench, name, size, rounds // 6 if bench.quick else rounds, folder)


@contextlib.contextmanager
def back_end(bench: Bench, folder: pathlib.Path) -> Iterator[None]:
    """Runs a back end, which ends at the end of its standard input: even if this
    process is killed."""
    with subprocess.Popen(
        [bench.built / "scgi_echo", folder / "bench.sock"],
        stdin=subprocess.PIPE,
        stdout=subprocess.PIPE,
        # In a session of its own, because Ctrl-C would end it before its
        # clients.
        start_new_session=True,
    ) as process:
        if not process.stdout.readline():
            raise Failed("the back end did not start")
        yield


def compare(bench: Bench, name: str, size: int, rounds: int, run_dir: str) -> None:
    request = get(f"func={size}", "")
    request = dataclasses.replace(
        request, variables={**request.variables, "TOV_RUN_DIR": run_dir}
    )
    cases = [
        Case(program, request, b"%d\n" % size) for program in bench.programs_of("query")
    ]
    bench.record(
        Experiment(
            f"exchange/{name}",
            f"Query with an answer of {name}",
            bench.measure(cases, rounds),
            references=("exchange",),
        )
    )
