"""Runs programs with bench_measure and returns the measurements of each run."""

import dataclasses
import json
import os
import pathlib
import signal
import subprocess
from collections.abc import Iterable, Iterator, Mapping, Sequence

from request import Request


class Failed(Exception):
    """A program failed, gave a wrong result or exceeded its time limit."""


@dataclasses.dataclass(frozen=True)
class Start:
    """How to run a program. Its name must be unique in a plan."""

    name: str
    command: Sequence[str]
    request: Request
    every: int = 1
    output: pathlib.Path | None = None
    # The files that a run stores, and their sizes. Removed after each run.
    stored: Mapping[pathlib.Path, int] = dataclasses.field(default_factory=dict)


@dataclasses.dataclass(frozen=True)
class Outcome:
    """The measurements of each program's runs, and the smallest peak memory
    that can be measured."""

    runs: dict[str, list[dict[str, float]]]
    least_peak_kb: int


class Spawner:
    def __init__(
        self,
        program: pathlib.Path,
        prefix: Sequence[str] = (),
        folder: pathlib.Path | None = None,
    ) -> None:
        self.command = [*prefix, str(program)]
        # The current directory of all programs.
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
                    raise Failed(f"{names}: still running after {seconds} s") from error
                raise
        if process.returncode != 0:
            raise Failed(errors.strip())
        return outcome(output.splitlines())


def outcome(lines: Iterable[str]) -> Outcome:
    runs: dict[str, list[dict[str, float]]] = {}
    least_peak_kb = 0
    for line in lines:
        measured = json.loads(line)
        if "program" in measured:
            runs.setdefault(measured.pop("program"), []).append(measured)
        else:
            least_peak_kb = measured["least_peak_kb"]
    return Outcome(runs, least_peak_kb)


def plan(starts: Sequence[Start], rounds: int) -> str:
    lines = [f"rounds {rounds}"]
    for start in starts:
        lines.extend(plan_lines(start))
    if any("\n" in line for line in lines):
        raise ValueError("a value of the plan contains a line end")
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
