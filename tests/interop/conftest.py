import pytest

import two_modes
from broker_process import Broker


def pytest_configure(config):
    two_modes.configure(config)


def pytest_collection_modifyitems(config, items):
    two_modes.select(config, items)


@pytest.fixture
def broker(request, tmp_path, monkeypatch):
    """A broker for this test alone, which must end cleanly and without a word on stderr."""
    monkeypatch.chdir(tmp_path)
    marker = request.node.get_closest_marker("host")
    modern = request.node.get_closest_marker("modern") is not None
    running = Broker(tmp_path, "--print-events", *(marker.args if marker else ()), modern=modern)
    yield running
    try:
        running.stop()
    finally:
        running.kill()


@pytest.fixture
def keep(broker):
    """Hand a client over to be ended with the test, before its broker."""
    kept = []

    def take(client):
        kept.append(client)
        return client

    yield take
    for client in kept:
        client.kill()
