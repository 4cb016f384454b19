"""What a reader has to know about the figures: runs that failed, messages lost, rates not kept."""

from runs import DRAIN_S

KEPT_UP = 0.97  # of the offered rate


def share(part, whole):
    return f"{100 * part / whole:.3g} %" if whole else "all"


def lost_messages(runs):
    results = [run["result"] for run in runs if run["result"] and not run["result"].get("max_rate")]
    losing = [result for result in results if result.get("lost")]
    if not losing:
        return None
    lost, expected = (sum(result.get(key, 0) for result in results) for key in ("lost", "expected"))
    return (f"lost {lost:,} of {expected:,} messages ({share(lost, expected)}), or had not delivered them "
            f"{DRAIN_S:g} s after the end, in {len(losing)} of {len(results)} rounds")


def repeated_messages(runs):
    repeated = sum(run["result"].get("duplicates") or 0 for run in runs if run["result"])
    return f"delivered {repeated:,} messages more than once" if repeated else None


def rate_not_kept(runs):
    slow = [run["result"] for run in runs if run["result"] and run["result"].get("rate")
            and not run["result"].get("max_rate")
            and run["result"].get("published_per_s", 0) < KEPT_UP * run["result"]["rate"]]
    if not slow:
        return None
    worst = min(result.get("published_per_s", 0) for result in slow)
    return f"took only {worst:,.0f} of {slow[0]['rate']:,.0f} messages/s in the worst of {len(slow)} such rounds"


def connections_failed(runs):
    failures = sum(run["result"].get("failures") or 0 for run in runs if run["result"])
    return f"{failures:,} connections failed" if failures else None


def troubles(runs):
    """Errors and oddities, each text once with the rounds it came up in."""
    rounds = {}
    for run in runs:
        for text in (run["error"] and f"no result: {run['error']}", *run["remarks"]):
            if text:
                rounds.setdefault(text, []).append(str(run["round"]))
    return [f"round {', '.join(numbers)}: {text}" for text, numbers in rounds.items()]


def remarks(results, scenarios):
    """One line for each thing, in the order of the tables."""
    lines = []
    for scenario in scenarios:
        for name, title in results.brokers().items():
            runs = results.of(scenario.name, name)
            found = [check(runs) for check in (lost_messages, repeated_messages, rate_not_kept, connections_failed)]
            lines += [f"{scenario.name}, {title}: {text}" for text in [*filter(None, found), *troubles(runs)]]
    return lines
