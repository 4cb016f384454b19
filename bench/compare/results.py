"""The results of all runs: medians over the rounds, ratios, and whether targets are met."""

import json
import statistics
from dataclasses import dataclass

from scenarios import LOWER


@dataclass(frozen=True)
class Spread:
    median: float
    low: float
    high: float
    rounds: int


class Results:
    """What a results file holds. A run that failed has no figures and is left out of the medians."""

    def __init__(self, records):
        pieces = [record for record in records if record["kind"] == "machine"]
        self.machine = pieces[0] if pieces else {}
        self.commits = list(dict.fromkeys(piece["facts"]["commit"] for piece in pieces if "facts" in piece))
        self.runs = [record for record in records if record["kind"] == "run"]

    @staticmethod
    def read(path):
        """A last line that was cut off by an interruption is left out."""
        records = []
        for line in path.read_text(encoding="utf-8").splitlines():
            try:
                records.append(json.loads(line))
            except ValueError:
                continue
        return Results(records)

    def brokers(self):
        return self.machine.get("brokers", {})

    def of(self, scenario, broker=None):
        return [run for run in self.runs
                if run["scenario"] == scenario and (broker is None or run["broker"] == broker)]

    def spread(self, scenario, broker, key):
        """None when no run has the figure."""
        values = [run["result"].get(key) for run in self.of(scenario, broker) if run["result"]]
        values = [value for value in values if isinstance(value, (int, float))]
        if not values:
            return None
        return Spread(statistics.median(values), min(values), max(values), len(values))

    def ratio(self, key, first, second):
        """Median by median of two (scenario, broker) pairs; None when either is missing or nothing to divide by."""
        above, below = self.spread(*first, key), self.spread(*second, key)
        if above is None or below is None or below.median <= 0:
            return None
        return above.median / below.median


def met(value, limit, better=LOWER):
    """None when there is nothing to judge."""
    if value is None or limit is None:
        return None
    return value <= limit if better == LOWER else value >= limit


def own_value(results, target, broker):
    """(the value to judge, its lowest, its highest) of a target that needs no other broker."""
    spread = results.spread(target.scenario, broker, target.key)
    if target.compared_with is None:
        return (spread.median, spread.low, spread.high) if spread else None
    ratio = results.ratio(target.key, (target.scenario, broker), (target.compared_with, broker))
    return (ratio, None, None) if ratio is not None else None
