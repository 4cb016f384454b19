"""What a restart brings back: sessions, subscriptions, missed and retained messages.

Each test ends the broker once cleanly and once with SIGKILL; what was acknowledged before has to be there after it."""

import json
import os
import struct
import time

import pytest

from mqtt_wire import (CONNACK, DISCONNECT, DISCONNECT_V5, Conn, ack, connack_v5, connect, filler,
                       maximum_packet_size, publish, string, suback, subscribe, unsubscribe)

CONNACK_PRESENT = b"\x20\x02\x01\x00"
REPLAY_S = 1.0  # missed messages come through the scan for unacknowledged ones, once they are older than this
NO_MESSAGES = '{"msgs":[]}'

endings = pytest.mark.parametrize("end", ["stop", "kill"])


@pytest.fixture(autouse=True)
def host(start_broker, tmp_path):
    """A host program that can be ended and started again over one data directory."""
    host = Host(start_broker, tmp_path / "broker_data")
    host.start()
    yield host
    host.close()
    host.broker.stop()


class Host:
    def __init__(self, start_broker, data):
        self.start_broker, self.data = start_broker, data
        self.opened = []

    def start(self):
        self.broker = self.start_broker()

    def restart(self, end):
        """End the broker and start it again; the connections end with it."""
        self.broker.stop() if end == "stop" else self.broker.kill()
        self.close()
        self.start()

    def close(self):
        for conn in self.opened:
            conn.close()
        self.opened = []

    def client(self, client_id, clean=True, answer=CONNACK, **options):
        conn = Conn()
        self.opened.append(conn)
        conn.send(connect(client_id, clean=clean, **options))
        conn.expect(answer)
        return conn

    def leave(self, conn, goodbye=DISCONNECT):
        """When this returns the broker knows that the client has gone."""
        conn.send(goodbye)
        conn.expect_closed()

    def subscribed_and_gone(self, client_id, *filters):
        """A persistent client that has subscribed and left."""
        conn = self.client(client_id, clean=False)
        conn.subscribe(*filters)
        self.leave(conn)

    def publish(self, topic, payload, qos=1, retain=0):
        """A publication whose acknowledgement has come."""
        conn = self.client("publisher")
        conn.send(publish(topic, payload, qos, 7, retain=retain))
        conn.expect(*{0: [], 1: [ack(0x40, 7)], 2: [ack(0x50, 7)]}[qos])
        conn.ping()
        self.leave(conn)

    def has_file(self, kind, client_id):
        return os.path.exists(str(self.data / kind / (client_id + ".json")))

    def text(self, kind, client_id):
        with open(str(self.data / kind / (client_id + ".json"))) as stream:
            return stream.read()

    def missed(self, client_id):
        """Topic, payload and QoS of each message that waits for a client."""
        return [(msg["topic"], bytes.fromhex(msg["payload"]), msg["qos"])
                for msg in json.loads(self.text("message", client_id))["msgs"]]


@endings
def test_subscriptions_are_live_before_their_client_is_back(host, end):
    host.subscribed_and_gone("sleeper", ("t/+", 1), ("u/#", 2))
    host.restart(end)
    host.publish("t/a", b"one", 2)
    host.publish("u/a/b", b"two", 2)
    host.publish("v", b"three", 2)
    assert host.missed("sleeper") == [("t/a", b"one", 1), ("u/a/b", b"two", 2)]


def take_missed(conn, *messages):
    """These messages are replayed, and acknowledged. The scan walks the newest first, but one that is due a pass
    earlier comes earlier."""
    left, releases = list(messages), {}
    while left or releases:
        packet = conn.packet()
        if packet[0] == 0x62:
            pid = struct.unpack(">H", packet[2:4])[0]
            releases[pid] -= 1
            if releases[pid] == 0:
                del releases[pid]
                conn.send(ack(0x70, pid))
            continue
        qos, topic_end = packet[0] >> 1 & 3, 4 + packet[3]
        pid = struct.unpack(">H", packet[topic_end:topic_end + 2])[0]
        message = (packet[4:topic_end].decode(), packet[topic_end + 2:], qos)
        assert packet[0] & 0xF9 == 0x30 and message in left, (message, left)
        left.remove(message)
        conn.send(ack(0x40 if qos == 1 else 0x50, pid))
        if qos == 2:
            releases[pid] = 2  # the reliable delivery and the handler both answer


@endings
def test_a_returning_client_gets_connack_then_retained_then_missed_messages(host, end):
    host.subscribed_and_gone("sleeper", ("b/#", 1), ("a", 2))
    host.publish("a", b"kept a", retain=1)
    host.publish("b/x", b"kept b", retain=1)
    host.restart(end)
    host.publish("b/x", b"missed one")
    host.publish("b/x", b"missed two")
    started = time.monotonic()
    conn = host.client("sleeper", clean=False, answer=CONNACK_PRESENT)
    conn.expect_publish("b/x", b"kept b", 1, retain=1)  # in the order of its filters
    conn.expect_publish("a", b"kept a", 1, retain=1)
    # "kept a" and "kept b" were missed as well.
    take_missed(conn, ("b/x", b"missed two", 1), ("b/x", b"missed one", 1), ("b/x", b"kept b", 1), ("a", b"kept a", 1))
    assert time.monotonic() - started > REPLAY_S
    conn.ping()
    assert host.text("message", "sleeper") == NO_MESSAGES
    host.leave(conn)
    again = host.client("sleeper", clean=False, answer=CONNACK_PRESENT)
    again.expect_publish("b/x", b"kept b", 1, retain=1)
    again.expect_publish("a", b"kept a", 1, retain=1)
    again.ping()


@endings
def test_messages_missed_before_and_after_the_restart_come_together(host, end):
    host.subscribed_and_gone("sleeper", ("t", 2))
    host.publish("t", b"before", 2)
    host.restart(end)
    assert host.missed("sleeper") == [("t", b"before", 2)]
    host.publish("t", b"after", 1)
    host.restart(end)
    conn = host.client("sleeper", clean=False, answer=CONNACK_PRESENT)
    take_missed(conn, ("t", b"after", 1), ("t", b"before", 2))
    conn.ping()


@endings
def test_live_messages_reach_the_filters_of_a_returned_client(host, end):
    host.subscribed_and_gone("sleeper", ("t/#", 1))
    host.restart(end)
    conn = host.client("sleeper", clean=False, answer=CONNACK_PRESENT)
    host.publish("t/x", b"hello", 2)
    conn.expect_publish("t/x", b"hello", 1)


@endings
def test_a_stored_message_of_qos_0_is_not_replayed(host, end):
    host.subscribed_and_gone("sleeper", ("t", 1))
    host.publish("t", b"at 0", 0)
    host.publish("t", b"at 1", 1)
    assert host.missed("sleeper") == [("t", b"at 0", 0), ("t", b"at 1", 1)]
    host.restart(end)
    conn = host.client("sleeper", clean=False, answer=CONNACK_PRESENT)
    conn.send(ack(0x40, conn.expect_publish("t", b"at 1", 1)))
    conn.ping()
    assert host.text("message", "sleeper") == NO_MESSAGES


@endings
def test_retained_messages_are_there(host, end):
    host.publish("r/short", b"old", retain=1)
    host.publish("r/short", b"new", 0, retain=1)
    host.publish("r/long", filler(1900), 1, retain=1)
    host.publish("r/gone", b"gone", 1, retain=1)
    host.publish("r/two", b"two", 2, retain=1)
    host.publish("r/gone", b"", 1, retain=1)
    host.restart(end)
    assert os.path.getsize(str(host.data / "retain.dat")) == 4 + 3 * 2336
    conn = host.client("reader")
    conn.send(subscribe(1, ("r/#", 0)))
    conn.expect_publish("r/short", b"new", 0, retain=1)
    conn.expect_publish("r/long", filler(1900), 1, retain=1)
    conn.expect_publish("r/two", b"two", 2, retain=1)
    conn.expect(suback(1, 0))


@endings
def test_removing_the_last_retained_message_lasts(host, end):
    host.publish("r", b"kept", retain=1)
    host.publish("r", b"", retain=1)
    host.restart(end)
    conn = host.client("reader")
    conn.subscribe(("r", 0))
    conn.ping()


@endings
def test_a_clean_session_leaves_nothing(host, end):
    conn = host.client("clean")
    conn.subscribe(("t", 1))
    host.restart(end)
    host.publish("t", b"hello")
    assert not any(host.has_file(kind, "clean") for kind in ("session", "subscription", "message"))
    conn = host.client("clean", clean=False)
    conn.ping()


@endings
def test_a_clean_session_ends_the_stored_one(host, end):
    host.subscribed_and_gone("sleeper", ("t", 1))
    host.publish("t", b"hello")
    host.client("sleeper").ping()
    host.restart(end)
    assert not any(host.has_file(kind, "sleeper") for kind in ("session", "subscription", "message"))
    host.publish("t", b"hello")
    host.client("sleeper", clean=False).ping()


@endings
def test_an_unsubscribed_filter_is_back_after_the_restart(host, end):
    conn = host.client("sleeper", clean=False)
    conn.subscribe(("t", 1))
    conn.send(unsubscribe(9, "t"))
    conn.expect(ack(0xB0, 9))
    host.leave(conn)
    host.publish("t", b"not stored")
    assert not host.has_file("message", "sleeper")
    host.restart(end)
    host.publish("t", b"stored")
    assert host.missed("sleeper") == [("t", b"stored", 1)]


def test_a_clean_stop_ends_the_session_of_a_connected_level_4_client(host):
    """It has no expiry interval, so its session ends with its connection, which the broker closes."""
    host.client("sleeper", clean=False).subscribe(("t", 1))
    host.restart("stop")
    assert not host.has_file("subscription", "sleeper")
    host.client("sleeper", clean=False)


def test_sigkill_leaves_the_session_of_a_connected_client(host):
    host.client("sleeper", clean=False).subscribe(("t", 1))
    host.restart("kill")
    host.publish("t", b"hello")
    conn = host.client("sleeper", clean=False, answer=CONNACK_PRESENT)
    conn.expect_publish("t", b"hello", 1)


@endings
def test_level_5_session_outlives_connection_and_restart_for_its_expiry_interval(host, end):
    props = b"\x11" + struct.pack(">I", 300) + maximum_packet_size(4096)
    conn = host.client("sleeper", False, connack_v5(4096), level=5, props=props)
    conn.subscribe(("t", 1), level=5)
    host.restart(end)
    host.publish("t", filler(10))
    present = bytearray(connack_v5(4096))
    present[2] = 1
    conn = host.client("sleeper", False, bytes(present), level=5, props=props)
    conn.expect_publish("t", filler(10), 1, level=5)


@endings
def test_level_5_disconnect_without_an_interval_ends_the_session(host, end):
    props = b"\x11" + struct.pack(">I", 300) + maximum_packet_size(4096)
    conn = host.client("sleeper", False, connack_v5(4096), level=5, props=props)
    conn.subscribe(("t", 1), level=5)
    host.leave(conn, DISCONNECT_V5)
    host.restart(end)
    host.client("sleeper", False, connack_v5(4096), level=5, props=props)


@endings
def test_thirty_two_filters_survive_as_far_as_their_file_is_read(host, end):
    """The first 32 are recorded; names this short all fit the 2047 bytes that are read."""
    conn = host.client("sleeper", clean=False)
    for number in range(40):
        conn.subscribe(("f/%d" % number, 1))
    host.leave(conn)
    stored = [entry["topic"] for entry in json.loads(host.text("subscription", "sleeper"))["subs"]]
    assert stored == ["f/%d" % number for number in range(32)]
    host.restart(end)
    host.publish("f/31", b"the last")
    host.publish("f/32", b"one too many")
    assert host.missed("sleeper") == [("f/31", b"the last", 1)]


def test_a_stored_will_is_left_by_the_client_that_returns_without_one(host):
    will = string("w") + string(b"gone")
    host.client("c", clean=False, flags=0x04 | 0x08 | 0x20, rest=will)  # at QoS 1, retained
    host.restart("kill")
    watcher = host.client("watcher")
    watcher.subscribe(("w", 1))
    returned = host.client("c", clean=False, answer=CONNACK_PRESENT)
    watcher.ping()  # the crash itself was not the client's end
    returned.close()
    watcher.expect_publish("w", b"gone", 1)  # the retain flag is not stored
