"""A bar chart of each experiment, as SVG."""

import pathlib
from collections.abc import Sequence

from frame import Experiment
from report import QUANTITIES, TITLES


def draw(experiments: Sequence[Experiment], folder: pathlib.Path) -> None:
    try:
        import matplotlib
    except ImportError:
        print("No plots: python3-matplotlib is not installed")
        return
    matplotlib.use("svg")
    # The same numbers make the same file.
    matplotlib.rcParams["svg.hashsalt"] = "bench"
    folder.mkdir(exist_ok=True)
    for experiment in experiments:
        draw_one(experiment, folder / f"{experiment.name.replace('/', '-')}.svg")


def draw_one(experiment: Experiment, path: pathlib.Path) -> None:
    from matplotlib import pyplot

    names = list(experiment.summaries)
    summaries = [experiment.summaries[name][experiment.quantity] for name in names]
    medians = [summary.median for summary in summaries]
    whiskers = [
        [summary.median - summary.quartiles[0] for summary in summaries],
        [summary.quartiles[1] - summary.median for summary in summaries],
    ]
    figure, axes = pyplot.subplots(figsize=(8, 0.8 + 0.35 * len(names)))
    axes.barh([TITLES.get(name, name) for name in names], medians, xerr=whiskers, color="#4477aa")
    axes.invert_yaxis()
    # Else the short bars could not be told apart.
    if max(medians) > 20 * min(medians):
        axes.set_xscale("log")
    axes.set_title(experiment.title)
    axes.set_xlabel(QUANTITIES[experiment.quantity][0])
    figure.tight_layout()
    figure.savefig(path, metadata={"Date": None})
    pyplot.close(figure)
