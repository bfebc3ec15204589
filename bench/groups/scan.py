"""The speed of the search for the end of a file in a body, beside other search
functions, also on data with which a client could slow it down. The tables show
the worst case of each kind; scan.jsonl in the build folder contains all cases."""

import json
import re
import subprocess

from frame import Bench, Experiment
from spawner import Failed
from summary import Summary

# Names of experiments by the kind that scan.cpp prints. The target applies to
# "scan/..." only.
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
    bench.passed_checks += 1
    return done.stdout


def experiment_name(case: dict) -> str:
    kind = case["kind"]
    if kind == "usual":
        return "scan/" + "-".join(words(case["data"]))
    return WORST.get(kind) or f"scan-slowest/{kind.split()[1]}"


def experiment(name: str, case: dict) -> Experiment:
    summaries = {
        function: {"gigabytes_per_second": Summary.of(speeds)}
        for function, speeds in case["gbps"].items()
    }
    title = f"{visible(case['data'])}; boundary {visible(case['boundary'])}"
    if case["chunk"] != 65536:
        title += f"; chunks of {case['chunk']}"
    return Experiment(name, title, summaries, ("plain",), "gigabytes_per_second")


def words(text: str) -> list[str]:
    """Words for the name of an experiment. A long run of a byte counts once."""
    short = re.sub(r"(.)\1{4,}", r"\1", text)
    named = "".join(WORDS.get(byte, byte) for byte in short)
    return re.findall("[A-Za-z0-9]+", named)


def visible(text: str) -> str:
    """Printable text, with a long run of a byte as in a regular expression."""
    shortened = re.sub(r"(.)\1{4,}", lambda run: f"{run[1]}{{{len(run[0])}}}", text)
    return shortened.encode("unicode_escape").decode()
