"""How fast the end of a file is found in a body, beside other ways of searching,
and where a client can make it slow. All that was measured is kept in scan.jsonl
in the build folder; what is told of each kind is the worst."""

import json
import re
import subprocess

from frame import Bench, Experiment
from spawner import Failed
from summary import Summary

# Experiment names in tables for the kinds of cases in scan.cpp's output. Those
# of the group "scan" are compared with the target.
WORST = {
    "worst": "scan/worst",
    "worst-cr": "scan-with-cr/worst",
    "worst-chunks": "scan-chunks/worst",
}

WORDS = {"\r": " CR ", "\n": " LF ", "\0": " zero ", "-": " dash "}


def run(bench: Bench) -> None:
    output = run_scan(bench)
    if bench.only_checks:
        return
    (bench.built.parent / "scan.jsonl").write_text(output)
    seen = set()
    for case in map(json.loads, output.splitlines()):
        name = experiment_name(case)
        # The worst case of each kind comes first.
        if name not in seen:
            seen.add(name)
            bench.record(experiment(name, case))


def run_scan(bench: Bench) -> str:
    command = [bench.built / "scan"]
    if bench.only_checks:
        command.append("--check")
    elif bench.quick:
        command.append("--quick")
    done = subprocess.run(command, capture_output=True, text=True, check=False)
    if done.returncode != 0:
        raise Failed(done.stderr.strip())
    bench.right += 1
    return done.stdout


def experiment_name(case: dict) -> str:
    kind = case["kind"]
    if kind == "usual":
        return "scan/" + "-".join(words(case["data"]))
    return WORST.get(kind) or f"scan-slowest/{kind.split()[1]}"


def experiment(name: str, case: dict) -> Experiment:
    summaries = {
        way: {"gigabytes_per_second": Summary.of(speeds)} for way, speeds in case["gbps"].items()
    }
    title = f"{visible(case['data'])}; boundary {visible(case['boundary'])}"
    if case["chunk"] != 65536:
        title += f"; chunks of {case['chunk']}"
    return Experiment(name, title, summaries, ("plain",), "gigabytes_per_second")


def words(text: str) -> list[str]:
    """A row of equal bytes counts once, if it is long."""
    short = re.sub(r"(.)\1{4,}", r"\1", text)
    named = "".join(WORDS.get(byte, byte) for byte in short)
    return re.findall("[A-Za-z0-9]+", named)


def visible(text: str) -> str:
    """With long rows of equal bytes as in a regular expression."""
    return re.sub(
        r"(.)\1{4,}", lambda row: f"{row[1]}{{{len(row[0])}}}", text
    ).encode("unicode_escape").decode()
