#!/usr/bin/python3
"""Measures how fast the library is, beside peers, as ratios within one run.

    run.py --build FOLDER [--quick] [--check] [GROUP...]

Writes tables, JSON and plots into the folder that the programs were built in.
How a group of measurements is written: frame.py. What is to be reached:
targets.py.
"""

import argparse
import importlib
import pathlib
import sys
import tempfile

import machine
import plots
import report
from frame import Bench, Experiment
from spawner import Failed
from targets import judge

GROUPS = ("startup", "requests", "upload", "scan", "memory", "forms", "exchange")


def parse_arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", type=pathlib.Path, required=True)
    parser.add_argument("--quick", action="store_true", help="few runs, small inputs")
    parser.add_argument("--check", action="store_true", help="check answers, time nothing")
    parser.add_argument("groups", nargs="*", metavar="GROUP", help=", ".join(GROUPS))
    arguments = parser.parse_args()
    unknown = set(arguments.groups) - set(GROUPS)
    if unknown:
        parser.error(f"unknown groups: {', '.join(sorted(unknown))}")
    return arguments


def run_groups(bench: Bench, names: list[str]) -> None:
    for name in names:
        before = len(bench.experiments)
        try:
            importlib.import_module(f"groups.{name}").run(bench)
        except Failed as failure:
            bench.report_broken(f"{name}: {failure}")
        for experiment in bench.experiments[before:]:
            print(report.experiment_table(experiment), flush=True)


def write_results(
    folder: pathlib.Path, experiments: list[Experiment], facts: dict[str, object]
) -> None:
    verdicts = list(judge(experiments))
    targets = report.verdict_table(verdicts)
    print(targets)
    tables = [report.experiment_table(experiment) for experiment in experiments]
    (folder / "results.md").write_text("\n".join([*tables, targets]))
    (folder / "results.json").write_text(report.as_json(experiments, verdicts, facts))
    plots.draw(experiments, folder / "plots")


def main() -> int:
    arguments = parse_arguments()
    facts = machine.facts(arguments.build)
    with (
        tempfile.TemporaryDirectory(dir="/dev/shm", prefix="bench-") as memory,
        tempfile.TemporaryDirectory(dir=arguments.build, prefix="bench-") as disk,
    ):
        bench = Bench(
            arguments.build.resolve() / "bench",
            pathlib.Path(memory),
            pathlib.Path(disk).resolve(),
            arguments.quick,
            arguments.check,
        )
        run_groups(bench, arguments.groups or list(GROUPS))
    if bench.absent:
        print("Left out, because they are not built:", ", ".join(bench.absent))
    if not arguments.check:
        facts.update(quick=arguments.quick, absent=bench.absent, broken=bench.broken)
        facts["load_at_end"] = machine.load()
        write_results(arguments.build, bench.experiments, facts)
    return 1 if bench.broken else 0


if __name__ == "__main__":
    sys.exit(main())
