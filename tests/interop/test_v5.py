"""What MQTT 5.0 clients of four makers can do.

A client that announces no Maximum Packet Size is held to 256 bytes, and one that acknowledges with two bytes is
taken for a 3.1.1 client from then on (test_deviations.py), so subscribers here mostly take QoS 0."""

import pytest

from clients import MAKERS, SESSIONS, Message, MqttJs, Mosquitto, PahoC, PahoPython, run_tool
from mqtt_wire import filler

by_name = pytest.mark.parametrize("maker", MAKERS, ids=lambda maker: maker.name)
by_session = pytest.mark.parametrize("maker", SESSIONS, ids=lambda maker: maker.name)
LARGE = [Mosquitto, PahoPython, MqttJs]  # the Paho C tools cannot announce a Maximum Packet Size
PAIRS = [(publisher, subscriber) for publisher in MAKERS for subscriber in MAKERS]


@pytest.mark.parametrize("publisher, subscriber", PAIRS, ids=lambda maker: maker.name)
def test_each_client_publishes_at_every_qos_to_each_client_at_qos_0(broker, keep, publisher, subscriber):
    client = keep(subscriber.subscriber(broker, "sub", ["t"], 0, level=5))
    for qos in range(3):
        publisher.publish("pub-%d" % qos, "t", [b"hello at %d" % qos], qos, level=5)
    for qos, message in enumerate(client.messages(3)):
        assert message.payload == b"hello at %d" % qos and message.qos in (None, 0)
    client.close()


@by_name
def test_levels_mix(broker, keep, maker):
    old = keep(maker.subscriber(broker, "old", ["t"], 0, level=4))
    new = keep(maker.subscriber(broker, "new", ["t"], 0, level=5))
    maker.publish("pub-old", "t", [b"hello from 4"], 1, level=4)
    maker.publish("pub-new", "t", [b"hello from 5"], 1, level=5)
    for client in (old, new):
        assert [message.payload for message in client.messages(2)] == [b"hello from 4", b"hello from 5"]


@by_name
def test_one_message_at_qos_1_per_connection(broker, keep, maker):
    for number in range(3):
        client = keep(maker.subscriber(broker, "sub", ["t"], 1, level=5))
        maker.publish("pub", "t", [b"hello %d" % number], 1, level=5)
        message = client.messages(1)[0]
        assert message.payload == b"hello %d" % number and message.qos in (None, 1)
        client.close()


def test_mqtt_js_takes_qos_2_without_limit(broker, keep):
    client = keep(MqttJs.subscriber(broker, "sub", ["t"], 2, level=5))
    publisher = keep(MqttJs("pub", level=5).connect())
    for number in range(20):
        publisher.publish_one("t", b"hello %d" % number, 2)
        assert client.messages(number + 1)[-1] == Message("t", b"hello %d" % number, 2)


@pytest.mark.parametrize("publisher", LARGE, ids=lambda maker: maker.name)
@pytest.mark.parametrize("subscriber", LARGE, ids=lambda maker: maker.name)
def test_payload_of_1900_bytes_where_both_sides_announce_4096(broker, keep, publisher, subscriber):
    client = keep(subscriber.subscriber(broker, "sub", ["t"], 0, level=5, large=True))
    publisher.publish("pub", "t", [filler(1900)], 1, level=5, large=True)
    assert client.messages(1)[0].payload == filler(1900)


@by_session
def test_codes_of_several_filters_in_one_subscribe(broker, keep, maker):
    client = keep(maker("sub", level=5).connect())
    assert client.subscribe([("a", 0), ("b", 1), ("c", 2), ("d/+/#", 1)]) == [0, 1, 2, 128]


def test_mosquitto_is_told_the_granted_qos_of_each_filter(broker):
    out = run_tool(["mosquitto_sub", "-h", "127.0.0.1", "-i", "sub", "-V", "mqttv5", "-d", "-E", "-q", "2", "-t", "a",
                    "-t", "b/+", "-t", "c/#"])
    assert "Subscribed (mid: 1): 2, 2, 2" in out, out


@by_name
def test_wildcards_and_shared_groups(broker, keep, maker):
    for topic_filter, topic in [("w/+/x", "w/any/x"), ("v/#", "v/a/b"), ("$share/g/s", "s")]:
        client = keep(maker.subscriber(broker, "sub", [topic_filter], 0, level=5))
        Mosquitto.publish("pub", topic, [b"hello"], level=5)
        message = client.messages(1)[0]
        assert message.payload == b"hello" and message.topic in (None, topic)
        client.close()


def test_mqtt_js_unsubscribes(broker, keep):
    client = keep(MqttJs("sub", level=5).connect())
    client.subscribe([("a", 0), ("b", 0)])
    client.unsubscribe(["a"])
    Mosquitto.publish("pub", "a", [b"hello a"], level=5)
    Mosquitto.publish("pub", "b", [b"hello b"], level=5)
    assert client.messages(1) == [Message("b", b"hello b", 0)]


def test_mosquitto_unsubscribes(broker, keep):
    client = keep(Mosquitto.subscriber(broker, "sub", ["a", "b"], level=5, more=["-d", "-U", "a"]))
    broker.wait_events("unsubscribe")
    Mosquitto.publish("pub", "a", [b"hello a"], level=5)
    Mosquitto.publish("pub", "b", [b"hello b"], level=5)
    assert client.messages(1) == [Message("b", b"hello b", 0)]
    assert any(b"received UNSUBACK" in line for line in client.output), client.output


@by_session
def test_hundred_messages_come_in_order(broker, keep, maker):
    client = keep(maker.subscriber(broker, "sub", ["t"], 0, level=5))
    publisher = keep(maker("pub", level=5).connect())
    payloads = [b"message %d" % number for number in range(100)]
    for payload in payloads:
        publisher.publish_one("t", payload, 1)
    assert [message.payload for message in client.messages(100)] == payloads


def test_connack_announces_the_clients_own_maximum_packet_size_and_a_full_receive_maximum(broker, keep):
    client = keep(MqttJs("a", level=5, large=True))
    connack = client.finish(client.start("connect", options=client.options))
    assert connack["properties"] == {"receiveMaximum": 65535, "maximumPacketSize": 4096}


def test_message_expiry_interval_is_handed_on(broker, keep):
    client = keep(MqttJs.subscriber(broker, "sub", ["t"], 0, level=5))
    publisher = keep(MqttJs("pub", level=5).connect())
    publisher.publish_one("t", b"hello", 0, properties={"messageExpiryInterval": 60})
    assert client.wait_event("message")["properties"] == {"messageExpiryInterval": 60}


def test_paho_c_publishes_with_message_expiry(broker, keep):
    client = keep(PahoPython.subscriber(broker, "sub", ["t"], 0, level=5))
    run_tool(["paho_c_pub", "-h", "127.0.0.1", "-i", "pub", "-V", "5", "-t", "t", "-m", "hello",
              "--message-expiry", "60"])
    assert client.messages(1) == [Message("t", b"hello", 0)]
