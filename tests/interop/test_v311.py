"""What MQTT 3.1.1 clients of four makers can do.

Payloads are chosen so that they cannot be read as a property block: not longer than their first byte says, or
beginning with bytes above 0x7F (test_deviations.py shows what happens to others)."""

import time

import pytest

from clients import MAKERS, SESSIONS, Message, MqttJs, Mosquitto, PahoC, PahoPython, run_tool
from mqtt_wire import filler

by_name = pytest.mark.parametrize("maker", MAKERS, ids=lambda maker: maker.name)
by_session = pytest.mark.parametrize("maker", SESSIONS, ids=lambda maker: maker.name)
PAIRS = [(publisher, subscriber) for publisher in MAKERS for subscriber in MAKERS]


def same(got, topic, payload, qos):
    """Compare what the client does say of a message."""
    return got.payload == payload and got.topic in (None, topic) and got.qos in (None, qos)


@pytest.mark.parametrize("publisher, subscriber", PAIRS, ids=lambda maker: maker.name)
def test_each_client_reaches_each_client_at_every_qos(broker, keep, publisher, subscriber):
    subscribers = [keep(subscriber.subscriber(broker, "sub-%d" % qos, ["t/%s" % subscriber.name], qos))
                   for qos in range(3)]
    topic = "t/%s" % subscriber.name
    for qos in range(3):
        publisher.publish("pub-%d" % qos, topic, [b"hello at %d" % qos], qos)
    for granted, client in enumerate(subscribers):
        messages = client.messages(3)
        for published, message in enumerate(sorted(messages, key=lambda message: message.payload)):
            assert same(message, topic, b"hello at %d" % published, min(published, granted)), messages
        client.close()


@by_name
def test_wildcards(broker, keep, maker):
    for topic_filter, topic in [("w/+/x", "w/any/x"), ("v/#", "v/a/b"), ("+", "level")]:
        client = keep(maker.subscriber(broker, "sub", [topic_filter]))
        Mosquitto.publish("pub", "w/any/y", [b"hello other"])
        Mosquitto.publish("pub", topic, [b"hello"])
        assert same(client.messages(1)[0], topic, b"hello", 0)
        client.close()


@by_name
def test_shared_group_is_served_in_turn(broker, keep, maker):
    members = [keep(maker.subscriber(broker, "member-%d" % number, ["$share/g/t"], 1)) for number in range(3)]
    payloads = [b"message %d" % number for number in range(6)]
    Mosquitto.publish("pub", "t", payloads, 1)
    got = [sorted(message.payload for message in member.messages(2)) for member in members]
    assert sorted(got) == [[payloads[n], payloads[n + 3]] for n in range(3)], got


@by_name
def test_payload_of_1900_bytes(broker, keep, maker):
    client = keep(maker.subscriber(broker, "sub", ["t"], 1))
    maker.publish("pub", "t", [filler(1900)], 1)
    assert same(client.messages(1)[0], "t", filler(1900), 1)


@by_name
def test_empty_payload(broker, keep, maker):
    if maker is PahoC:  # its tools have no way to show one; it is sent by the second publisher below
        client = keep(Mosquitto.subscriber(broker, "sub", ["t"]))
        run_tool(["paho_c_pub", "-h", "127.0.0.1", "-i", "pub", "-t", "t", "-n"])
    else:
        client = keep(maker.subscriber(broker, "sub", ["t"]))
        run_tool(["mosquitto_pub", "-h", "127.0.0.1", "-i", "pub", "-t", "t", "-n"])
    assert client.messages(1)[0] == Message("t", b"", 0)


@by_name
def test_hundred_messages_8_ms_apart_come_in_order(broker, keep, maker):
    client = keep(maker.subscriber(broker, "sub", ["t"]))
    publisher = keep(PahoPython("pub").connect())
    payloads = [b"message %d" % number for number in range(100)]
    for payload in payloads:
        publisher.client.publish("t", payload, 1)
        time.sleep(0.008)  # the rate is what is tested
    assert [message.payload for message in client.messages(100)] == payloads


@pytest.mark.parametrize("maker", [Mosquitto, PahoPython, MqttJs], ids=lambda maker: maker.name)
@pytest.mark.parametrize("qos, count", [(0, 50), (1, 20), (2, 10)])
def test_messages_of_one_publisher_come_in_order(broker, keep, maker, qos, count):
    """The more are in flight, the likelier two have the same random identifier, so the higher levels get fewer."""
    client = keep(PahoPython.subscriber(broker, "sub", ["t"], qos))
    payloads = [b"message %d" % number for number in range(count)]
    maker.publish("pub", "t", payloads, qos)
    assert [message.payload for message in client.messages(count)] == payloads


def test_four_makers_clients_at_once(broker, keep):
    clients = [keep(maker.subscriber(broker, "sub-" + maker.name, ["t/#"], 1)) for maker in MAKERS]
    publishers = [keep(PahoPython("pub-python").connect()), keep(MqttJs("pub-js").connect())]
    for number in range(5):
        publishers[0].publish_one("t/python", b"python %d" % number, 1)
        publishers[1].publish_one("t/js", b"js %d" % number, 2)
    Mosquitto.publish("pub-mosquitto", "t/mosquitto", [b"mosquitto %d" % number for number in range(5)], 1)
    PahoC.publish("pub-c", "t/c", [b"cc 0", b"cc 1"], 1)
    for client in clients:
        payloads = [message.payload for message in client.messages(17)]
        for name, count in ((b"python", 5), (b"js", 5), (b"mosquitto", 5), (b"cc", 2)):
            assert [p for p in payloads if p.startswith(name)] == [b"%s %d" % (name, n) for n in range(count)], payloads


# SUBACK, UNSUBSCRIBE, pings and the end


def test_mosquitto_is_told_the_granted_qos_of_each_filter(broker):
    out = run_tool(["mosquitto_sub", "-h", "127.0.0.1", "-i", "sub", "-d", "-E", "-q", "2", "-t", "a", "-t", "b/+",
                    "-t", "c/#"])
    assert "Subscribed (mid: 1): 2, 2, 2" in out, out


@by_session
def test_codes_of_several_filters_in_one_subscribe(broker, keep, maker):
    client = keep(maker("sub").connect())
    granted = client.subscribe([("a", 0), ("b", 1), ("c", 2), ("d/+/#", 1)])
    assert granted == [0, 1, 2, 128]


@by_session
def test_unsubscribed_filters_deliver_no_more(broker, keep, maker):
    client = keep(maker("sub").connect())
    client.subscribe([("a", 1), ("b", 1)])
    Mosquitto.publish("pub", "a", [b"hello a"])
    client.messages(1)
    client.unsubscribe(["a"])
    Mosquitto.publish("pub", "a", [b"hello again"])
    Mosquitto.publish("pub", "b", [b"hello b"])
    assert client.messages(2) == [Message("a", b"hello a", 0), Message("b", b"hello b", 0)]


def test_mosquitto_unsubscribes(broker, keep):
    client = keep(Mosquitto.subscriber(broker, "sub", ["a", "b"], more=["-d", "-U", "a"]))
    broker.wait_events("unsubscribe")
    Mosquitto.publish("pub", "a", [b"hello a"])
    Mosquitto.publish("pub", "b", [b"hello b"])
    assert client.messages(1) == [Message("b", b"hello b", 0)]
    assert any(b"received UNSUBACK" in line for line in client.output), client.output


@pytest.mark.host("--max-clients", "1000")
def test_keep_alive_pings_hold_the_connection(broker, keep):
    """Three times the period passes in silence but for the pings, and the search for silent clients with it."""
    clients = [keep(PahoPython("python", keepalive=4).connect()), keep(MqttJs("js", keepalive=4).connect())]
    tool = keep(Mosquitto.subscriber(broker, "mosquitto", ["t"]))
    for client in clients:
        client.subscribe([("t", 0)])
    clients[1].wait_event("packet", cmd="pingresp")
    deadline = time.monotonic() + 14
    while time.monotonic() < deadline:
        assert not [item for item in clients[0].events.items if item[0] == "disconnect"]
        assert not [item for item in clients[1].events.items if item.get("event") == "close"]
        time.sleep(0.2)
    Mosquitto.publish("pub", "t", [b"hello"])
    for client in clients + [tool]:
        assert client.messages(1)[0].payload == b"hello"


@by_name
def test_disconnect_reaches_the_broker(broker, keep, maker):
    maker.publish("leaver", "t", [b"hello"])
    assert '"clientId":"leaver"' in broker.wait_events("disconnect")[0]


@by_name
def test_client_id_of_23_bytes(broker, keep, maker):
    client = keep(maker.subscriber(broker, "i" * 23, ["t"]))
    maker.publish("j" * 23, "t", [b"hello"])
    assert client.messages(1)[0].payload == b"hello"


@by_session
def test_user_name_and_password(broker, keep, maker):
    options = {"username": "alice"} if maker is PahoPython else {"username": "alice", "password": "secret"}
    keep(maker("a", **options).connect())


def test_client_without_an_id_is_named_by_the_broker(broker, keep):
    keep(PahoPython("").connect())
    assert '"clientId":"auto_' in broker.wait_events("connect")[0]
