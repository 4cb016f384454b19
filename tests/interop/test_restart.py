"""Unmodified 3.1.1 clients before and after a restart of the broker, ended cleanly and with SIGKILL.

None of them subscribes again: what reaches it comes from its stored session."""

import os
import time

import pytest

from broker_process import Broker
from clients import Message, MqttJs, Mosquitto, PahoPython, ToolSubscriber, mosquitto_options, parse_mosquitto, run_tool
from mqtt_wire import DEADLINE_S

endings = pytest.mark.parametrize("end", ["stop", "kill"])
KEPT, MISSED = Message("t/kept", b"kept", 1), [Message("t/missed", b"missed %d" % number, 1) for number in range(2)]


class Host:
    """A broker that is started again in the same directory."""

    def __init__(self, directory):
        self.directory = directory
        self.broker = Broker(directory, "--print-events")

    def restart(self, end):
        self.broker.stop() if end == "stop" else self.broker.kill()
        self.broker = Broker(self.directory, "--print-events")

    def wait_gone(self, client_id):
        """Until the broker has heard the client's goodbye, and so counts it as away."""
        self.broker.wait_line(lambda line: "event disconnect" in line and '"clientId":"%s"' % client_id in line,
                              client_id + " to disconnect")


@pytest.fixture
def host(tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    host = Host(tmp_path)
    yield host
    try:
        host.broker.stop()
    finally:
        host.broker.kill()


@pytest.fixture
def keep():
    kept = []

    def take(client):
        kept.append(client)
        return client

    yield take
    for client in kept:
        client.kill()


class PersistentMosquitto(ToolSubscriber):
    """mosquitto_sub -c always subscribes; when it comes back, it asks for something else."""

    name = "mosquitto"

    def __init__(self, host, topic_filter, *more):
        command = ["mosquitto_sub", *mosquitto_options("sub", 4, False), "-c", "-q", "1", "-F", "message %q %t %x",
                   "-t", topic_filter, *more]
        super().__init__(host.broker, "sub", [topic_filter], command, parse_mosquitto)

    @classmethod
    def stay(cls, host):
        """Subscribed. It does not tell at once, and the broker's event comes before the subscription is stored."""
        client = cls(host, "t/#")
        deadline = time.monotonic() + DEADLINE_S
        while not os.path.exists(os.path.join("broker_data", "subscription", "sub.json")):
            assert time.monotonic() < deadline, "not stored"
            time.sleep(0.01)
        return client

    @classmethod
    def visit(cls, host):
        cls(host, "t/#", "-E").process.wait(DEADLINE_S)

    @classmethod
    def back(cls, host, count):
        return cls(host, "other", "-C", str(count))

    def close(self):
        self.process.wait(DEADLINE_S)  # it leaves by itself after the last message


class PersistentSession:
    """What the two clients that are driven step by step have in common."""

    @classmethod
    def stay(cls, host):
        client = cls("sub", clean=False).connect()
        assert client.subscribe([("t/#", 1)]) == [1]
        return client

    @classmethod
    def visit(cls, host):
        cls.stay(host).close()


class PersistentPaho(PersistentSession, PahoPython):
    @classmethod
    def back(cls, host, count):
        client = cls("sub", clean=False)
        present = []

        def on_connect(_, __, flags, code):
            present.append(flags["session present"])
            client.events.add(("connect", code))

        client.client.on_connect = on_connect
        client.connect()
        assert present == [1]
        return client


class PersistentMqttJs(PersistentSession, MqttJs):
    @classmethod
    def back(cls, host, count):
        return cls("sub", clean=False).connect()


by_name = pytest.mark.parametrize("maker", [PersistentMosquitto, PersistentPaho, PersistentMqttJs],
                                  ids=lambda maker: maker.name)


def publish_missed():
    for message in MISSED:
        Mosquitto.publish("pub", message.topic, [message.payload], 1)


def publish_retained():
    run_tool(["mosquitto_pub", *mosquitto_options("pub", 4, False), "-q", "1", "-r", "-t", KEPT.topic, "-m", "kept"])


@endings
@by_name
def test_a_persistent_client_gets_what_it_has_missed(host, keep, maker, end):
    maker.visit(host)
    host.wait_gone("sub")
    host.restart(end)
    publish_retained()
    publish_missed()
    client = keep(maker.back(host, 4))
    messages = client.messages(4)
    assert messages[0] == KEPT  # what is retained comes at once, what was missed about a second later
    assert sorted(messages[1:]) == [KEPT, *MISSED]
    client.close()
    host.wait_gone("sub")
    assert os.path.getsize(os.path.join("broker_data", "message", "sub.json")) == len('{"msgs":[]}')


@endings
@by_name
def test_messages_from_before_the_restart_are_there_after_it(host, keep, maker, end):
    maker.visit(host)
    host.wait_gone("sub")
    publish_retained()
    publish_missed()
    host.restart(end)
    client = keep(maker.back(host, 4))
    messages = client.messages(4)
    assert messages[0] == KEPT
    assert sorted(messages[1:]) == [KEPT, *MISSED]
    client.close()


@endings
def test_retained_messages_reach_every_makers_new_subscriber(host, keep, end):
    publish_retained()
    host.restart(end)
    for maker in (Mosquitto, PahoPython, MqttJs):
        client = keep(maker.subscriber(host.broker, "new", ["t/#"], 1))
        assert client.messages(1) == [KEPT]
        client.close()


@by_name
def test_a_session_survives_the_sigkill_that_meets_its_client(host, keep, maker):
    client = keep(maker.stay(host))
    host.broker.kill()
    client.kill()  # it would come back by itself
    host.broker = Broker(host.directory, "--print-events")
    publish_missed()
    client = keep(maker.back(host, 2))
    assert sorted(client.messages(2)) == MISSED
    client.close()
