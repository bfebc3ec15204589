"""An SVG chart of each experiment."""

import pathlib
from collections.abc import Sequence

from frame import Experiment
from programs import PROGRAMS
from report import QUANTITIES, TITLES

OURS = {program.name for program in PROGRAMS if program.is_ours} | {"scan"}
FLOORS = {program.name for program in PROGRAMS if program.is_floor} | {"plain"}


def draw(experiments: Sequence[Experiment], folder: pathlib.Path) -> None:
    try:
        import matplotlib
    except ImportError:
        print("No plots, because python3-matplotlib is not installed")
        return
    matplotlib.use("svg")
    # A fixed salt makes the files reproducible.
    matplotlib.rcParams["svg.hashsalt"] = "bench"
    # Text stays text, which makes the file smaller and searchable.
    matplotlib.rcParams["svg.fonttype"] = "none"
    folder.mkdir(exist_ok=True)
    for experiment in experiments:
        draw_one(experiment, folder / f"{experiment.name.replace('/', '-')}.svg")


def draw_one(experiment: Experiment, path: pathlib.Path) -> None:
    """Draws each median as a point and the range of the quartiles as a line."""
    from matplotlib import pyplot

    shown = {
        name: summaries[experiment.quantity]
        for name, summaries in experiment.summaries.items()
        if experiment.quantity in summaries
    }
    heading, digits = QUANTITIES[experiment.quantity]
    figure, axes = pyplot.subplots(figsize=(8, 1.2 + 0.32 * len(shown)))
    for row, (name, summary) in enumerate(shown.items()):
        axes.plot(summary.quartiles, (row, row), color=color(name), linewidth=2)
        axes.plot(summary.median, row, "o", color=color(name))
        axes.annotate(
            f"{summary.median:.{digits}f}",
            (summary.median, row),
            xytext=(0, 6),
            textcoords="offset points",
            horizontalalignment="center",
            fontsize=8,
        )
    axes.set_yticks(range(len(shown)), [TITLES.get(name, name) for name in shown])
    axes.set_ylim(len(shown) - 0.5, -0.8)
    scale(axes, [summary.median for summary in shown.values()])
    axes.grid(axis="x", color="#dddddd")
    axes.set_axisbelow(True)
    axes.set_title(experiment.title)
    axes.set_xlabel(heading)
    figure.tight_layout()
    figure.savefig(path, metadata={"Date": None})
    pyplot.close(figure)


def color(name: str) -> str:
    if name in OURS:
        return "#0044aa"
    return "#999999" if name in FLOORS else "#cc5500"


def scale(axes, medians: Sequence[float]) -> None:
    """Logarithmic if the small ones could not be told apart otherwise."""
    if max(medians) > 10 * min(medians):
        axes.set_xscale("log")
    else:
        axes.set_xlim(left=0)
