"""The load program of the benchmarks: what it counts has to be exact, or nothing that it measures is worth a thing."""

import signal
import time

import pytest

import load_program

# One packet identifier in 65536 that the broker draws is 0, and that copy is not sent.
LOST_TO_IDENTIFIERS = 10

LATENCIES = ["latency_p50_us", "latency_p90_us", "latency_p99_us", "latency_p999_us", "latency_max_us"]


def check(result, copies, published, lost=0):
    """Every message once for each of its receivers, but for at most so many that were lost."""
    assert result["published"] == published
    assert result["expected"] == published * copies
    assert result["delivered"] + result["lost"] == result["expected"] and result["lost"] <= lost
    assert (result["duplicates"], result["redelivered"], result["foreign"]) == (0, 0, 0)
    latencies = [result[key] for key in LATENCIES]
    assert latencies == sorted(latencies) and latencies[0] > 0


@pytest.mark.parametrize("publishers, subscribers, topics, copies",
                         [(1, 1, 1, 1), (1, 20, 1, 20), (20, 1, 1, 1), (10, 10, 10, 1), (4, 10, 2, 5)],
                         ids=["one_to_one", "one_to_many", "many_to_one", "pairs", "two_topics"])
def test_each_subscriber_gets_each_message_of_its_topic(broker, publishers, subscribers, topics, copies):
    result = load_program.publish("--publishers", publishers, "--subscribers", subscribers, "--topics", topics,
                                  "--rate", 320)
    check(result, copies, 64)
    assert (result["offered_per_s"], result["published_per_s"]) == (320.0, 320.0)


@pytest.mark.parametrize("qos", [1, 2])
def test_acknowledged_messages_arrive_once(broker, qos):
    check(load_program.publish("--qos", qos, "--rate", 160, "--publishers", 2, "--inflight", 100), 1, 32,
          LOST_TO_IDENTIFIERS)


def test_shared_groups_get_each_message_once(broker):
    check(load_program.publish("--subscribers", 9, "--shared", 3, "--rate", 320), 3, 64)


def test_bursts_of_large_messages_carry_as_much_as_an_even_pace(broker):
    check(load_program.publish("--pace", "burst", "--burst-ms", 50, "--rate", 320, "--payload", 1900), 1, 64)


def test_other_subscriptions_and_slow_subscribers_do_not_count(broker):
    result = load_program.publish("--others", 250, "--other-filters", "mixed", "--slow", 2, "--slow-rate", 5000,
                                  "--rate", 320, "--spread-ids", "--name", 'with "others"')
    check(result, 1, 64)
    assert result["name"] == 'with "others"' and result["slow_closed"] == 0
    assert 0 < result["slow_delivered"] <= 2 * 80


def test_full_speed_stays_within_the_window_of_unacknowledged_messages(broker):
    result = load_program.publish("--qos", 1, "--inflight", 5)
    assert result["published"] > 0
    check(result, 1, result["published"], LOST_TO_IDENTIFIERS)


def test_search_ends_at_a_rate_that_loses_nothing(start_broker):
    start_broker(modern=False)
    result = load_program.run("publish", "--search", "--seconds", "0.1", "--warmup", "0.05", "--drain", "0.1",
                              "--rate", 6400)
    assert result["scenario"] == "search" and result["lost"] == 0 and result["probes"] > 1
    assert result["max_rate"] == result["rate"] > 0
    assert result["delivered"] == result["expected"] == result["published"]


def test_process_of_the_broker_is_measured(broker):
    pid = broker.process.pid
    result = load_program.publish("--rate", 320, "--pid", pid)
    assert result["broker_cpu_s"] >= 0 and result["broker_rss_kib"] > 1000
    result = load_program.run("connect", "--connections", 50, "--window", 7, "--pid", pid)
    assert (result["connected"], result["failures"]) == (50, 0) and result["connects_per_s"] > 0
    assert result["broker_rss_before_kib"] > 1000 and result["broker_rss_kib"] > 1000
    result = load_program.run("idle", "--connections", 50, "--seconds", "0.2", "--pid", pid)
    assert (result["connected"], result["closed"]) == (50, 0) and result["broker_cpu_percent"] >= 0


def load_until_published(broker, number):
    """Start a long run, do something to the broker once messages flow, and return how the run ends."""
    process = load_program.start("publish", "--rate", 500, "--seconds", "0.5", "--warmup", 0, "--drain", "0.1")
    broker.wait_events("publish")
    begin = time.monotonic()
    broker.process.send_signal(number)
    status, result, err = load_program.finish(process)
    assert status == 1 and result["error"] and result["error"] in err
    return result, time.monotonic() - begin


def test_killed_broker_ends_the_run(start_broker):
    result, _ = load_until_published(start_broker("--print-events"), signal.SIGKILL)
    assert "connection" in result["error"]


def test_hanging_broker_ends_the_run_in_time(start_broker):
    broker = start_broker("--print-events")
    result, took_s = load_until_published(broker, signal.SIGSTOP)
    assert "does not answer" in result["error"]
    assert took_s < 0.5 + 0.1 + 10


@pytest.mark.parametrize("scenario", [("connect", "--connections", 3), ("idle", "--connections", 3), ("publish",),
                                      ("publish", "--search")], ids=lambda words: "_".join(map(str, words)))
def test_missing_broker_is_an_error(scenario):
    status, result, err = load_program.finish(load_program.start(*scenario))
    assert status == 1 and "refused" in result["error"] and result["error"] in err


BAD = [
    (),
    ("nonsense",),
    ("publish", "stray"),
    ("publish", "--nonsense"),
    ("publish", "--rate"),
    ("publish", "--rate", "-1"),
    ("publish", "--rate", "1x"),
    ("publish", "--rate", ""),
    ("publish", "--seconds", "nan"),
    ("publish", "--qos", "3"),
    ("publish", "--payload", "23"),
    ("publish", "--pace", "uneven"),
    ("publish", "--pace", "smooth|burst"),
    ("publish", "--other-filters", "plu"),
    ("publish", "--prefix", "Upper"),
    ("publish", "--prefix", ""),
    ("publish", "--publishers", "40000", "--subscribers", "30000", "--topics", "60000"),
    ("publish", "--publishers", "20000", "--subscribers", "20000"),
    ("publish", "--subscribers", "11000", "--spread-ids"),
    ("publish", "--connections", "5"),
    ("connect", "--qos", "1"),
    ("idle", "--connections", "0"),
]


@pytest.mark.parametrize("arguments", BAD, ids=lambda words: " ".join(words) or "none")
def test_bad_arguments_are_refused(arguments):
    status, result, err = load_program.finish(load_program.start(*arguments))
    assert (status, result) == (2, None) and err.startswith("zeb_load: ")


def test_help_lists_every_option():
    process = load_program.start("--help")
    out, _ = process.communicate(timeout=load_program.DEADLINE_S)
    assert process.returncode == 0
    for option in ("--rate", "--search", "--connections", "--seconds", "--slow-rate", "--spread-ids", "--pid"):
        assert option in out
