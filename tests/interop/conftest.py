import pytest

from broker_process import Broker


def pytest_configure(config):
    config.addinivalue_line("markers", "host(*options): options of the host program that a test runs against")
    config.addinivalue_line("markers", "modern: the host program as users start it, with the library's options on")


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
