#!/usr/bin/python3
"""Compare brokers: run every scenario against each of them in turn, several rounds, and report."""

import argparse
import json
import re
import signal
import sys
from pathlib import Path
from types import SimpleNamespace

import brokers
import machine
import report
from processes import raise_descriptor_limit
from runs import run_once
from scenarios import ALL

TOP = Path(__file__).resolve().parent.parent.parent


def arguments():
    parser = argparse.ArgumentParser(prog="bench/compare.sh", description=__doc__)
    parser.add_argument("--rounds", type=int, default=5, help="runs of each scenario and broker (5)")
    parser.add_argument("--seconds", type=float, default=5, help="measured time of a run (5)")
    parser.add_argument("--only", default="", metavar="REGEX", help="only scenarios whose names match")
    parser.add_argument("--brokers", default="", metavar="LIST", help="of zeb, earlier, mosquitto and aedes, by commas")
    parser.add_argument("--baseline", default="", metavar="PATH",
                        help="another zeb_mqtt_host, measured beside this one as broker \"earlier\"")
    parser.add_argument("--append", action="store_true", help="add to the results at hand")
    parser.add_argument("--report-only", action="store_true", help="write the report anew from the results at hand")
    options = parser.parse_args()
    if options.rounds < 1 or options.seconds < 0.5:
        parser.error("at least one round of half a second")
    try:
        re.compile(options.only)
    except re.error as mistake:
        parser.error(f"--only: {mistake}")
    if options.baseline and not Path(options.baseline).is_file():
        parser.error(f"--baseline: no such program: {options.baseline}")
    return options


def settings_of(options):
    build = TOP / "build" / "bench"
    return SimpleNamespace(host=build / "examples" / "zeb_mqtt_host", load=build / "bench" / "load" / "zeb_load",
                           micro=build / "bench" / "zeb_bench_qos", aedes=TOP / "build" / "deps" / "aedes",
                           baseline=Path(options.baseline).resolve() if options.baseline else None,
                           rounds=options.rounds, seconds=options.seconds)


def chosen_brokers(options, settings):
    found = brokers.available(settings)
    wanted = [name for name in options.brokers.split(",") if name] or [broker.name for broker in found]
    missing = set(wanted) - {broker.name for broker in found}
    if missing:
        sys.exit(f"bench/compare.sh: not to be had here: {', '.join(sorted(missing))}")
    return [broker for broker in found if broker.name in wanted]


def plan(options, found):
    """Every run in order: the brokers take turns within a round, so that a drift of the machine meets them all."""
    for scenario in ALL:
        if re.search(options.only, scenario.name):
            for number in range(1, options.rounds + 1):
                for broker in found:
                    if not scenario.brokers or broker.name in scenario.brokers:
                        yield scenario, number, broker


def run_all(options, settings, found, stream):
    """Each record is on disk before the next run starts, so that an interrupted comparison still has a report.

    Returns how many runs had a result.
    """
    measured = 0
    work = list(plan(options, found))
    if not work:
        sys.exit("bench/compare.sh: nothing to do")
    for done, (scenario, number, broker) in enumerate(work, 1):
        print(f"[{done}/{len(work)}] {scenario.name}, round {number}, {broker.name}", file=sys.stderr, flush=True)
        record = run_once(scenario, broker, number, settings)
        for trouble in filter(None, [record["error"], *record["remarks"]]):
            print(f"    {trouble}", file=sys.stderr, flush=True)
        stream.write(json.dumps(record) + "\n")
        stream.flush()
        measured += record["result"] is not None
    return measured


def ended_by_signal(number, _frame):
    sys.exit(128 + number)


def main():
    options = arguments()
    results = TOP / "build" / "compare" / "results.jsonl"
    measured = None
    if not options.report_only:
        signal.signal(signal.SIGTERM, ended_by_signal)
        settings = settings_of(options)
        found = chosen_brokers(options, settings)
        raise_descriptor_limit()
        results.parent.mkdir(parents=True, exist_ok=True)
        append = options.append and results.exists()
        with results.open("a" if append else "w", encoding="utf-8") as stream:
            stream.write(json.dumps(machine.describe(TOP, settings, found)) + "\n")
            measured = run_all(options, settings, found, stream)
    elif not results.exists():
        sys.exit("bench/compare.sh: no results yet")
    report.write(results, TOP / "bench")
    if measured == 0:
        sys.exit("bench/compare.sh: no run had a result")


if __name__ == "__main__":
    try:
        main()
    except KeyboardInterrupt:
        print("interrupted; --report-only reports what is there", file=sys.stderr)
        sys.exit(130)
