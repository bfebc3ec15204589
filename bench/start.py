"""Compares the page faults and instructions of a start with recorded counts.

The counts do not depend on the load of the machine, but on the tools that built
the programs and on the system that runs them. If these differ from those of the
record, nothing is compared and the reason is printed.
"""

import dataclasses
import json
import pathlib
import platform
import re
import shutil
import subprocess
import tempfile
from collections.abc import Callable, Iterator, Mapping

import machine
from frame import SOURCE
from groups.startup import REQUEST
from spawner import Failed, Spawner, Start

RECORD = SOURCE / "start_record.json"
PROGRAMS = ("start_shared", "get_archive", "get_standalone")
LIBRARIES = {"libzancgi.so": "src/zancgi", "libtov.so": "src/tov"}
# The allowed growth over the record, in percent.
TOLERANCE = 1
ROUNDS = 50
# Random addresses would change the number of page faults.
FIXED_ADDRESSES = ("setarch", "--addr-no-randomize")
VALGRIND = ("valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null")

Counts = dict[str, int]


class Missing(Exception):
    """Something that is necessary for counting is missing."""


@dataclasses.dataclass(frozen=True)
class Quantity:
    name: str
    # What the counts depend on besides our own code.
    made_with: Callable[[pathlib.Path], Mapping[str, str]]
    count: Callable[[pathlib.Path], Counts]


@dataclasses.dataclass
class Outcome:
    lines: list[str] = dataclasses.field(default_factory=list)
    compared: int = 0
    has_grown: bool = False


def prepare(build: pathlib.Path, folder: pathlib.Path) -> None:
    """Copies the programs and the libraries that they load to one folder."""
    for name in (*PROGRAMS, "bench_measure"):
        shutil.copy(build / "bench" / name, folder)
    for name, source in LIBRARIES.items():
        library = (build / source / name).resolve()
        shutil.copy(library, folder / library.name)


def start_of(name: str) -> Start:
    return Start(name, [f"./{name}"], REQUEST)


def page_faults(folder: pathlib.Path) -> Counts:
    if subprocess.run([*FIXED_ADDRESSES, "true"], capture_output=True, check=False).returncode:
        raise Missing("addresses cannot be fixed (setarch --addr-no-randomize fails)")
    spawner = Spawner(folder / "bench_measure", FIXED_ADDRESSES, folder)
    runs = spawner.run([start_of(name) for name in PROGRAMS], ROUNDS, 60).runs
    # Some runs have more page faults if memory is short.
    return {name: int(min(run["minor_faults"] for run in runs[name])) for name in PROGRAMS}


def instructions(folder: pathlib.Path) -> Counts:
    if shutil.which(VALGRIND[0]) is None:
        raise Missing("valgrind is not installed")
    return {name: instructions_of(name, folder) for name in PROGRAMS}


def instructions_of(name: str, folder: pathlib.Path) -> int:
    done = subprocess.run(
        [*VALGRIND, f"./{name}"],
        cwd=folder,
        env=dict(REQUEST.variables),
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        timeout=120,
        check=False,
    )
    found = re.search(r"Collected : (\d+)", done.stderr)
    if done.returncode != 0 or found is None:
        raise Failed(f"{name} under valgrind: {done.stderr[-500:]}")
    return int(found.group(1))


def tools(build: pathlib.Path) -> dict[str, str]:
    installed = machine.package_versions()
    return {
        "compiler": machine.compiler(build),
        "linker": machine.first_line("ld", "--version"),
        "C library": installed.get("libc6", platform.libc_ver()[1]),
        "C++ library": installed.get("libstdc++6", ""),
    }


def tools_and_kernel(build: pathlib.Path) -> dict[str, str]:
    return {**tools(build), "kernel": ".".join(platform.release().split(".")[:2])}


def tools_and_valgrind(build: pathlib.Path) -> dict[str, str]:
    flags = pathlib.Path("/proc/cpuinfo").read_text().split()
    # The C library chooses its functions by this processor feature.
    vectors = "AVX2" if "avx2" in flags else "no AVX2"
    return {
        **tools(build),
        "valgrind": machine.first_line("valgrind", "--version"),
        "processor": f"{platform.machine()}, {vectors}",
    }


QUANTITIES = (
    Quantity("page faults", tools_and_kernel, page_faults),
    Quantity("instructions", tools_and_valgrind, instructions),
)


def counts_of(build: pathlib.Path) -> Iterator[tuple[Quantity, Counts | Missing]]:
    # The length of the path changes the counts: it is the same on all machines.
    with tempfile.TemporaryDirectory(prefix="zancgi-start-", dir="/tmp") as name:
        folder = pathlib.Path(name)
        prepare(build, folder)
        for quantity in QUANTITIES:
            try:
                yield quantity, quantity.count(folder)
            except Missing as missing:
                yield quantity, missing


def record(build: pathlib.Path) -> None:
    recorded = {}
    for quantity, counts in counts_of(build):
        if isinstance(counts, Missing):
            raise Failed(f"{quantity.name} cannot be recorded: {counts}")
        recorded[quantity.name] = {"made with": quantity.made_with(build), "counts": counts}
    RECORD.write_text(json.dumps(recorded, indent=1) + "\n")


def compare(build: pathlib.Path, recorded: Mapping | None = None) -> Outcome:
    recorded = json.loads(RECORD.read_text()) if recorded is None else recorded
    outcome = Outcome()
    for quantity, counts in counts_of(build):
        reason = reason_not_to_compare(quantity, counts, build, recorded)
        if reason:
            outcome.lines.append(f"{quantity.name} of a start: not compared: {reason}")
            continue
        outcome.compared += 1
        add_differences(quantity.name, counts, recorded[quantity.name]["counts"], outcome)
    if outcome.has_grown:
        outcome.lines.append("If the growth is intended, record it: scripts/bench --record")
    return outcome


def reason_not_to_compare(
    quantity: Quantity, counts: Counts | Missing, build: pathlib.Path, recorded: Mapping
) -> str:
    if isinstance(counts, Missing):
        return str(counts)
    before = recorded[quantity.name]["made with"]
    return "; ".join(
        f"recorded with {name} {before.get(name)!r}, here {value!r}"
        for name, value in quantity.made_with(build).items()
        if before.get(name) != value
    )


def add_differences(name: str, counts: Counts, before: Counts, outcome: Outcome) -> None:
    for program, count in counts.items():
        recorded = before[program]
        # Integers make the comparison with the limit exact.
        more = 100 * (count - recorded)
        verdict = "as recorded"
        if more > TOLERANCE * recorded:
            verdict = f"GROWN by {more / recorded:.1f} %, {TOLERANCE} % is allowed"
            outcome.has_grown = True
        elif more < -TOLERANCE * recorded:
            verdict = f"{-more / recorded:.1f} % less: record it with scripts/bench --record"
        outcome.lines.append(
            f"{name} of a start, {program}: {count}, {recorded} recorded: {verdict}"
        )
