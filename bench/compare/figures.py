"""The figures of the report, as SVG. Bars are medians, the lines on them reach from the lowest to the highest."""

import matplotlib
from matplotlib.figure import Figure

from scenarios import INFORMATIVE, SIDE_BY_SIDE

# Text stays text, and the same results give the same file.
matplotlib.rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "zeb", "font.size": 9})

COLOURS = {"zeb": "#1b6ca8", "earlier": "#8fb8d8", "mosquitto": "#d9822b", "aedes": "#7a7a7a"}
PERCENTS = (("latency_p50_us", "p50"), ("latency_p90_us", "p90"), ("latency_p99_us", "p99"),
            ("latency_p999_us", "p99.9"))
CPU = "broker_cpu_s_per_million"
LATENCY_SCENARIO = "ll-latency"


def grouped_bars(results, groups, label, path):
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
    axes.set_xticks(range(len(groups)), [title for title, _, _ in groups], rotation=15)
    axes.set_yscale("log")  # the brokers are orders of magnitude apart
    axes.set_ylabel(label)
    axes.grid(axis="y", alpha=0.3)
    axes.legend(loc="lower center", bbox_to_anchor=(0.5, 1.0), ncols=len(brokers), frameon=False)
    figure.savefig(path, metadata={"Date": None})


def groups_of(results, key, scenarios):
    """The scenarios that have this figure."""
    return [(scenario.name, scenario.name, key) for scenario in scenarios
            if any(results.spread(scenario.name, name, key) for name in results.brokers())]


def draw(results, folder):
    """Draw what there are results for. Returns (file name, title) of each figure."""
    shared = SIDE_BY_SIDE + INFORMATIVE
    costly = [scenario for scenario in shared if any(figure.key == CPU for figure in scenario.figures)]
    searches = [scenario for scenario in shared if scenario.search]
    wanted = (
        ("cpu.svg", "CPU seconds per million messages delivered", "seconds, less is better",
         groups_of(results, CPU, costly)),
        ("rate.svg", "Highest rates delivered without a lost message", "messages per second, more is better",
         groups_of(results, "max_delivered_per_s", searches)),
        ("latency.svg", "Latency, 1 to 1 at 5000 messages per second", "µs, less is better",
         [(title, LATENCY_SCENARIO, key) for key, title in PERCENTS] if results.of(LATENCY_SCENARIO) else []),
    )
    folder.mkdir(exist_ok=True)
    drawn = []
    for name, title, label, groups in wanted:
        (folder / name).unlink(missing_ok=True)
        if groups:
            grouped_bars(results, groups, label, folder / name)
            drawn.append((name, title))
    return drawn
