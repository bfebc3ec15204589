"""The targets: limits for medians, most of them relative to another median of
the same run."""

import dataclasses
import fnmatch
from collections.abc import Collection, Iterator, Sequence

from frame import Experiment


@dataclasses.dataclass(frozen=True)
class Target:
    """A limit for the median of a quantity of a program. `against` divides it by
    the median of that program in the same experiment. `over` divides it by the
    median of the same program in that experiment; `since` subtracts that."""

    title: str
    experiments: str  # a pattern: "upload/*"
    program: str
    limit: float
    quantity: str = "wall_ms"
    against: str | None = None
    since: str | None = None
    over: str | None = None
    at_least: bool = False


TARGETS = (
    Target("Start-up, shared", "startup/get", "get_shared", 0.92, against="cgicc_get"),
    Target("Start-up, shared", "startup/get", "get_shared", 1.12, against="empty_cpp"),
    Target("Start-up, shared", "startup/get", "get_shared", 122, "minor_faults"),
    Target("Start-up, archives", "startup/get", "get_archive", 0.52, against="cgicc_get"),
    Target("Start-up, archives", "startup/get", "get_archive", 1.15, against="empty_c"),
    Target("Start-up, archives", "startup/get", "get_archive", 68, "minor_faults"),
    *(
        Target("Start-up, standalone", "startup/get", "get_standalone", limit, against=other)
        for other, limit in (("cgicc_get", 0.33), ("empty_c_static", 1.20))
    ),
    # Without PIE the target would be 36.
    Target("Start-up, standalone", "startup/get", "get_standalone", 40, "minor_faults"),
    *(
        Target(
            "Requests through lighttpd",
            "requests/get",
            program,
            limit,
            "requests_per_second",
            against="cgicc_get",
            at_least=True,
        )
        for program, limit in (
            ("get_shared", 1.05),
            ("get_archive", 1.75),
            ("get_standalone", 1.80),
        )
    ),
    *(
        Target("Upload", "upload/*", "upload_shared", limit, against=other)
        for other, limit in (("copy", 1.05), ("php_upload", 0.55), ("cgicc_upload", 0.14))
    ),
    *(
        Target("Upload, exact", "upload/pipe-memory", "exact_upload_shared", limit, against=other)
        for other, limit in (("copy", 1.05), ("upload_shared", 1.02))
    ),
    Target(
        "Separator scan",
        "scan/*",
        "scan",
        1.0,
        "gigabytes_per_second",
        against="plain",
        at_least=True,
    ),
    Target("Memory", "memory/large", "upload_shared", 3600, "peak_kb"),
    Target("Memory", "memory/large", "upload_shared", 100, "peak_kb", since="memory/small"),
    Target("Memory, exact", "memory/large", "exact_upload_shared", 3600, "peak_kb"),
    *(
        Target("Forms", f"forms/{form}", "form_shared", limit, against="cgicc_form")
        for form, limit in (
            ("multipart-10000", 0.85),
            ("multipart-100000", 0.85),
            ("urlencoded-10000", 0.90),
            ("urlencoded-100000", 0.90),
            ("multipart-large", 0.33),
            ("urlencoded-large", 0.35),
        )
    ),
    Target("Forms", "forms/urlencoded-large", "form_shared", 1.0, against="rude_form"),
    *(
        Target("Forms", f"forms/{kind}-100000", "form_shared", 11, over=f"forms/{kind}-10000")
        for kind in ("multipart", "urlencoded")
    ),
    *(
        Target(
            "Forms, exact",
            f"forms/{kind}-{form}",
            "exact_form_shared",
            limit,
            against="cgicc_form",
        )
        for kind in ("multipart", "urlencoded")
        for form, limit in (("10000", 0.70), ("100000", 0.70), ("large", 0.30))
    ),
    Target("Back-end exchange", "exchange/*", "query_shared", 1.10, against="exchange"),
)


@dataclasses.dataclass(frozen=True)
class Verdict:
    """The value of a target in one experiment; None if it was not measured."""

    target: Target
    experiment: str
    value: float | None

    @property
    def is_met(self) -> bool | None:
        if self.value is None:
            return None
        if self.target.at_least:
            return self.value >= self.target.limit
        return self.value <= self.target.limit

    def text(self) -> str:
        target = self.target
        text = f"{self.experiment}: {target.program}"
        if target.since:
            text += f" - {target.since}"
        elif target.against or target.over:
            text += f" / {target.against or target.over}"
        return f"{text}, {target.quantity}"


class Medians:
    """The medians of a whole run."""

    def __init__(self, experiments: Sequence[Experiment]) -> None:
        self.experiments = {experiment.name: experiment for experiment in experiments}

    def of(self, experiment: str, program: str, quantity: str) -> float | None:
        if experiment not in self.experiments:
            return None
        summary = self.experiments[experiment].summaries.get(program, {}).get(quantity)
        return None if summary is None else summary.median

    def value(self, target: Target, experiment: str) -> float | None:
        value = self.of(experiment, target.program, target.quantity)
        other_program = target.against or target.program
        other_experiment = target.since or target.over or experiment
        other = self.of(other_experiment, other_program, target.quantity)
        if value is None or other is None:
            return None
        if target.since:
            return value - other
        if target.against or target.over:
            return value / other
        return value


def judge(experiments: Sequence[Experiment], groups: Collection[str]) -> Iterator[Verdict]:
    """Yields a verdict on each target of these groups for each experiment that
    matches it."""
    medians = Medians(experiments)
    for target in TARGETS:
        if target.experiments.partition("/")[0] not in groups:
            continue
        matching = fnmatch.filter(medians.experiments, target.experiments)
        for name in matching or [target.experiments]:
            yield Verdict(target, name, medians.value(target, name))
