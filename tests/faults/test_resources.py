"""More connections than there is room for: descriptors that run out, peers by the thousand, peers in a hurry."""

import os
import resource
import select
import socket
import struct
import time

import pytest

from measure import descriptors, eventually, load_while_idle, threads
from mqtt_wire import CONNACK, DISCONNECT, HOST, PINGREQ, PINGRESP, PORT, connect, publish, suback, subscribe

SANITIZED = os.environ.get("ZEB_SANITIZED") == "1"
IDLE_LOAD = 0.5  # of one processor, on a machine that is busy with other things


def is_served(conn):
    """Whether the broker answers; False when it has closed."""
    try:
        conn.send(PINGREQ)
        return conn.packet() == PINGRESP
    except (AssertionError, OSError) as error:
        assert "in time" not in str(error), error
        return False


def allow_descriptors(broker, count):
    _, most = resource.prlimit(broker.process.pid, resource.RLIMIT_NOFILE)
    resource.prlimit(broker.process.pid, resource.RLIMIT_NOFILE, (count, most))


def test_without_descriptors_newcomers_are_refused_and_the_others_served(broker, raw, client):
    served = [client("served-%d" % number) for number in range(20)]
    served[0].subscribe(("t", 0))
    allow_descriptors(broker, 64)
    refused = []
    while len(refused) < 20:
        conn = raw()
        if is_served(conn):
            served.append(conn)
        else:
            refused.append(conn)
        assert len(served) < 64
    assert len(served) >= 40, "all descriptors are used: %d" % len(served)
    # The end of every one of them was told, and nobody spins over it.
    for conn in refused:
        conn.expect_closed()
    assert load_while_idle(broker.process) < IDLE_LOAD
    served[1].send(publish("t", b"\xff"))
    served[0].expect_publish("t", b"\xff")
    for conn in served:
        conn.ping()
    for conn in served[20:]:
        conn.close()
    eventually(lambda: is_served(raw()), True, "a newcomer is served")
    eventually(lambda: is_served(raw()), True, "and another")
    for conn in served[:20]:
        conn.ping()


def test_without_descriptors_stored_sessions_are_served_from_memory(broker, raw, client):
    keeper = client("keeper", clean=False)
    allow_descriptors(broker, descriptors(broker.process))
    while is_served(raw()):
        pass
    keeper.subscribe(("t", 1))
    keeper.send(publish("r", b"\xff", 1, 3, retain=1))
    keeper.expect(b"\x40\x02\x00\x03")
    keeper.send(subscribe(4, ("r", 0)))
    keeper.expect_publish("r", b"\xff", 1, retain=1)
    keeper.expect(suback(4, 0))


def silent_peers(count):
    peers = []
    for _ in range(count):
        sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        sock.connect((HOST, PORT))
        peers.append(sock)
    return peers


@pytest.fixture
def many_descriptors():
    """This process and the brokers that it starts may have some thousand."""
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (16384, max(hard, 16384)))
    yield
    resource.setrlimit(resource.RLIMIT_NOFILE, (soft, max(hard, 16384)))


def test_5000_peers_that_send_nothing_cost_little_and_delay_nobody(many_descriptors, broker, client):
    listener, speaker = client("listener"), client("speaker")
    listener.subscribe(("t", 0))
    listener.ping()
    before, memory, started = descriptors(broker.process), broker.resident_kib(), threads(broker.process)
    peers = silent_peers(5000)
    try:
        eventually(lambda: descriptors(broker.process), before + 5000, "connections taken in")
        assert threads(broker.process) == started
        if not SANITIZED:
            grown = broker.resident_kib() - memory
            assert grown < 5000 * 6, "KiB for 5000 silent peers: %d" % grown
        assert load_while_idle(broker.process) < IDLE_LOAD
        for number in range(50):
            began = time.monotonic()
            speaker.send(publish("t", struct.pack(">H", 0xFF00 + number)))
            listener.expect_publish("t", struct.pack(">H", 0xFF00 + number))
            assert time.monotonic() - began < 2.0
        client("newcomer").ping()
    finally:
        for sock in peers:
            sock.close()
    eventually(lambda: descriptors(broker.process), lambda now: now <= before + 1, "descriptors are back")
    listener.ping()


class Visitor:
    """One short connection: CONNECT, CONNACK, and an end of one kind or another."""

    def __init__(self, number):
        self.number = number
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.sock.connect((HOST, PORT))
        self.got = b""
        if number % 5:
            self.sock.sendall(connect("visitor-%d" % (number % 1000)))
        else:
            self.end()  # without a word

    def end(self):
        if self.number % 5 == 1:
            self.sock.sendall(DISCONNECT)
        if self.number % 5 == 2:
            self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.sock.close()

    def read(self):
        """True once the answer is whole."""
        self.got += self.sock.recv(64)
        assert CONNACK.startswith(self.got), self.got
        return self.got == CONNACK


def visit(numbers):
    """These visitors at the same time."""
    waiting = {}
    poll = select.poll()
    for number in numbers:
        visitor = Visitor(number)
        if number % 5:
            waiting[visitor.sock.fileno()] = visitor
            poll.register(visitor.sock, select.POLLIN)
    while waiting:
        ready = poll.poll(30000)
        assert ready, "%d visitors wait for CONNACK" % len(waiting)
        for number, _ in ready:
            if waiting[number].read():
                poll.unregister(number)
                waiting.pop(number).end()


@pytest.mark.host("--max-clients", "150")
def test_10000_connections_in_20_seconds_leave_nothing_behind(broker, client):
    """There is room for 150 clients: records that did not come back would be missed long before the end."""
    bystander = client("bystander")
    before = descriptors(broker.process)
    total, batch = (2000 if SANITIZED else 10000), 100
    began = time.monotonic()
    for first in range(0, total, batch):
        visit(range(first, first + batch))
        bystander.ping()
    took = time.monotonic() - began
    assert took < 20.0, "seconds for %d connections: %.1f" % (total, took)
    eventually(lambda: descriptors(broker.process), before, "descriptors are back", bystander.ping)
    room = [client("room-%d" % number) for number in range(149)]
    for conn in room + [bystander]:
        conn.ping()
