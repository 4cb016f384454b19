import pytest

import two_modes
from broker_process import Broker
from mqtt_wire import CONNACK, Conn, Datagrams, connect, connack_v5, maximum_packet_size


def pytest_configure(config):
    two_modes.configure(config)


def pytest_collection_modifyitems(config, items):
    two_modes.select(config, items)


@pytest.fixture
def start_broker(tmp_path):
    """Start brokers by hand; each must end by itself or by stop() before the test does."""
    started = []

    def start(*options, modern=False):
        started.append(Broker(tmp_path, *options, modern=modern))
        return started[-1]

    yield start
    for broker in started:
        broker.kill()


@pytest.fixture
def broker(request, start_broker):
    """A broker for this test alone, which must end cleanly and without a word on stderr."""
    marker = request.node.get_closest_marker("host")
    modern = request.node.get_closest_marker("modern") is not None
    running = start_broker(*(marker.args if marker else ()), modern=modern)
    yield running
    if running.process.poll() is None:
        running.stop()
    else:
        running.check_end()


@pytest.fixture
def raw(broker):
    """Open TCP connections that have sent nothing yet."""
    opened = []

    def open_one(**options):
        opened.append(Conn(**options))
        return opened[-1]

    yield open_one
    for conn in opened:
        conn.close()


@pytest.fixture
def client(raw):
    """Open connections that have been through CONNECT and CONNACK. Level 5 clients take packets of 4096 bytes."""

    def open_one(client_id, level=4, **options):
        conn = raw()
        if level == 5:
            options.setdefault("props", maximum_packet_size(4096))
        conn.send(connect(client_id, level, **options))
        conn.expect(connack_v5(4096) if level == 5 else CONNACK)
        return conn

    return open_one


@pytest.fixture
def datagrams(client):
    """A UDP peer of the broker."""
    peer = Datagrams(client("udp-nudge"))
    yield peer
    peer.close()
