"""What is measured: the scenarios, the figures taken from each, and what they have to reach."""

from dataclasses import dataclass

DEFAULT_MODE = "default"          # every option of the library off
LOW_LATENCY_MODE = "low latency"  # as the host program runs without --classic

LOWER = "lower"
HIGHER = "higher"


@dataclass(frozen=True)
class Figure:
    """One number of a run. `target` bounds ours : Mosquitto, from above where lower is better."""

    key: str
    title: str
    unit: str
    better: str = LOWER
    target: float | None = None


@dataclass(frozen=True)
class Scenario:
    """One row of the table. `search` runs many short probes instead of one long one.

    Where CPU per message is the figure there is no warm-up: a broker that falls behind would otherwise be charged
    for messages of the warm-up that it delivers, or refuses to, only later.
    """

    name: str
    title: str
    arguments: tuple = ()
    mode: str = DEFAULT_MODE
    figures: tuple = ()
    clients: int = 0
    brokers: tuple = ()  # all of them when empty
    kind: str = "publish"
    search: bool = False
    warmup_s: float = 0


@dataclass(frozen=True)
class OwnTarget:
    """A bound on a figure of ours alone, or on its ratio to the same figure of another scenario."""

    title: str
    scenario: str
    key: str
    unit: str
    limit: float | None
    compared_with: str | None = None


def cpu(target=None):
    return Figure("broker_cpu_s_per_million", "CPU per million delivered", "s", LOWER, target)


def latency(percent, target=None):
    return Figure(f"latency_p{percent}_us", f"latency p{percent}", "µs", LOWER, target)


def highest_rate(target=None):
    return Figure("max_rate", "highest rate published", "/s", HIGHER, target)


def highest_delivery(target=None):
    return Figure("max_delivered_per_s", "highest rate delivered", "/s", HIGHER, target)


def connects(target=None):
    return Figure("connects_per_s", "connections opened", "/s", HIGHER, target)


def shape(publishers, subscribers, topics, *more):
    """The arguments of a publish scenario."""
    return ("--publishers", str(publishers), "--subscribers", str(subscribers), "--topics", str(topics), *more)


SIDE_BY_SIDE = (
    Scenario("fanout-50", "1 to 50, 100000 delivered/s", shape(1, 50, 1, "--rate", "2000"), figures=(cpu(0.20),)),
    Scenario("fanout-1000", "1 to 1000, 100000 delivered/s", shape(1, 1000, 1, "--rate", "100"),
             figures=(cpu(0.9),), clients=1001),
    Scenario("pairs-50", "50 to 50 on 50 topics, 100000/s in all", shape(50, 50, 50, "--rate", "100000"),
             figures=(cpu(0.6),)),
    # Twenty unacknowledged messages would not make the rate: the default mode answers some 10 ms later.
    Scenario("fanout-50-qos1", "1 to 50 at QoS 1, 100000 delivered/s",
             shape(1, 50, 1, "--rate", "2000", "--qos", "1", "--inflight", "100"), figures=(cpu(0.5),)),
    Scenario("fanout-50-max", "1 to 50, highest rate", shape(1, 50, 1, "--rate", "1000", "--search"),
             figures=(highest_delivery(2.0),), search=True, warmup_s=1),
    Scenario("connects", "10000 connections, 1000 in progress", ("--connections", "10000", "--window", "1000"),
             figures=(connects(0.8),), clients=10000, kind="connect"),
    Scenario("ll-latency", "1 to 1 at 5000/s", shape(1, 1, 1, "--rate", "5000"), LOW_LATENCY_MODE,
             (latency("50", 1.0), latency("99", 1.0)), warmup_s=1),
    Scenario("ll-one-to-one", "1 to 1, highest rate", shape(1, 1, 1, "--rate", "10000", "--search"),
             LOW_LATENCY_MODE, (highest_rate(3.0),), search=True, warmup_s=1),
    Scenario("ll-50-to-1", "50 to 1, highest rate", shape(50, 1, 1, "--rate", "10000", "--search"),
             LOW_LATENCY_MODE, (highest_rate(2.5),), search=True, warmup_s=1),
    Scenario("ll-fanout-100", "1 to 100, highest rate", shape(1, 100, 1, "--rate", "500", "--search"),
             LOW_LATENCY_MODE, (highest_delivery(4.0),), search=True, warmup_s=1),
    Scenario("ll-fanout-50-full", "1 to 50, as fast as the publisher's socket takes it",
             shape(1, 50, 1, "--rate", "0"), LOW_LATENCY_MODE, (cpu(0.30),)),
)

INFORMATIVE = (
    Scenario("one-to-one-qos2", "1 to 1 at QoS 2, 1000/s", shape(1, 1, 1, "--rate", "1000", "--qos", "2"),
             figures=(cpu(), latency("99")), warmup_s=1),
    # aedes takes $share/ for a part of the topic, so there would be nothing to measure.
    Scenario("shared-groups", "1 to 40 in 4 shared groups, 5000/s",
             shape(1, 40, 1, "--rate", "5000", "--shared", "4"), figures=(cpu(), latency("99")),
             brokers=("zeb", "earlier", "mosquitto"), warmup_s=1),
    Scenario("fanout-50-slow", "1 to 50, 100000 delivered/s, beside 5 slow readers",
             shape(1, 50, 1, "--rate", "2000", "--slow", "5", "--slow-rate", "10000"),
             figures=(cpu(), latency("99"))),
)


def with_others(filters, count):
    """In low-latency mode: the default mode hands one subscriber no more than 10000 messages/s."""
    return Scenario(f"ll-others-{filters}-{count}", f"1 to 1 at 20000/s beside {count} other subscriptions ({filters})",
                    shape(1, 1, 1, "--rate", "20000", "--others", str(count), "--other-filters", filters),
                    LOW_LATENCY_MODE, (cpu(),), brokers=("zeb", "earlier"))


OWN = (
    *(with_others(filters, count) for filters in ("exact", "plus", "hash") for count in (10, 9000)),
    Scenario("idle-5000", "5000 silent clients", ("--connections", "5000"), clients=5000,
             brokers=("zeb", "earlier"), kind="idle"),
    Scenario("subscriber-memory", "1 to 1000 at 100/s", shape(1, 1000, 1, "--rate", "100"), clients=1001,
             brokers=("zeb", "earlier")),
    Scenario("start-11000", "started with room for 11000 clients", clients=11000, brokers=("zeb", "earlier"),
             kind="start"),
    Scenario("retained-update", "updates beside 900 retained messages", brokers=("zeb", "earlier"),
             kind="retained"),
    Scenario("in-flight", "100000 messages in flight", brokers=("zeb",), kind="micro"),
)

OWN_TARGETS = (
    *(OwnTarget(f"9000 other subscriptions ({filters}) against 10, CPU", f"ll-others-{filters}-9000",
                "broker_cpu_s_per_million", "times", 1.3, f"ll-others-{filters}-10")
      for filters in ("exact", "plus", "hash")),
    OwnTarget("5000 idle clients, share of a core", "idle-5000", "broker_cpu_percent", "%", 2),
    OwnTarget("an idle client, resident", "idle-5000", "rss_kib_per_connection", "KiB", 16),
    OwnTarget("a subscriber with 100 messages/s, resident", "subscriber-memory", "rss_kib_per_subscriber", "KiB", 40),
    OwnTarget("start with room for 11000 clients, resident", "start-11000", "rss_mib", "MiB", 30),
    OwnTarget("a retained update, written to files", "retained-update", "written_kib_per_update", "KiB", 3),
    OwnTarget("scan pass over 100000 in flight", "in-flight", "scan_pass_ms", "ms", 2),
    OwnTarget("the same with 1000 of them due", "in-flight", "scan_pass_1000_due_ms", "ms", None),
    OwnTarget("a registration beside 100000 in flight", "in-flight", "registration_us", "µs", 1),
)

ALL = SIDE_BY_SIDE + INFORMATIVE + OWN
