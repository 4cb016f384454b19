"""What real clients can do once the host program runs as users start it, with the library's options on."""

import json

import pytest

from clients import MAKERS, Message, MqttJs, Mosquitto, PahoC, PahoPython

pytestmark = pytest.mark.modern
by_name = pytest.mark.parametrize("maker", MAKERS, ids=lambda maker: maker.name)
SIZES = [50, 123, 124, 125, 127, 128, 255, 256, 1000, 1900]
# Subscribers at level 5. Paho for Python is not among those of QoS 2: it cannot read a PUBREL of four bytes.
ACKNOWLEDGING = [(Mosquitto, 1), (Mosquitto, 2), (PahoC, 1), (PahoC, 2), (PahoPython, 1), (MqttJs, 1),
                 (MqttJs, 2)]


def json_of(size):
    return json.dumps({"v": "x" * (size - len(json.dumps({"v": ""})))}).encode()


@by_name
def test_json_arrives_whole_at_level_4(broker, keep, maker):
    client = keep(maker.subscriber(broker, "sub", ["t"], 1))
    for number, size in enumerate(SIZES):
        maker.publish("pub-%d" % number, "t", [json_of(size)], 1)
        assert client.messages(number + 1)[-1].payload == json_of(size)


@pytest.mark.parametrize("maker, qos", ACKNOWLEDGING, ids=lambda value: getattr(value, "name", str(value)))
def test_hundred_messages_reach_a_level_5_subscriber(broker, keep, maker, qos):
    client = keep(maker.subscriber(broker, "sub", ["t"], qos, level=5))
    publisher = keep(PahoPython("pub", level=5).connect())
    payloads = [b"message %d" % number for number in range(100)]
    for payload in payloads:
        publisher.publish_one("t", payload, qos)
    assert [message.payload for message in client.messages(100)] == payloads


@pytest.mark.parametrize("maker, qos", [(PahoPython, 1), (MqttJs, 1), (MqttJs, 2)],
                         ids=lambda value: getattr(value, "name", str(value)))
def test_subscribe_works_after_acknowledgements(broker, keep, maker, qos):
    client = keep(maker.subscriber(broker, "sub", ["t"], qos, level=5))
    publisher = keep(maker("pub", level=5).connect())
    for number in range(3):
        publisher.publish_one("t", b"message %d" % number, qos)
    client.messages(3)
    assert client.subscribe([("u", qos)]) == [qos]
    publisher.publish_one("u", b"hello", qos)
    assert client.messages(4)[3] == Message("u", b"hello", qos)


def test_unsubscribe_works_after_acknowledgements(broker, keep):
    client = keep(MqttJs.subscriber(broker, "sub", ["t"], 1, level=5))
    publisher = keep(MqttJs("pub", level=5).connect())
    for number in range(3):
        publisher.publish_one("t", b"message %d" % number, 1)
    client.messages(3)
    client.subscribe([("u", 1)])
    client.unsubscribe(["t"])
    publisher.publish_one("t", b"not any more", 1)
    publisher.publish_one("u", b"still", 1)
    assert client.messages(4)[3] == Message("u", b"still", 1)


def test_properties_of_a_publication_cost_no_payload(broker, keep):
    client = keep(MqttJs.subscriber(broker, "sub", ["t"], 1, level=5))
    publisher = keep(MqttJs("pub", level=5).connect())
    publisher.publish_one("t", b"hello", 1, properties={
        "payloadFormatIndicator": True, "contentType": "text/plain", "responseTopic": "answers",
        "userProperties": {"k": "v"}, "messageExpiryInterval": 60})
    assert client.wait_event("message")["payload"] == b"hello".hex()
    assert client.wait_event("message")["properties"] == {"messageExpiryInterval": 60}
