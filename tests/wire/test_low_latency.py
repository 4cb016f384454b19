"""Bursts, full sockets and datagrams: what low latency changes, and what stays as it is."""

import os
import signal
import socket
import struct
import time

import pytest

from mqtt_wire import (CONNACK, DEADLINE_S, DISCONNECT, HOST, PINGREQ, PINGRESP, PORT, Conn, ack, connect, filler, hexs,
                       publish, suback, subscribe)

modern = pytest.mark.modern
classic = pytest.mark.classic("LOW_LATENCY: a full queue is flushed before a packet is dropped")
BURST = 500
QUEUE = 99


def numbered(count, topic="t"):
    return [publish(topic, b"\xffmessage %d" % number) for number in range(count)]


class Stopped:
    """The broker does nothing while the body writes, so that it finds the whole of it at once."""

    def __init__(self, broker):
        self.pid = broker.process.pid

    def __enter__(self):
        os.kill(self.pid, signal.SIGSTOP)
        deadline = time.monotonic() + DEADLINE_S
        while self.state() != "T":
            assert time.monotonic() < deadline, "still running"

    def __exit__(self, *_):
        os.kill(self.pid, signal.SIGCONT)

    def state(self):
        with open("/proc/%d/stat" % self.pid) as stream:
            return stream.read().rsplit(") ", 1)[1][0]


def all_handled(publisher):
    """What the publisher has sent has been handled, and every queue sent once since: the second answer leaves with a
    later beat than the first."""
    publisher.ping()
    publisher.ping()


# Bursts


@modern
def test_500_publications_of_one_write_arrive_whole_and_in_order(broker, client):
    subscriber, publisher = client("sub"), client("pub")
    subscriber.subscribe(("t", 0))
    with Stopped(broker):
        publisher.send(b"".join(numbered(BURST)))
    subscriber.expect(*numbered(BURST))
    subscriber.ping()


@classic
def test_of_500_publications_of_one_write_those_that_a_queue_holds_arrive_in_order(broker, client):
    subscriber, publisher = client("sub"), client("pub")
    subscriber.subscribe(("t", 0))
    with Stopped(broker):
        publisher.send(b"".join(numbered(BURST)))
    all_handled(publisher)
    subscriber.send(PINGREQ)
    got = []
    while not got or got[-1] != PINGRESP:
        got.append(subscriber.packet())
    sent, got = numbered(BURST), got[:-1]
    assert got[:QUEUE] == sent[:QUEUE], "the first %d wait" % QUEUE
    assert len(got) < BURST, len(got)
    assert got == [packet for packet in sent if packet in got], "in order, none twice"


@modern
def test_500_pings_of_one_write_are_all_answered(broker, client):
    conn = client("a")
    with Stopped(broker):
        conn.send(PINGREQ * BURST)
    conn.expect(*[PINGRESP] * BURST)


@modern
def test_a_burst_to_many_subscribers_reaches_each_whole_and_in_order(broker, client):
    subscribers = [client("sub-%d" % number) for number in range(10)]
    for conn in subscribers:
        conn.subscribe(("t", 0))
    publisher = client("pub")
    with Stopped(broker):
        publisher.send(b"".join(numbered(BURST)))
    for conn in subscribers:
        conn.expect(*numbered(BURST))
        conn.ping()


@modern
def test_answers_of_all_kinds_in_one_burst_keep_the_order_of_the_packets(broker, client):
    """Each QoS among 300 messages, and the acknowledgements of both sides."""
    subscriber, publisher = client("sub"), client("pub")
    subscriber.subscribe(("t", 2))
    plain = numbered(100)
    with Stopped(broker):
        publisher.send(b"".join(plain) + publish("t", b"\xffone", 1, 7) + b"".join(plain) +
                       publish("t", b"\xfftwo", 2, 8) + ack(0x62, 8) + b"".join(plain) + PINGREQ)
    publisher.expect(ack(0x40, 7), ack(0x50, 8), ack(0x70, 8), PINGRESP)
    subscriber.expect(*plain)
    first = subscriber.expect_publish("t", b"\xffone", 1)
    subscriber.expect(*plain)
    second = subscriber.expect_publish("t", b"\xfftwo", 2)
    subscriber.send(ack(0x40, first) + ack(0x50, second) + ack(0x70, second) + PINGREQ)
    # One PUBREL from the record of the message, one from the handler of the packet.
    subscriber.expect(*plain, ack(0x62, second), ack(0x62, second), PINGRESP)


@modern
def test_retained_messages_beyond_a_queue_come_before_the_suback_and_what_follows_it(broker, client):
    publisher, subscriber = client("pub"), client("sub")
    publisher.send(b"".join(publish("r/%d" % number, filler(200), retain=1) for number in range(300)))
    publisher.ping()
    with Stopped(broker):
        subscriber.send(subscribe(1, ("r/#", 0)) + publish("x", b"\xff", 1, 5) + publish("x", b"\xff", 2, 6) +
                        ack(0x62, 6) + PINGREQ)
    for number in range(300):
        subscriber.expect_publish("r/%d" % number, filler(200), retain=1)
    subscriber.expect(suback(1, 0), ack(0x40, 5), ack(0x50, 6), ack(0x70, 6), PINGRESP)


@modern
def test_what_a_burst_queued_before_its_disconnect_still_arrives(broker, client):
    subscriber, publisher = client("sub"), client("pub")
    subscriber.subscribe(("t", 0))
    with Stopped(broker):
        publisher.send(b"".join(numbered(BURST)) + DISCONNECT)
    publisher.expect_closed()
    subscriber.expect(*numbered(BURST))
    subscriber.ping()


# A subscriber that stops reading


MESSAGES = 4000  # of 1900 bytes: more than the buffers between broker and subscriber ever hold


def message(number):
    return publish("t", struct.pack(">HH", 0xFFFF, number) + filler(1900))


def number_of(packet):
    number = struct.unpack(">H", packet[8:10])[0]
    assert packet == message(number), hexs(packet[:16])
    return number


def read_all(conn):
    """What waits for a client that has not read for a while. A ping in between could be dropped itself, so it follows
    when nothing more comes, and again until it is answered."""
    got, pings = [], 0
    while True:
        try:
            packet = conn.packet(deadline_s=0.5)
        except AssertionError:
            conn.send(PINGREQ)
            pings += 1
            continue
        if packet == PINGRESP:
            break
        got.append(packet)
    conn.expect(*[PINGRESP] * (pings - 1))
    return got


@modern
def test_a_subscriber_that_did_not_read_gets_a_gapless_beginning_and_all_that_comes_later(client, raw):
    """Where the beginning ends is the kernel's affair: a socket that was full may find room for some more now and
    then although nobody reads."""
    stalled = raw(receive_buffer=4096)
    stalled.send(connect("stalled"))
    stalled.expect(CONNACK)
    stalled.subscribe(("t", 0))
    reader, publisher = client("reader"), client("pub")
    reader.subscribe(("t", 0))
    for start in range(0, MESSAGES, 40):
        publisher.send(b"".join(message(number) for number in range(start, start + 40)))
        reader.expect(*[message(number) for number in range(start, start + 40)])
    publisher.ping()
    numbers = [number_of(packet) for packet in read_all(stalled)]
    assert numbers[:QUEUE] == list(range(QUEUE)), numbers[:QUEUE]
    assert numbers == sorted(set(numbers)) and len(numbers) < MESSAGES, numbers
    publisher.send(b"".join(message(number) for number in range(MESSAGES, MESSAGES + 50)))
    stalled.expect(*[message(number) for number in range(MESSAGES, MESSAGES + 50)])
    stalled.ping()
    reader.expect(*[message(number) for number in range(MESSAGES, MESSAGES + 50)])


# Datagrams without any stream


@pytest.fixture
def peer(broker):
    """A UDP peer of a broker that has no TCP connection."""
    sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sock.settimeout(DEADLINE_S)
    sock.connect((HOST, PORT))
    yield sock
    sock.close()


@modern
def test_datagrams_are_answered_without_any_stream(peer):
    for packet, answer in ((connect("udp"), CONNACK), (PINGREQ, PINGRESP), (subscribe(1, ("t", 0)), suback(1, 0)),
                           (publish("t", b"\xff", 1, 7), ack(0x40, 7))):
        peer.send(packet)
        assert peer.recv(65536) == answer


@modern
def test_datagrams_that_come_at_once_are_all_answered_in_order(broker, peer):
    peer.send(connect("udp"))
    assert peer.recv(65536) == CONNACK
    with Stopped(broker):
        for pid in range(1, 101):
            peer.send(publish("t", b"\xff", 1, pid))
    for pid in range(1, 101):
        assert peer.recv(65536) == ack(0x40, pid)


@modern
def test_datagram_peers_reach_each_other_without_any_stream(peer):
    other = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    other.settimeout(DEADLINE_S)
    other.connect((HOST, PORT))
    for sock, name in ((peer, "one"), (other, "two")):
        sock.send(connect(name))
        assert sock.recv(65536) == CONNACK
    other.send(subscribe(1, ("t", 0)))
    assert other.recv(65536) == suback(1, 0)
    for packet in numbered(50):
        peer.send(packet)
        assert other.recv(65536) == packet
    other.close()


@pytest.mark.classic("LOW_LATENCY: datagrams are read as they come")
def test_datagrams_wait_until_a_stream_brings_something(peer):
    peer.settimeout(1.0)
    peer.send(connect("udp"))
    with pytest.raises(socket.timeout):
        peer.recv(65536)
    stream = Conn()
    stream.send(connect("tcp"))
    stream.expect(CONNACK)
    peer.settimeout(DEADLINE_S)
    assert peer.recv(65536) == CONNACK
    peer.settimeout(1.0)
    peer.send(PINGREQ)
    with pytest.raises(socket.timeout):
        peer.recv(65536)  # an open stream that is silent does not help
    stream.ping()
    peer.settimeout(DEADLINE_S)
    assert peer.recv(65536) == PINGRESP
    stream.close()
