"""The report: RESULTS.md with its figures, and the same tables on the console."""

import figures
from remarks import remarks
from results import Results, met, own_value
from scenarios import ALL, INFORMATIVE, LOWER, OWN, OWN_TARGETS, SIDE_BY_SIDE
from tables import NOTHING, bound, number, ratio, table, verdict, with_range

OURS, EARLIER, REFERENCE = "zeb", "earlier", "mosquitto"

METHOD = """\
Each run starts a fresh broker in an empty directory and, as root, in a network of its own on the loopback
interface, waits until it answers a CONNECT, and lets `zeb_load` measure it on the same cores. The brokers take
turns within each round. A figure is the median over the rounds, with the lowest and the highest in parentheses.
Messages have 64 bytes of payload and QoS 0 unless the scenario says otherwise. Latency counts from when a message
was due, not from when it was sent. CPU is user and system time of all threads of the broker, resident size is
VmRSS; both come from /proc. Runs for CPU figures have no warm-up, so that the CPU of a broker that falls behind is
set against all that it was given and delivered; those for latency and rates have a second of it. Connections
beyond a broker's listen backlog wait for a repeated SYN. A search ends at the highest rate, to within 5 %, at
which no message is lost.

zeb runs in its default mode with every option off (`--classic`), or where the name of a scenario begins with `ll-`
in its low-latency mode. In the default mode it finds a client through a table of 11000 places, so there the client
identifiers are chosen not to share one (`--spread-ids`), for every broker alike. Mosquitto has only a listener,
`allow_anonymous true`, `log_type none` and `persistence false` configured; all else is as it comes, such as
`max_queued_messages`, `max_inflight_messages` and `set_tcp_nodelay`. aedes is a bare server over TCP that keeps
its state in memory."""


def side_by_side(results, scenarios):
    titles = results.brokers()
    others = [name for name in titles if name != OURS]
    header = ["Scenario", "Figure", *titles.values(), *(f"zeb : {titles[name]}" for name in others), "target", "met"]
    rows = []
    for scenario in scenarios:
        if not results.of(scenario.name):
            continue
        for figure in scenario.figures:
            cells = [with_range(results.spread(scenario.name, name, figure.key), figure.unit) for name in titles]
            ratios = {name: results.ratio(figure.key, (scenario.name, OURS), (scenario.name, name))
                      for name in others}
            rows.append([f"{scenario.name}: {scenario.title}", figure.title, *cells,
                         *(ratio(ratios[name]) for name in others), bound(figure.target, figure.better == LOWER),
                         verdict(met(ratios.get(REFERENCE), figure.target, figure.better))])
    return table(header, rows) if rows else ""


def on_its_own(results):
    names = [name for name in (OURS, EARLIER) if name in results.brokers()]
    header = ["Figure", *(results.brokers()[name] for name in names), "target", "met"]
    rows = []
    for target in OWN_TARGETS:
        if not results.of(target.scenario):
            continue
        values = [own_value(results, target, name) for name in names]
        cells = [NOTHING if value is None else range_of(value, target.unit) for value in values]
        judged = values[names.index(OURS)] if OURS in names else None
        rows.append([target.title, *cells, bound(target.limit, True),
                     verdict(met(judged and judged[0], target.limit))])
    return table(header, rows) if rows else ""


def range_of(value, unit):
    text = f"{number(value[0])} {unit}"
    return text if value[1] is None or value[1] == value[2] else f"{text} ({number(value[1])}..{number(value[2])})"


NOTHING_TO_REMARK = "Every run ended in order, and no message was lost."
DETAILS = (("delivered_per_s", "delivered", "/s"), ("latency_p50_us", "p50", "µs"), ("latency_p90_us", "p90", "µs"),
           ("latency_p99_us", "p99", "µs"), ("latency_p999_us", "p99.9", "µs"),
           ("broker_cpu_s_per_million", "CPU per million", "s"), ("broker_rss_kib", "resident", "KiB"))


def details(results, scenarios):
    """Everything else of interest that the runs gave."""
    rows = []
    for scenario in scenarios:
        for name, title in results.brokers().items():
            spreads = [results.spread(scenario.name, name, key) for key, _, _ in DETAILS]
            if any(spreads):
                rows.append([scenario.name, title, *(NOTHING if spread is None else f"{number(spread.median)} {unit}"
                                                     for spread, (_, _, unit) in zip(spreads, DETAILS))])
    return table(["Scenario", "Broker", *(title for _, title, _ in DETAILS)], rows) if rows else ""


def commands(results, scenarios):
    """What was started, from the first run that got so far."""
    lines = []
    for scenario in scenarios:
        seen = [run for run in results.of(scenario.name) if run.get("command") or run.get("broker_command")]
        started = {run["broker"]: run["broker_command"] for run in seen if run.get("broker_command")}
        measured = next((run["command"] for run in seen if run.get("command")), None)
        if started or measured:
            lines += [f"# {scenario.name}", *started.values(), *([measured] if measured else []), ""]
    return "```\n" + "\n".join(lines).strip() + "\n```" if lines else ""


def machine_table(results):
    facts = dict(results.machine.get("facts", {}))
    if len(results.commits) > 1:  # measured in pieces
        facts["commit"] = ", later pieces ".join(results.commits)
    facts["rounds"] = str(results.machine.get("rounds", NOTHING))
    facts["seconds per run"] = f"{results.machine.get('seconds', 0):g}"
    return table(["", ""], [[name, value] for name, value in facts.items()])


def write(path, folder):
    """Read the results file, print the tables, and write RESULTS.md and figures/ into the folder."""
    results = Results.read(path)
    targets, more, own = side_by_side(results, SIDE_BY_SIDE), side_by_side(results, INFORMATIVE), on_its_own(results)
    noted = "\n".join(f"- {line}" for line in remarks(results, ALL)) or NOTHING_TO_REMARK
    drawn = "\n\n".join(f"![{title}](figures/{name})" for name, title in figures.draw(results, folder / "figures"))
    sections = [
        ("# Results", "Written by `bench/compare.sh`; the figures are of one machine at one time."),
        ("## Machine and versions", machine_table(results)),
        ("## Method", METHOD),
        ("## Side by side", targets and "The targets are ratios zeb : Mosquitto.\n\n" + targets),
        ("## Side by side, without a target", more),
        ("## On its own", own),
        ("## Figures", drawn),
        ("## Remarks", noted),
        ("## Details", details(results, SIDE_BY_SIDE + INFORMATIVE + OWN)),
        ("## Commands", commands(results, ALL)),
    ]
    text = "\n\n".join(f"{title}\n\n{body}" for title, body in sections if body)
    (folder / "RESULTS.md").write_text(text + "\n", encoding="utf-8")
    print("\n\n".join(filter(None, [targets, more, own, noted])))
