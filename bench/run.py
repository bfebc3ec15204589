#!/usr/bin/python3
"""Measures the speed of the library beside peers, as ratios within one run.

    run.py --build FOLDER [--quick] [--check | --record] [GROUP...]

Writes tables, JSON and plots to the build folder. frame.py describes how to
write a group of measurements; targets.py lists the targets.
"""

import argparse
import importlib
import pathlib
import signal
import sys
import tempfile

import machine
import plots
import report
import start
from frame import Bench, Experiment
from spawner import Failed
from targets import Verdict, judge

GROUPS = ("startup", "requests", "upload", "scan", "memory", "forms", "exchange")
# The exit status that CTest reports as skipped.
SKIPPED = 77


def parse_arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", type=pathlib.Path, required=True)
    parser.add_argument("--quick", action="store_true", help="few runs, small inputs")
    parser.add_argument("--check", action="store_true", help="check answers and counts only")
    parser.add_argument("--record", action="store_true", help="record the counts of a start")
    parser.add_argument("groups", nargs="*", metavar="GROUP", help=", ".join(GROUPS))
    arguments = parser.parse_args()
    # --check has one more group, which compares a start with the record.
    known = [*GROUPS, "start"] if arguments.check else GROUPS
    unknown = set(arguments.groups) - set(known)
    if unknown:
        parser.error(f"unknown groups: {', '.join(sorted(unknown))}")
    arguments.groups = arguments.groups or list(known)
    return arguments


def run_groups(bench: Bench, names: list[str]) -> None:
    for name in names:
        before = len(bench.experiments)
        try:
            importlib.import_module(f"groups.{name}").run(bench)
        except Failed as failure:
            bench.report_failure(f"{name}: {failure}")
        for experiment in bench.experiments[before:]:
            print(report.experiment_table(experiment), flush=True)


def write_results(
    folder: pathlib.Path,
    experiments: list[Experiment],
    verdicts: list[Verdict],
    facts: dict[str, object],
) -> None:
    texts = [
        report.facts_text(facts),
        *map(report.experiment_table, experiments),
        report.verdict_table(verdicts),
    ]
    (folder / "results.md").write_text("\n".join(texts))
    (folder / "results.json").write_text(report.as_json(experiments, verdicts, facts))
    plots.draw(experiments, folder / "plots")


def compare_start(bench: Bench, build: pathlib.Path) -> bool:
    """Compares a start with the record. Returns False if nothing could be
    compared."""
    try:
        outcome = start.compare(build)
    except Failed as failure:
        bench.report_failure(f"start: {failure}")
        return True
    print(*outcome.lines, sep="\n")
    if outcome.has_grown:
        bench.report_failure("a start takes more page faults or instructions than recorded")
    return outcome.compared > 0


def main() -> int:
    arguments = parse_arguments()
    # SIGTERM is treated like Ctrl-C: child processes are ended and files
    # removed.
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    build = arguments.build.resolve()
    if arguments.record:
        start.record(build)
        return 0
    groups = [name for name in GROUPS if name in arguments.groups]
    facts = machine.facts(arguments.build)
    with (
        tempfile.TemporaryDirectory(dir="/dev/shm", prefix="bench-") as memory,
        tempfile.TemporaryDirectory(dir=arguments.build, prefix="bench-") as disk,
    ):
        bench = Bench(
            build / "bench",
            pathlib.Path(memory),
            pathlib.Path(disk).resolve(),
            # A small input is enough for a check.
            quick=arguments.quick or arguments.check,
            only_checks=arguments.check,
        )
        run_groups(bench, groups)
        has_compared = "start" in arguments.groups and compare_start(bench, build)
    print(f"{bench.passed_checks} checks passed")
    if bench.absent:
        print("Left out because not installed:", ", ".join(sorted(bench.absent)))
    if not arguments.check:
        facts.update(quick=arguments.quick, absent=sorted(bench.absent), broken=len(bench.failures))
        facts["load_at_end"] = machine.load()
        verdicts = list(judge(bench.experiments, groups))
        print(report.verdict_table(verdicts))
        write_results(arguments.build, bench.experiments, verdicts, facts)
    if bench.failures:
        return 1
    # Nothing failed, but nothing was compared either.
    return SKIPPED if arguments.groups == ["start"] and not has_compared else 0


if __name__ == "__main__":
    sys.exit(main())
