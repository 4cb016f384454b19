import os

import pytest

from console_process import Console
from mqtt_wire import CONNACK, Conn, connack_v5, connect, maximum_packet_size


@pytest.fixture(params=["pipe", "terminal"])
def open_console(request, tmp_path):
    """Start the console program with its long sleeps cut short, or as it is."""
    started = []

    def start(program="ZEB_CONSOLE_QUICK"):
        started.append(Console(tmp_path, os.environ[program], request.param == "terminal"))
        return started[-1]

    yield start
    for console in started:
        console.close()


@pytest.fixture
def console(open_console):
    return open_console()


@pytest.fixture
def running(console):
    """A console whose broker has been started, and that must come to its regular end when the test is over."""
    console.start_broker()
    yield console
    if console.process.poll() is None:
        console.choose(0)
        console.check_end()


@pytest.fixture
def client(running):
    """Open connections to the broker that have been through CONNECT and CONNACK."""
    opened = []

    def open_one(client_id, level=4, **options):
        conn = Conn()
        opened.append(conn)
        if level == 5:
            options.setdefault("props", maximum_packet_size(4096))
        conn.send(connect(client_id, level, **options))
        conn.expect(connack_v5(4096) if level == 5 else CONNACK)
        return conn

    yield open_one
    for conn in opened:
        conn.close()
