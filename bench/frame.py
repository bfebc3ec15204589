"""What a group of measurements is made with.

A group is a module in groups/ with one function, `run(bench: Bench) -> None`.
It makes its inputs below `bench.memory` or `bench.disk`, asks
`bench.programs_of(workload)` for what is built, makes a `Case` of each, has
them measured in turn, and records what came out under a name by which
targets.py finds it:

    cases = [Case(program, request, answer=b"3\\n")
             for program in bench.programs_of("get")]
    bench.record(Experiment("startup/get", "GET with three parameters",
                            bench.measure(cases, rounds=400),
                            references=("empty_c", "cgicc_get")))

`measure` checks each case before it times any: answer, exit status and stored
bytes. One that fails is reported, left out, and fails the whole benchmark. The
check is the warm-up, too.
With `--check` nothing is timed and nothing recorded: `measure` returns
nothing, and `record` does nothing with that. A group that measures by other
means than `measure` asks `bench.check(case)` itself, and returns early if
`bench.only_checks`.
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

# Time limits of checked runs and of measurements, beyond any correct run.
CHECK_SECONDS = 60
SECONDS = 600

SOURCE = pathlib.Path(__file__).parent


@dataclasses.dataclass(frozen=True)
class Stored:
    """What a program is to leave in a file: these bytes one after another."""

    path: pathlib.Path
    pieces: tuple[Piece, ...]

    def size(self) -> int:
        return sum(piece.size() for piece in self.pieces)

    def is_right(self) -> bool:
        with self.path.open("rb") as file:
            for piece in self.pieces:
                expected = piece.path.read_bytes()
                for _ in range(piece.count):
                    if file.read(len(expected)) != expected:
                        return False
            return not file.read(1)


@dataclasses.dataclass(frozen=True)
class Case:
    """A program, what it is given, and what it must make of it."""

    program: Program
    request: Request
    # What it prints after the header; None for a floor, whose output is not
    # checked.
    answer: bytes | None
    stored: Stored | None = None
    # A slow program runs only once in this number of rounds.
    every: int = 1
    # A smaller case of the same kind that is checked instead of a large one.
    trial: "Case | None" = None

    @property
    def name(self) -> str:
        return self.program.name


@dataclasses.dataclass(frozen=True)
class Experiment:
    """What was measured, by program."""

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
        # The failures, and the number of checks that passed.
        self.broken: list[str] = []
        self.right = 0
        self._spawner = Spawner(built / "bench_measure")

    def programs_of(self, workload: str) -> list[Program]:
        """Those that are there. Peers may be absent, which will be told."""
        there = []
        for program in PROGRAMS:
            if program.workload != workload:
                continue
            if program.is_there(**self._folders()):
                there.append(program)
            elif program.is_ours or program.is_floor:
                self.report_broken(f"{program.name}: not built")
            else:
                self.absent.add(program.name)
        return there

    def check(self, case: Case) -> bool:
        """Runs a program once. If what it does is wrong, that is reported."""
        try:
            self._run_checked(case)
        except Failed as failure:
            self.report_broken(str(failure))
            return False
        self.right += 1
        return True

    def report_broken(self, text: str) -> None:
        """The benchmark goes on, and fails at its end."""
        if text not in self.broken:
            print(f"BROKEN: {text}")
            self.broken.append(text)

    def measure(self, cases: Sequence[Case], rounds: int) -> dict[str, Summaries]:
        """Checks all, then runs all in turn, so many times."""
        right = [case for case in cases if self.check(case.trial or case)]
        if self.only_checks or not right:
            return {}
        outcome = self._spawner.run([self._timed(case) for case in right], rounds, SECONDS)
        measured = {case.name: summarize(outcome.runs[case.name]) for case in right}
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
        """All that a web server would tell the program."""
        return {
            **case.request.variables,
            "SCRIPT_FILENAME": self.command(case)[-1],
            **case.program.variables(**self._folders(case)),
        }

    def _folders(self, case: Case | None = None) -> dict[str, pathlib.Path]:
        keeps = case.stored.path.parent if case and case.stored else self.memory
        return {"built": self.built, "bench": SOURCE, "folder": keeps}

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
        raise Failed(f"{case.name}: no header of a text: {output[:200]!r}")
    if body != case.answer:
        raise Failed(f"{case.name}: answers {body[:200]!r}, not {case.answer!r}")


def check_stored(name: str, stored: Stored) -> None:
    if not stored.path.exists():
        raise Failed(f"{name}: has stored nothing")
    right = stored.is_right()
    stored.path.unlink()
    if not right:
        raise Failed(f"{name}: has stored other bytes than were sent")
