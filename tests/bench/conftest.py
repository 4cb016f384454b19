import pytest

from broker_process import Broker


@pytest.fixture
def start_broker(tmp_path):
    """Start brokers by hand; whoever is left over is killed."""
    started = []

    def start(*options, modern=True):
        started.append(Broker(tmp_path, *options, modern=modern))
        return started[-1]

    yield start
    for broker in started:
        broker.kill()


@pytest.fixture(params=["classic", "modern"])
def broker(request, start_broker):
    """A broker without and with the library's options, which must survive without a word on stderr."""
    running = start_broker(modern=request.param == "modern")
    yield running
    running.stop()
