"""Two hundred thousand random, cut, oversized and changed packets, while two well-behaved clients talk."""

import os
import select
import socket
import struct
import threading
import time

import pytest

from broker_process import all_options_on
from hostile import NAMES, Hostile
from mqtt_wire import CONNACK, HOST, PINGREQ, PINGRESP, PORT, Conn, ack, connect, hexs, publish
from slots import names_apart

STREAM_PACKETS = 180000
DATAGRAMS = 20000
NUDGE = "nudge"
ENOUGH = 20  # messages that the bystanders exchange during any flood
PACKETS_PER_CONNECTION = 45
SANITIZED = os.environ.get("ZEB_SANITIZED") == "1"
# The table of subscriptions may fill, and each connection takes the next slot with a receive buffer of 4 KiB until
# all have been used once.
GROWTH_LIMIT_KIB = 24 * 1024
SLOT_KIB = 4.5
# A flood brings up to 900 identifiers that are none of its own list, because a byte of a CONNECT was changed. Unless
# identifiers are looked up exactly, each hides one of two bystanders with a chance of 2 in 11000, perhaps twice.
RECLAIMS = 0 if all_options_on() else 8


class Bystanders(threading.Thread):
    """Two clients that exchange numbered messages until they are told to end. What they send is acknowledged; what
    they receive is not, because a delivery that draws the identifier 0 is lost, and there are thousands."""

    def __init__(self):
        super().__init__(daemon=True)
        self.names = names_apart("bystander-", 2, [name[:63] for name in NAMES] + [NUDGE])
        self.conns = [Conn(), Conn()]
        self.introduce()
        self.reclaims = 0
        self.ending = threading.Event()
        self.failure = None
        self.exchanged = 0
        self.slowest_s = 0.0

    def run(self):
        try:
            while not self.ending.is_set():
                self.exchange(self.exchanged % 2, b"\xff%d" % self.exchanged)
                self.exchanged += 1
        except (AssertionError, OSError) as error:
            self.failure = error

    def introduce(self):
        for conn, name in zip(self.conns, self.names):
            conn.send(connect(name, keepalive=600))
            conn.expect(CONNACK)
            conn.subscribe(("bystander/to/" + name, 0))

    def exchange(self, sender, payload):
        started = time.monotonic()
        while not self.arrives(sender, payload):
            self.reclaims += 1
            assert self.reclaims <= RECLAIMS, "lost: %s" % payload
            for conn in self.conns:
                conn.ping()
            self.introduce()  # takes their places back
        self.slowest_s = max(self.slowest_s, time.monotonic() - started)

    def arrives(self, sender, payload):
        """The copy is queued before the acknowledgement, so it comes before the answer to a later ping or never."""
        topic = "bystander/to/" + self.names[1 - sender]
        self.conns[sender].send(publish(topic, payload, 1, 7))
        self.conns[sender].expect(ack(0x40, 7))
        self.conns[1 - sender].send(PINGREQ)
        got = self.conns[1 - sender].packet(waiting_for=publish(topic, payload))
        if got == PINGRESP:
            return False
        assert got == publish(topic, payload), hexs(got)
        self.conns[1 - sender].expect(PINGRESP)
        return True

    def is_waited_for(self):
        """A short flood may be over before they have said much."""
        return self.exchanged < ENOUGH and self.is_alive()

    def finish(self):
        self.ending.set()
        self.join()
        assert self.failure is None, self.failure
        assert self.exchanged >= ENOUGH, self.exchanged
        for conn in self.conns:
            conn.ping()


def send_all(sock, data):
    """Send, reading and discarding whatever comes; False once the broker has closed the connection."""
    view = memoryview(data)
    while view:
        readable, writable, _ = select.select([sock], [sock], [], 30)
        assert readable or writable, "the broker takes no more bytes"
        try:
            if readable and sock.recv(65536) == b"":
                return False
            if writable:
                view = view[sock.send(view):]
        except (ConnectionResetError, BrokenPipeError):
            return False
    return True


def hostile_connection(hostile):
    """One connection's life; returns how many packets were sent on it."""
    sock = socket.create_connection((HOST, PORT))
    sock.setblocking(False)
    rand = hostile.random
    sent = 0
    try:
        if rand.random() < 0.8:
            send_all(sock, hostile.connect())
            sent += 1
        while sent < PACKETS_PER_CONNECTION:
            count = rand.choice([1, 3, 10])
            chunk = b"".join(hostile.packet() for _ in range(count))
            cut = rand.randrange(len(chunk) + 1) if rand.random() < 0.3 else len(chunk)
            if not (send_all(sock, chunk[:cut]) and send_all(sock, chunk[cut:])):
                return sent + count
            sent += count
        send_all(sock, hostile.last_packet())
        sent += 1
        if rand.random() < 0.3:
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        return sent
    finally:
        sock.close()


def datagram_queue():
    """(bytes waiting, datagrams dropped so far) at the broker's UDP socket."""
    with open("/proc/net/udp") as stream:
        for line in stream:
            fields = line.split()
            if fields[1].endswith(":%04X" % PORT):
                return int(fields[4].split(":")[1], 16), int(fields[-1])
    raise AssertionError("no UDP socket on the port")


class DatagramFlood:
    """Hostile datagrams from a few peers. Each goes with a ping on a stream, for the broker reads one datagram
    after each round of stream events."""

    def __init__(self, hostile):
        self.hostile = hostile
        self.peers = [socket.socket(socket.AF_INET, socket.SOCK_DGRAM) for _ in range(32)]
        for peer in self.peers:
            peer.setblocking(False)
            peer.connect((HOST, PORT))
        self.nudge = socket.create_connection((HOST, PORT))
        self.nudge.setblocking(False)
        assert send_all(self.nudge, connect(NUDGE, keepalive=600))
        self.sent = 0

    def send(self, count):
        for _ in range(count):
            peer = self.peers[self.sent % len(self.peers)]
            try:
                peer.send(self.hostile.datagram())
                while peer.recv(65536):
                    pass
            except BlockingIOError:
                pass
            self.sent += 1
            assert send_all(self.nudge, PINGREQ)
            if self.sent % 16 == 0:
                self.drain(16 * 1024)

    def drain(self, below):
        deadline = time.monotonic() + 60
        while datagram_queue()[0] > below:
            assert time.monotonic() < deadline, "datagrams wait in the broker's queue"
            assert send_all(self.nudge, PINGREQ)

    def finish(self):
        self.drain(0)
        dropped = datagram_queue()[1]
        assert dropped < self.sent // 100, "%d of %d datagrams never reached the broker" % (dropped, self.sent)
        for sock in self.peers + [self.nudge]:
            sock.close()


def flood(broker, seed, stream_packets, datagrams):
    hostile = Hostile(seed)
    bystanders = Bystanders()
    bystanders.start()
    udp = DatagramFlood(hostile)
    sent = connections = settled_after = 0
    settled_kib = None
    while sent < stream_packets or bystanders.is_waited_for():
        sent += hostile_connection(hostile)
        connections += 1
        udp.send(sent * datagrams // stream_packets - udp.sent)
        assert broker.process.poll() is None, "the broker ended: %s" % broker.stderr()
        if settled_kib is None and sent > stream_packets // 4:
            settled_kib, settled_after = broker.resident_kib(), connections
    udp.finish()
    bystanders.finish()
    print("sent %d + %d packets, bystanders exchanged %d messages, reclaimed %d times, slowest %.2f s, "
          "memory %d -> %d KiB" % (sent, udp.sent, bystanders.exchanged, bystanders.reclaims, bystanders.slowest_s,
                                   settled_kib, broker.resident_kib()))
    if not SANITIZED:  # the sanitizer keeps freed memory back; it reports leaks at the end instead
        allowed = GROWTH_LIMIT_KIB + SLOT_KIB * (connections - settled_after)
        assert broker.resident_kib() - settled_kib < allowed, (settled_kib, broker.resident_kib(), connections)


@pytest.mark.host("--log-level", "fatal", "--max-clients", "1000")
def test_200000_hostile_packets_harm_nobody(broker):
    flood(broker, 20240117, STREAM_PACKETS, DATAGRAMS)


@pytest.mark.host("--log-level", "debug", "--max-clients", "1000")
def test_hostile_packets_are_logged_without_harm(broker):
    flood(broker, 7, 5000, 500)


@pytest.mark.host("--log-level", "fatal", "--deny-user", "u", "--deny-topic", "a/", "--max-packet-size", "256")
def test_hostile_packets_meet_callbacks_and_a_small_packet_limit(broker):
    flood(broker, 11, 10000, 1000)
