"""The base of all groups of measurements.

A group is a module in groups/ with one function, `run(bench: Bench) -> None`.
It writes its inputs below `bench.memory` or `bench.disk`, gets the programs of
a workload from `bench.programs_of`, makes a `Case` of each, measures the cases
in turn, and records the results under a name that targets.py uses:

    cases = [Case(program, request, answer=b"3\\n")
             for program in bench.programs_of("get")]
    bench.record(Experiment("startup/get", "GET with three parameters",
                            bench.measure(cases, rounds=400),
                            references=("empty_c", "cgicc_get")))

Before `measure` times anything, it checks the answer, exit status and stored
bytes of each case, which also warms the caches. A case that fails is reported
and left out, and the benchmark exits with status 1.

With `--check` nothing is timed or recorded: `measure` returns no results, and
`record` ignores experiments without results. A group that does not use
`measure` calls `bench.check(case)` itself and returns early if
`bench.only_checks` is set.
"""

import dataclasses
import pathlib
import tempfile
from collections.abc import Mapping, Sequence
from typing import Any

from programs import PROGRAMS, Program
from request import Piece, Request
from spawner import Failed, Spawner, Start
from summary import Summaries, summarize

# Time limits of a check and of a measurement. No correct run takes as long.
CHECK_SECONDS = 60
SECONDS = 600

SOURCE = pathlib.Path(__file__).parent


@dataclasses.dataclass(frozen=True)
class Stored:
    """The file that a program must store, and its content."""

    path: pathlib.Path
    pieces: tuple[Piece, ...]

    def size(self) -> int:
        return sum(piece.size() for piece in self.pieces)

    def is_correct(self) -> bool:
        with self.path.open("rb") as file:
            for piece in self.pieces:
                expected = piece.path.read_bytes()
                for _ in range(piece.count):
                    if file.read(len(expected)) != expected:
                        return False
            return not file.read(1)


@dataclasses.dataclass(frozen=True)
class Case:
    """A program, its request and the expected results."""

    program: Program
    request: Request
    # The expected output after the header. None: the output is not checked.
    answer: bytes | None
    stored: Stored | None = None
    # Runs once in this number of rounds: more than 1 for slow programs.
    every: int = 1
    # A smaller case of the same kind that is checked instead of this one.
    trial: "Case | None" = None

    @property
    def name(self) -> str:
        return self.program.name


@dataclasses.dataclass(frozen=True)
class Experiment:
    """The measurements of several programs that do the same work."""

    name: str
    title: str
    summaries: Mapping[str, Summaries]
    # The programs to compare the others with.
    references: tuple[str, ...] = ()
    # The quantity to compare and to plot.
    quantity: str = "wall_ms"


class Bench:
    def __init__(
        self,
        built: pathlib.Path,
        memory: pathlib.Path,
        disk: pathlib.Path,
        quick: bool,
        only_checks: bool,
    ) -> None:
        self.quick = quick
        self.only_checks = only_checks
        # The folder of the built programs.
        self.built = built
        # Empty folders on tmpfs and on a disk.
        self.memory = memory
        self.disk = disk
        self.experiments: list[Experiment] = []
        # Names of peers that are not installed.
        self.absent: set[str] = set()
        self.failures: list[str] = []
        self.passed_checks = 0
        self._spawner = Spawner(built / "bench_measure")

    def programs_of(self, workload: str) -> list[Program]:
        """Returns the programs that can be run. Peers that are not installed
        are listed at the end of the benchmark."""
        available = []
        for program in PROGRAMS:
            if program.workload != workload:
                continue
            if program.is_available(**self._folders()):
                available.append(program)
            elif program.is_ours or program.is_floor:
                self.report_failure(f"{program.name}: not built")
            else:
                self.absent.add(program.name)
        return available

    def check(self, case: Case) -> bool:
        """Runs a program once. Reports it and returns False if its results are
        wrong."""
        try:
            self._run_checked(case)
        except Failed as failure:
            self.report_failure(str(failure))
            return False
        self.passed_checks += 1
        return True

    def report_failure(self, text: str) -> None:
        """The benchmark continues, and exits with status 1."""
        if text not in self.failures:
            print(f"FAILED: {text}")
            self.failures.append(text)

    def measure(self, cases: Sequence[Case], rounds: int) -> dict[str, Summaries]:
        """Checks all cases, then runs those that passed in turn, once in each
        round."""
        passed = [case for case in cases if self.check(case.trial or case)]
        if self.only_checks or not passed:
            return {}
        outcome = self._spawner.run([self._timed(case) for case in passed], rounds, SECONDS)
        measured = {case.name: summarize(outcome.runs[case.name]) for case in passed}
        for summaries in measured.values():
            if summaries["peak_kb"].minimum <= outcome.least_peak_kb:
                del summaries["peak_kb"]
        return measured

    def record(self, experiment: Experiment) -> None:
        if experiment.summaries:
            self.experiments.append(experiment)

    def command(self, case: Case) -> list[str]:
        return case.program.argv(**self._folders(case))

    def variables(self, case: Case) -> dict[str, str]:
        """The environment that a web server would set."""
        return {
            **case.request.variables,
            "SCRIPT_FILENAME": self.command(case)[-1],
            **case.program.variables(**self._folders(case)),
        }

    def _folders(self, case: Case | None = None) -> dict[str, pathlib.Path]:
        uploads = case.stored.path.parent if case and case.stored else self.memory
        return {"built": self.built, "bench": SOURCE, "folder": uploads}

    def _start(self, case: Case, **options: Any) -> Start:
        request = dataclasses.replace(case.request, variables=self.variables(case))
        return Start(case.name, self.command(case), request, **options)

    def _timed(self, case: Case) -> Start:
        stored = {case.stored.path: case.stored.size()} if case.stored else {}
        return self._start(case, every=case.every, stored=stored)

    def _run_checked(self, case: Case) -> None:
        with tempfile.TemporaryDirectory(dir=self.memory) as folder:
            output = pathlib.Path(folder) / "answer"
            self._spawner.run([self._start(case, output=output)], 1, CHECK_SECONDS)
            if case.answer is not None:
                check_answer(case, output.read_bytes())
        if case.stored is not None:
            check_stored(case.name, case.stored)


def check_answer(case: Case, output: bytes) -> None:
    header, separator, body = output.replace(b"\r\n", b"\n").partition(b"\n\n")
    if not separator or b"content-type: text/plain" not in header.lower():
        raise Failed(f"{case.name}: no text/plain header: {output[:200]!r}")
    if body != case.answer:
        raise Failed(f"{case.name}: answers {body[:200]!r} instead of {case.answer!r}")


def check_stored(name: str, stored: Stored) -> None:
    if not stored.path.exists():
        raise Failed(f"{name}: stored no file")
    is_correct = stored.is_correct()
    stored.path.unlink()
    if not is_correct:
        raise Failed(f"{name}: the stored bytes differ from those sent")
