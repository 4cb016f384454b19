"""Wills over the wire."""

import socket
import struct
import time

import pytest

from mqtt_wire import DISCONNECT, maximum_packet_size, publish, string, varint

WILL = 0x04
WILL_RETAIN = 0x20
TIMEOUT_SCAN_S = 25.0  # one and a half times a keep-alive of 1 s, then the scan of every 10 s


def will(topic, payload, delay=None, level=4):
    """What stands between identifier and user name in a CONNECT with a will."""
    data = payload if isinstance(payload, bytes) else payload.encode()
    props = b""
    if level == 5:
        block = b"" if delay is None else b"\x18" + struct.pack(">I", delay)
        props = varint(len(block)) + block
    return props + string(topic) + string(data)


def abort(conn):
    """Reset the connection, as a crashed client's machine does."""
    conn.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    conn.close()


@pytest.fixture
def owner(client):
    """Connect a client that leaves a will."""

    def open_one(client_id="owner", level=4, qos=0, flags=0, topic="will", payload=b"gone", delay=None, **options):
        if level == 5:
            options["props"] = maximum_packet_size(4096)
        return client(client_id, level, flags=WILL | qos << 3 | flags, rest=will(topic, payload, delay, level),
                      **options)

    return open_one


@pytest.fixture
def watcher(client):
    conn = client("watcher")
    conn.subscribe(("will", 2))
    return conn


@pytest.mark.parametrize("end", ["close", "reset"])
def test_a_lost_connection_publishes_the_will_at_once(owner, watcher, end):
    conn = owner()
    conn.close() if end == "close" else abort(conn)
    watcher.expect_publish("will", b"gone")


@pytest.mark.parametrize("qos", [0, 1, 2])
def test_the_will_keeps_its_qos_and_its_retain_flag(owner, watcher, qos):
    owner(qos=qos, flags=WILL_RETAIN).close()
    watcher.expect_publish("will", b"gone", qos, retain=1)


def test_a_retained_will_is_not_stored(owner, watcher, client):
    owner(flags=WILL_RETAIN).close()
    watcher.expect_publish("will", b"gone", retain=1)
    late = client("late")
    late.subscribe(("will", 0))
    late.ping()


def test_disconnect_takes_the_will_away(owner, watcher):
    conn = owner()
    conn.send(DISCONNECT)
    conn.expect_closed()
    watcher.ping()
    watcher.ping()


# Ten blocks of a hundred records are examined in one pass, so that each pass sees every client.
@pytest.mark.host("--max-clients", "1000")
def test_a_silent_client_is_closed_and_its_will_published(owner, watcher):
    owner(keepalive=1)
    got = watcher.packet(TIMEOUT_SCAN_S)
    assert got == publish("will", b"gone"), got


def test_a_delayed_will_comes_after_its_delay(owner, client):
    watcher = client("watcher5", 5)
    watcher.subscribe(("will", 0), level=5)
    conn = owner(level=5, delay=2)
    gone = time.monotonic()
    conn.close()
    watcher.expect_publish("will", b"gone", level=5)
    assert time.monotonic() - gone > 1.9


def test_a_client_that_is_back_in_time_leaves_no_will(owner, watcher, client):
    owner(level=5, delay=2).close()
    successor = client("owner", 5)
    deadline = time.monotonic() + 3.5
    while time.monotonic() < deadline:
        watcher.ping()
        time.sleep(0.05)
    successor.subscribe(("x", 0), level=5)  # the newcomer kept its place


def test_a_level_5_watcher_gets_the_bare_payload(owner, client):
    watcher = client("watcher5", 5)
    watcher.subscribe(("will", 0), level=5)
    owner(level=5).close()
    watcher.expect_publish("will", b"gone", level=5)


@pytest.mark.classic("LEVEL_BY_CONNECT: each level gets the will in its own form")
def test_a_level_4_watcher_gets_the_property_block_of_a_level_5_will_before_the_payload(owner, watcher):
    owner(level=5).close()
    watcher.expect_publish("will", b"\x00gone")


def test_a_will_whose_packet_needs_two_length_bytes_is_not_published(owner, watcher):
    owner(payload=b"\xff" * 200).close()
    owner(client_id="second", payload=b"short").close()
    watcher.expect_publish("will", b"short")


def once_there_is_room(open_one, deadline_s=30):
    """A record whose will is published is free with the next pass of housekeeping, and clients can be quicker."""
    deadline = time.monotonic() + deadline_s
    while True:
        try:
            return open_one()
        except (AssertionError, ConnectionError):
            assert time.monotonic() < deadline, "no room for a new client"
            time.sleep(0.01)


@pytest.mark.host("--max-clients", "50")
def test_hundreds_of_wills_leave_room_for_new_clients(broker, owner, watcher):
    for number in range(300):
        once_there_is_room(lambda: owner(client_id="o%d" % number)).close()
        watcher.expect_publish("will", b"gone")
