"""The results of a run as Markdown tables and as JSON."""

import dataclasses
import json
from collections.abc import Iterable, Iterator, Mapping, Sequence

from frame import Experiment
from programs import PROGRAMS
from summary import Summaries
from targets import Verdict

# Heading and digits after the decimal point, in the order of the columns.
QUANTITIES = {
    "wall_ms": ("time, ms", 3),
    "requests_per_second": ("requests/s", 0),
    "gigabytes_per_second": ("GB/s", 2),
    "cpu_ms": ("processor time, ms", 3),
    "minor_faults": ("page faults", 0),
    "peak_kb": ("peak memory, KB", 0),
}

TITLES = {program.name: program.title for program in PROGRAMS}

VERDICTS = {True: "met", False: "MISSED", None: "not measured"}


def table(heading: Sequence[str], rows: Iterable[Sequence[str]], texts: int = 1) -> str:
    """A Markdown table. The first `texts` columns contain text, the others
    numbers, which are aligned right."""
    lines = [list(heading), *map(list, rows)]
    widths = [max(len(line[i]) for line in lines) for i in range(len(heading))]
    rule = [
        "-" * width if i < texts else "-" * (width - 1) + ":" for i, width in enumerate(widths)
    ]
    lines.insert(1, rule)
    return "".join(f"| {' | '.join(cells(line, widths, texts))} |\n" for line in lines)


def cells(line: Sequence[str], widths: Sequence[int], texts: int) -> Iterator[str]:
    for i, (cell, width) in enumerate(zip(line, widths)):
        yield cell.ljust(width) if i < texts else cell.rjust(width)


def experiment_table(experiment: Experiment) -> str:
    summaries = experiment.summaries
    quantities = [
        quantity for quantity in QUANTITIES if any(quantity in of for of in summaries.values())
    ]
    references = [name for name in experiment.references if name in summaries]
    heading = [
        experiment.title,
        *(QUANTITIES[quantity][0] for quantity in quantities),
        *(f"/ {TITLES.get(name, name)}" for name in references),
    ]
    rows = [
        [
            TITLES.get(name, name),
            *(number(of, quantity) for quantity in quantities),
            *(ratio(of, summaries[reference], experiment.quantity) for reference in references),
        ]
        for name, of in summaries.items()
    ]
    return table(heading, rows)


def number(summaries: Summaries, quantity: str) -> str:
    if quantity not in summaries:
        return "-"
    return f"{summaries[quantity].median:.{QUANTITIES[quantity][1]}f}"


def ratio(summaries: Summaries, reference: Summaries, quantity: str) -> str:
    return f"{summaries[quantity].median / reference[quantity].median:.3f}"


def verdict_table(verdicts: Iterable[Verdict]) -> str:
    rows = [
        [
            verdict.target.title,
            verdict.text(),
            f"{'>=' if verdict.target.at_least else '<='} {verdict.target.limit:g}",
            "-" if verdict.value is None else f"{verdict.value:.4g}",
            VERDICTS[verdict.is_met],
        ]
        for verdict in verdicts
    ]
    return table(["Target", "Quantity", "Limit", "Value", "Result"], rows, texts=2)


def facts_text(facts: Mapping[str, object]) -> str:
    packages = ", ".join(f"{name} {version}" for name, version in facts["packages"].items())
    lines = [
        f"{facts['processors']} x {facts['processor']}, Linux {facts['kernel']}, "
        f"{facts['compiler']}.",
        f"{packages}.",
        f"Load average {facts['load_at_begin']} at the beginning, "
        f"{facts['load_at_end']} at the end.",
    ]
    if facts["quick"]:
        lines.append("A quick run: few rounds, small inputs.")
    if facts["absent"]:
        lines.append(f"Not installed: {', '.join(facts['absent'])}.")
    return "\n".join(lines) + "\n"


def as_json(
    experiments: Sequence[Experiment],
    verdicts: Sequence[Verdict],
    facts: Mapping[str, object],
) -> str:
    results = {
        **facts,
        "experiments": [dataclasses.asdict(experiment) for experiment in experiments],
        "targets": [dict(verdict_facts(verdict)) for verdict in verdicts],
    }
    return json.dumps(results, indent=1) + "\n"


def verdict_facts(verdict: Verdict) -> Iterator[tuple[str, object]]:
    yield "target", verdict.target.title
    yield "what", verdict.text()
    yield "limit", verdict.target.limit
    yield "at_least", verdict.target.at_least
    yield "value", verdict.value
    yield "met", verdict.is_met
