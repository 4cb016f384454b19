"""Peers that read or write a byte at a time, or end in the middle of a packet."""

import os
import socket
import struct
import threading
import time

import pytest

from measure import descriptors, eventually
from mqtt_wire import (CONNACK, PINGREQ, PINGRESP, ack, connack_v5, connect, maximum_packet_size, publish, string,
                       suback, subscribe, unhex, unsubscribe)

SANITIZED = os.environ.get("ZEB_SANITIZED") == "1"
READING_S = 8


def payload_of(number):
    return struct.pack(">HI", 0xFFFF, number) + b"\xff" * 994


class FastReader(threading.Thread):
    """Takes `count` messages in order and keeps the longest time that it waited for one."""

    def __init__(self, conn, count):
        super().__init__(daemon=True)
        self.conn, self.count, self.failure, self.longest = conn, count, None, 0.0

    def run(self):
        try:
            for number in range(self.count):
                began = time.monotonic()
                self.conn.expect_publish("t", payload_of(number))
                self.longest = max(self.longest, time.monotonic() - began)
        except AssertionError as error:
            self.failure = error


def test_a_peer_that_reads_a_byte_a_second_delays_nobody(broker, client):
    rate, count = 50, 50 * READING_S
    crawling = client("crawling", receive_buffer=4096)
    crawling.subscribe(("t", 0))
    fast = [FastReader(client("fast-%d" % number), count) for number in range(3)]
    for reader in fast:
        reader.conn.subscribe(("t", 0))
        reader.start()
    speaker = client("speaker")
    speaker.ping()
    memory = broker.resident_kib()
    began = time.monotonic()
    crawled = b""
    for number in range(count):
        speaker.send(publish("t", payload_of(number)))
        if number % rate == 0:
            crawled += crawling.sock.recv(1)
        time.sleep(max(0.0, began + (number + 1) / rate - time.monotonic()))
    for reader in fast:
        reader.join(30)
        assert reader.failure is None and not reader.is_alive(), reader.failure
        assert reader.longest < 2.0, "seconds between two messages: %.1f" % reader.longest
    assert len(crawled) == READING_S
    # A sanitizer keeps what was freed.
    assert SANITIZED or broker.resident_kib() - memory < 4 * 1024
    # What it reads in the end are whole packets, the first ones without a gap.
    crawling.buffer = crawled
    for number in range(10):
        crawling.expect_publish("t", payload_of(number))
    speaker.ping()


def will_of(level):
    return (b"\x00" if level == 5 else b"") + string("will") + string(b"\xffbye")


@pytest.mark.parametrize("level", [4, 5])
def test_a_whole_conversation_may_come_a_byte_at_a_time(client, raw, level):
    """Each byte is a segment of its own, and the broker has been round its loop between any two of them."""
    bystander = client("bystander")
    conn = raw()
    props = maximum_packet_size(4096) if level == 5 else b""
    script = [(connect("bytes", level, props=props, flags=0x04, rest=will_of(level), username="u", password="p"),
               [connack_v5(4096) if level == 5 else CONNACK]),
              (subscribe(7, ("a/+", 1), ("b", 0), level=level), [suback(7, 1, 0, level=level)]),
              (publish("x", b"\xff" * 20, 1, 8, level=level), [ack(0x40, 8, 0 if level == 5 else None)]),
              (unsubscribe(9, "b", level=level), [unhex("B0 03 00 09 00" if level == 5 else "B0 02 00 09")]),
              (PINGREQ, [PINGRESP])]
    for packet, answers in script:
        for byte in packet[:-1]:
            conn.send(bytes([byte]))
            bystander.ping()
        conn.sock.settimeout(0.0)
        with pytest.raises(BlockingIOError):
            conn.sock.recv(1)
        conn.sock.settimeout(30.0)
        conn.send(packet[-1:])
        conn.expect(*answers)


def reset(conn):
    conn.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    conn.close()


def test_a_reset_in_the_middle_of_a_packet_ends_the_client_and_nothing_else(broker, client):
    listener = client("listener")
    listener.subscribe(("t", 1), ("will", 0))
    listener.ping()
    before = descriptors(broker.process)
    whole = publish("t", b"\xff" * 10, 1, 8)
    for cut in range(1, len(whole)):
        conn = client("torn", flags=0x04, rest=will_of(4))
        conn.send(whole[:cut])
        reset(conn)
        listener.expect_publish("will", b"\xffbye")  # and nothing of the message
    eventually(lambda: descriptors(broker.process), before, "descriptors are back", listener.ping)


def test_a_reset_in_the_middle_of_connect_leaves_no_client(broker, client, raw):
    listener = client("listener")
    listener.subscribe(("will", 0))
    before = descriptors(broker.process)
    whole = connect("torn", flags=0x04, rest=will_of(4))
    for cut in range(1, len(whole)):
        conn = raw()
        conn.send(whole[:cut])
        reset(conn)
    eventually(lambda: descriptors(broker.process), before, "descriptors are back", listener.ping)
    listener.ping()  # no will either: there was no client


def test_a_reset_right_behind_a_packet_still_delivers_or_drops_it_whole(client):
    """A reset throws away what the broker has not read, so that either is right; half a message is not."""
    listener = client("listener")
    listener.subscribe(("t", 0), ("will", 0))
    for _ in range(30):
        conn = client("torn", flags=0x04, rest=will_of(4))
        conn.send(publish("t", b"\xff" * 100))
        reset(conn)
        got = listener.packet()
        if got == publish("t", b"\xff" * 100):
            got = listener.packet()
        assert got == publish("will", b"\xffbye"), got
