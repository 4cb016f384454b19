"""The host program from start to end: options, ready line, events, silent clients and signals."""

import json
import os
import signal
import subprocess
import threading
import time

import pytest

from broker_process import host_program
from mqtt_wire import (CONNACK, DEADLINE_S, DISCONNECT, Conn, Datagrams, ack, connect, filler, publish, suback,
                       subscribe, unsubscribe)

REPOSITORY = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


def run_host(directory, *arguments):
    return subprocess.run([host_program(), *arguments], cwd=str(directory), stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=DEADLINE_S, text=True)


def test_help_is_printed_and_run_sh_repeats_its_options(tmp_path):
    result = run_host(tmp_path, "--help")
    assert result.returncode == 0 and result.stderr == ""
    options = [line for line in result.stdout.splitlines() if line.startswith("  --")]
    assert len(options) == 11, result.stdout
    script = subprocess.run([os.path.join(REPOSITORY, "run.sh"), "--help"], stdout=subprocess.PIPE, text=True,
                            check=True)
    assert script.stdout.splitlines()[-11:] == options


@pytest.mark.parametrize("readme", ["README.md", "README.zh-CN.md"])
def test_readme_quotes_the_example_that_is_built(readme):
    with open(os.path.join(REPOSITORY, "examples", "minimal.c")) as stream:
        example = stream.read()
    with open(os.path.join(REPOSITORY, readme), encoding="utf-8") as stream:
        assert "```c\n%s```" % example in stream.read()


@pytest.mark.parametrize("arguments", [
    ["--port", "0"], ["--port", "65536"], ["--port", ""], ["--port", "18x"], ["--max-clients", "0"],
    ["--max-clients", "11001"], ["--keepalive-timeout", "0"], ["--keepalive-timeout", "3601"],
    ["--max-packet-size", "255"], ["--max-packet-size", "10485761"], ["--log-level", "5"], ["--log-level", "loud"],
    ["--data-dir", ""], ["--data-dir", "d" * 256], ["--max-clients", "99999999999999999999"], ["--nonsense"],
    ["--port"], ["surplus"],
])
def test_invalid_options_end_with_the_usage_and_status_2(tmp_path, arguments):
    result = run_host(tmp_path, *arguments)
    assert result.returncode == 2 and result.stdout == ""
    assert "usage: zeb_mqtt_host [options]" in result.stderr
    assert os.listdir(str(tmp_path)) == []


def test_every_option_is_accepted(start_broker, tmp_path):
    broker = start_broker("--keepalive-timeout", "3600", "--max-packet-size", "10485760", "--log-level", "fatal",
                          "--port", "65535", "--max-clients", "11000", "--data-dir", str(tmp_path / "data"),
                          "--deny-user", "u", "--deny-topic", "t", "--classic", "--print-events")
    broker.stop()


def test_port_is_recorded_and_1883_is_served(start_broker):
    def started():
        broker = start_broker("--port", "8883", "--log-level", "info")
        conn = Conn()
        conn.send(connect("a"))
        conn.expect(CONNACK)
        conn.close()
        broker.stop()
        return any(line.endswith("[SDK] start success, listen 0.0.0.0:8883") for line in broker.output())

    # A line that meets another thread's is lost, as the log says of itself.
    assert any(started() for _ in range(10))


def test_second_broker_on_the_port_fails_and_leaves_the_first_alone(broker, client, tmp_path):
    conn = client("a")
    directory = tmp_path / "second"
    directory.mkdir()
    result = run_host(directory)
    assert result.returncode == 1
    assert result.stderr == "zeb_mqtt_host: start failed: Resource error\n"
    conn.ping()
    client("b").ping()


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_signals_end_the_broker_with_clients_connected(broker, client, datagrams, raw, number):
    conn = client("a")
    conn.subscribe(("t", 0))
    client("b", 5).send(publish("t", b"hello", 2, 5, 5))
    conn.expect_publish("t", b"hello")
    raw()
    datagrams.send(connect("udp"))
    broker.stop(number)
    conn.expect_closed()


def test_signal_ends_the_broker_under_load(broker, client):
    subscriber, publisher = client("sub"), client("pub")
    subscriber.subscribe(("t", 2))
    ended = threading.Event()

    def flood():
        try:
            while True:
                publisher.send(publish("t", filler(500), 2, 5) * 20)
        except OSError:
            ended.set()

    thread = threading.Thread(target=flood, daemon=True)
    thread.start()
    for _ in range(20):
        subscriber.packet()
    broker.stop()
    assert ended.wait(DEADLINE_S)


def test_broker_starts_again_at_once_after_it_ended_with_clients(start_broker):
    for _ in range(5):
        broker = start_broker()
        conn = Conn()
        conn.send(connect("a"))
        conn.packet()
        broker.stop()
        conn.expect_closed()
        conn.close()


@pytest.mark.host("--print-events")
def test_events_name_client_topic_and_qos(broker, client):
    conn, other = client("a"), client("b")
    conn.subscribe(("t/#", 1))
    other.send(publish("t/x", b"hello", 2, 5))
    other.expect(ack(0x50, 5))
    conn.expect_publish("t/x", b"hello", 1)
    conn.send(unsubscribe(9, "t/#"))
    conn.expect(ack(0xB0, 9))
    conn.send(DISCONNECT)
    conn.expect_closed()
    expected = {
        "connect": {"clientId": "a", "topic": "", "qos": 0},
        "subscribe": {"clientId": "a", "topic": "t/#", "qos": 1},
        "publish": {"clientId": "b", "topic": "t/x", "qos": 2},
        "unsubscribe": {"clientId": "a", "topic": "t/#", "qos": 0},
        "disconnect": {"clientId": "a", "topic": "", "qos": 0},
    }
    for kind, event in expected.items():
        assert json.loads(broker.wait_events(kind)[0]) == event


# Silent clients are looked for every 10 seconds, 1000 places of the client table at a time.

one_pass = pytest.mark.host("--max-clients", "1000")


def until_closed(conn, alongside):
    """Wait until the broker closes a silent connection, doing something else every 0.3 s."""
    deadline = time.monotonic() + 60
    while True:
        assert time.monotonic() < deadline, "still open"
        alongside()
        conn.sock.settimeout(0.3)
        try:
            if conn.sock.recv(1) == b"":
                return
        except TimeoutError:
            continue
        except ConnectionResetError:
            return


@one_pass
def test_silent_client_is_closed_and_one_that_pings_is_not(broker, client):
    silent, pinging = client("silent", keepalive=2), client("pinging", keepalive=8)
    until_closed(silent, pinging.ping)
    pinging.ping()


@one_pass
def test_messages_to_a_silent_client_keep_it_open(broker, client):
    silent, receiving = client("silent", keepalive=2), client("receiving", keepalive=8)
    publisher = client("pub")
    receiving.subscribe(("t", 0))

    def deliver():
        publisher.send(publish("t", b"hello"))
        receiving.expect_publish("t", b"hello")

    until_closed(silent, deliver)
    receiving.ping()


@pytest.mark.host("--keepalive-timeout", "1", "--max-clients", "1000")
def test_client_that_never_connected_is_closed_after_the_configured_time(broker, raw, client):
    conn, silent, patient = raw(), raw(), client("patient", keepalive=600)
    conn.send(connect("i" * 24))  # a packet all the same
    until_closed(conn, lambda: None)
    patient.ping()
    silent.send(connect("silent"))  # had sent nothing, so that this limit was not for it
    silent.expect(CONNACK)


@one_pass
def test_silent_datagram_peer_is_forgotten(broker, client):
    nudge = client("nudge", keepalive=600)
    peer = Datagrams(nudge)
    peer.send(connect("udp", keepalive=1))
    peer.send(subscribe(1, ("t", 0)))
    peer.expect(CONNACK, suback(1, 0))
    silent = client("silent", keepalive=2)
    until_closed(silent, nudge.ping)
    nudge.send(publish("t", b"hello"))
    peer.send(connect("udp"))
    peer.expect(CONNACK)  # and not the message
    peer.close()
