"""Has programs run by bench_measure, and brings back what each run took."""

import dataclasses
import json
import os
import pathlib
import signal
import subprocess
from collections.abc import Iterable, Iterator, Mapping, Sequence

from request import Request


class Failed(Exception):
    """A program has failed, stored something wrong, or not ended in time."""


@dataclasses.dataclass(frozen=True)
class Start:
    """One way to run a program, under a name of its own within a plan."""

    name: str
    command: Sequence[str]
    request: Request
    every: int = 1
    output: pathlib.Path | None = None
    # Files that a run leaves, and their sizes. They are removed.
    stored: Mapping[pathlib.Path, int] = dataclasses.field(default_factory=dict)


@dataclasses.dataclass(frozen=True)
class Outcome:
    """The runs of each program, and the least peak that can be told."""

    runs: dict[str, list[dict[str, float]]]
    least_peak_kb: int


class Spawner:
    def __init__(
        self,
        program: pathlib.Path,
        prefix: Sequence[str] = (),
        folder: pathlib.Path | None = None,
    ) -> None:
        # The command and the folder in which it starts.
        self.command = [*prefix, str(program)]
        self.folder = folder

    def run(self, starts: Sequence[Start], rounds: int, seconds: float) -> Outcome:
        with subprocess.Popen(
            self.command,
            cwd=self.folder,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
            # A session of its own, so that it and its programs can be ended
            # together.
            start_new_session=True,
        ) as process:
            try:
                output, errors = process.communicate(plan(starts, rounds), seconds)
            except BaseException as error:
                os.killpg(process.pid, signal.SIGKILL)
                if isinstance(error, subprocess.TimeoutExpired):
                    names = ", ".join(start.name for start in starts)
                    raise Failed(f"{names}: not ended within {seconds} s") from error
                raise
        if process.returncode != 0:
            raise Failed(errors.strip())
        return outcome(output.splitlines())


def outcome(lines: Iterable[str]) -> Outcome:
    runs: dict[str, list[dict[str, float]]] = {}
    least_peak_kb = 0
    for line in lines:
        told = json.loads(line)
        if "program" in told:
            runs.setdefault(told.pop("program"), []).append(told)
        else:
            least_peak_kb = told["least_peak_kb"]
    return Outcome(runs, least_peak_kb)


def plan(starts: Sequence[Start], rounds: int) -> str:
    lines = [f"rounds {rounds}"]
    for start in starts:
        lines.extend(plan_lines(start))
    if any("\n" in line for line in lines):
        raise ValueError("a line of the plan would be two")
    return "\n".join(lines) + "\n"


def plan_lines(start: Start) -> Iterator[str]:
    yield f"program {start.name}"
    yield f"every {start.every}"
    for word in start.command:
        yield f"argument {word}"
    for name, value in start.request.variables.items():
        yield f"variable {name}={value}"
    if start.request.file is not None:
        yield f"input {start.request.file}"
    for piece in start.request.pieces:
        yield f"piece {piece.count} {piece.path}"
    if start.output is not None:
        yield f"output {start.output}"
    for path, size in start.stored.items():
        yield f"stored {size} {path}"
