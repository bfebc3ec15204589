"""Medians and quartiles of many runs."""

import dataclasses
import statistics
from collections.abc import Iterable, Sequence


@dataclasses.dataclass(frozen=True)
class Summary:
    """The distribution of one quantity over the runs of one program."""

    median: float
    minimum: float
    quartiles: tuple[float, float]
    runs: int

    @staticmethod
    def of(values: Sequence[float]) -> "Summary":
        if len(values) == 1:
            lower = upper = values[0]
        else:
            lower, _, upper = statistics.quantiles(values, n=4, method="inclusive")
        return Summary(statistics.median(values), min(values), (lower, upper), len(values))


# Summaries of one program, by quantity: "wall_ms", "minor_faults", ...
Summaries = dict[str, Summary]


def summarize(runs: Iterable[dict[str, float]]) -> Summaries:
    """Summarizes runs that all measured the same quantities."""
    values: dict[str, list[float]] = {}
    for run in runs:
        for quantity, value in run.items():
            values.setdefault(quantity, []).append(value)
    return {quantity: Summary.of(measured) for quantity, measured in values.items()}
