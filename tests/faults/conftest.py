import pytest

from broker_process import Broker
from mqtt_wire import CONNACK, Conn, connack_v5, connect, maximum_packet_size


def pytest_configure(config):
    config.addinivalue_line("markers", "host(*options): options of the host program that a test runs against")


@pytest.fixture
def broker(request, tmp_path):
    """A broker for this test alone, which must end cleanly and without a word on stderr."""
    marker = request.node.get_closest_marker("host")
    running = Broker(tmp_path, *(marker.args if marker else ()))
    yield running
    try:
        running.stop()
    finally:
        running.kill()


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

    def open_one(client_id, level=4, receive_buffer=None, **options):
        conn = raw(receive_buffer=receive_buffer)
        if level == 5:
            options.setdefault("props", maximum_packet_size(4096))
        conn.send(connect(client_id, level, **options))
        conn.expect(connack_v5(4096) if level == 5 else CONNACK)
        return conn

    return open_one
