"""The figures of the report, as SVG. Bars are medians, the lines on them reach from the lowest to the highest."""

import matplotlib
from matplotlib.figure import Figure

from scenarios import INFORMATIVE, SIDE_BY_SIDE

# Text stays text, and the same results give the same file.
matplotlib.rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "zeb", "font.size": 9})

COLOURS = {"zeb": "#1b6ca8", "earlier": "#8fb8d8", "mosquitto": "#d9822b", "aedes": "#7a7a7a"}
PERCENTS = (("latency_p50_us", "p50"), ("latency_p90_us", "p90"), ("latency_p99_us", "p99"),
            ("latency_p999_us", "p99.9"))
LATENCY_SCENARIO = "ll-latency"


def grouped_bars(results, groups, label, scale, path):
    """One group of bars for each (title, scenario, key), one bar in it for each broker."""
    brokers = results.brokers()
    figure = Figure(figsize=(max(6.0, 1.3 * len(groups)), 4.0), layout="constrained")
    axes = figure.subplots()
    width = 0.8 / max(1, len(brokers))
    for place, (name, title) in enumerate(brokers.items()):
        spreads = [(i, results.spread(scenario, name, key)) for i, (_, scenario, key) in enumerate(groups)]
        spreads = [(i, spread) for i, spread in spreads if spread is not None]
        if not spreads:
            continue
        medians = [spread.median for _, spread in spreads]
        errors = [[spread.median - spread.low for _, spread in spreads],
                  [spread.high - spread.median for _, spread in spreads]]
        axes.bar([i + (place - (len(brokers) - 1) / 2) * width for i, _ in spreads], medians, width, yerr=errors,
                 capsize=2, label=title, color=COLOURS.get(name))
    axes.set_xticks(range(len(groups)), [title for title, _, _ in groups], rotation=20, ha="right")
    axes.set_yscale(scale)
    axes.set_ylabel(label)
    axes.grid(axis="y", alpha=0.3)
    axes.legend()
    figure.savefig(path, metadata={"Date": None})


def groups_with(results, keys):
    """The scenarios that give one of these figures, of those that were run."""
    return [(scenario.name, scenario.name, figure.key) for scenario in SIDE_BY_SIDE + INFORMATIVE
            for figure in scenario.figures if figure.key in keys
            and any(results.spread(scenario.name, name, figure.key) for name in results.brokers())]


def draw(results, folder):
    """Draw what there are results for. Returns (file name, title) of each figure."""
    wanted = (
        ("cpu.svg", "CPU seconds per million messages delivered", "seconds, less is better", "linear",
         groups_with(results, ("broker_cpu_s_per_million",))),
        ("rate.svg", "Highest rates without a lost message", "messages per second, more is better", "log",
         groups_with(results, ("max_rate", "max_delivered_per_s"))),
        ("latency.svg", "Latency, 1 to 1 at 5000 messages per second", "µs, less is better", "log",
         [(title, LATENCY_SCENARIO, key) for key, title in PERCENTS] if results.of(LATENCY_SCENARIO) else []),
    )
    folder.mkdir(exist_ok=True)
    drawn = []
    for name, title, label, scale, groups in wanted:
        (folder / name).unlink(missing_ok=True)
        if groups:
            grouped_bars(results, groups, label, scale, folder / name)
            drawn.append((name, title))
    return drawn
