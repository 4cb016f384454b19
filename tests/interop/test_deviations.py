"""What real clients meet where this broker differs from the standard on purpose. Each test is named for its rule and
pins what comes of it."""

import pytest
from paho.mqtt.packettypes import PacketTypes
from paho.mqtt.properties import Properties

from clients import SESSIONS, Message, MqttJs, Mosquitto, PahoPython
from mqtt_wire import filler

by_session = pytest.mark.parametrize("maker", SESSIONS, ids=lambda maker: maker.name)
error_log = pytest.mark.host("--log-level", "error")
info_log = pytest.mark.host("--log-level", "info")
by_shape = pytest.mark.classic("LEVEL_BY_CONNECT: the level is that of CONNECT, whatever a packet looks like")


def wait_log(broker, text):
    return broker.wait_line(lambda line: text in line, text)


# 3.1.1


@by_session
@by_shape
def test_v311_payload_whose_first_byte_fits_as_a_property_length_loses_that_block(broker, keep, maker):
    client = keep(maker.subscriber(broker, "sub", ["t"]))
    publisher = keep(maker("pub").connect())
    publisher.publish_one("t", b"\x00hello")
    publisher.publish_one("t", b"\x05\x02\x00\x00\x00\x3chello")
    publisher.publish_one("t", b"\x7fhello")
    assert [message.payload for message in client.messages(3)] == [b"hello", b"hello", b"\x7fhello"]


@by_session
@by_shape
def test_v311_text_longer_than_its_first_letter_loses_that_many_bytes(broker, keep, maker):
    """"x" is 120: the 120 bytes after it are taken for properties."""
    client = keep(maker.subscriber(broker, "sub", ["t"]))
    keep(maker("pub").connect()).publish_one("t", b"x" + filler(120) + b"the rest")
    assert client.messages(1) == [Message("t", b"the rest", 0)]


@error_log
def test_v311_client_id_of_24_bytes_gets_no_answer(broker, keep):
    client = keep(PahoPython("i" * 24).start())
    wait_log(broker, "CONNECT decode: MQTT 3.1.1 ClientID too long (len=24, max=23)")
    assert client.events.items == [] and not client.client.is_connected()


@error_log
def test_v31_client_gets_no_answer(broker, keep):
    client = PahoPython("a")
    client.client._protocol = 3
    keep(client).start()
    wait_log(broker, "CONNECT decode: invalid protocol name")
    assert client.events.items == [] and not client.client.is_connected()


@pytest.mark.host("--deny-user", "mallory")
def test_v311_refusal_reads_as_success_followed_by_the_end(broker, keep):
    client = keep(PahoPython("a", username="mallory").start())
    client.wait("connect", 0)
    client.wait("disconnect")
    assert [item[:2] for item in client.events.items[:2]] == [("connect", 0), ("disconnect", 7)]


@pytest.mark.host("--deny-topic", "secret/")
def test_refused_publication_is_never_acknowledged(broker, keep):
    client = keep(PahoPython("pub").connect())
    refused = client.client.publish("secret/x", b"hello", 1)
    client.publish_one("open", b"hello", 1)
    assert not refused.is_published()


@by_session
def test_own_publications_do_not_come_back(broker, keep, maker):
    client, other = keep(maker("both").connect()), keep(maker("other").connect())
    client.subscribe([("t", 0)])
    other.subscribe([("t", 0)])
    client.publish_one("t", b"mine")
    assert other.messages(1) == [Message("t", b"mine", 0)]
    other.publish_one("t", b"yours")
    assert client.messages(1) == [Message("t", b"yours", 0)]


@by_session
def test_filter_with_plus_before_hash_is_refused(broker, keep, maker):
    assert keep(maker("sub").connect()).subscribe([("a/+/#", 0)]) == [128]


def test_payload_that_does_not_fit_2048_bytes_with_its_topic_is_acknowledged_and_dropped(broker, keep):
    client = keep(PahoPython.subscriber(broker, "sub", ["t"]))
    publisher = keep(PahoPython("pub").connect())
    publisher.publish_one("t", filler(2043), 1)
    publisher.publish_one("t", filler(2042), 1)
    assert client.messages(1) == [Message("t", filler(2042), 0)]


def test_packet_above_4096_bytes_ends_the_connection(broker, keep):
    client = keep(PahoPython("pub").connect())
    client.client.publish("t", filler(5000))
    client.wait("disconnect")


# 5.0


def acknowledged_once(broker, keep, maker):
    """A subscriber at QoS 1 that has acknowledged one message in the two-byte form, and a publisher."""
    client = keep(maker.subscriber(broker, "sub", ["t"], 1, level=5))
    publisher = keep(PahoPython("pub", level=5).connect())
    publisher.publish_one("t", b"first", 1)
    assert client.messages(1) == [Message("t", b"first", 1)]
    wait_log(broker, "收到PUBACK确认：ClientID=sub")
    return client, publisher


@info_log
@by_session
@by_shape
def test_v5_message_after_a_two_byte_acknowledgement_comes_without_its_property_length(broker, keep, maker):
    """The client takes the first byte of the payload for the length that is missing."""
    client, publisher = acknowledged_once(broker, keep, maker)
    publisher.publish_one("t", b"\x00second", 0)
    assert client.messages(2)[1] == Message("t", b"second", 0)


@info_log
@by_shape
def test_v5_subscribe_after_a_two_byte_acknowledgement_is_not_understood(broker, keep):
    client, _ = acknowledged_once(broker, keep, PahoPython)
    client.client.subscribe("u", 0)
    wait_log(broker, "解码SUBSCRIBE失败：ClientID=sub")
    assert len([item for item in client.events.items if item[0] == "subscribe"]) == 1


@error_log
@pytest.mark.parametrize("maker", [Mosquitto, PahoPython], ids=lambda maker: maker.name)
def test_v5_disconnect_in_its_short_form_is_not_understood(broker, keep, maker):
    """The connection ends all the same, but as one that was lost."""
    maker.publish("leaver", "t", [b"hello"], level=5)
    wait_log(broker, "解码DISCONNECT失败：ClientID=leaver")
    assert not [line for line in broker.output() if "event disconnect" in line]


def test_v5_client_that_announces_no_maximum_is_disconnected_for_300_bytes(broker, keep):
    client = keep(MqttJs("big", level=5).connect())
    client.start_publish("t", filler(300), 1)
    client.wait_event("packet", cmd="disconnect", code=0x95)
    client.wait_event("close")


def test_v5_maximum_packet_size_below_256_is_raised_to_256(broker, keep):
    client = keep(MqttJs("a", level=5, properties={"maximumPacketSize": 100}))
    connack = client.finish(client.start("connect", options=client.options))
    assert connack["properties"]["maximumPacketSize"] == 256


@pytest.mark.host("--deny-user", "mallory")
def test_v5_refusal_carries_0x86(broker, keep):
    client = keep(MqttJs("a", level=5, username="mallory", password="secret"))
    client.start("connect", options=client.options)
    client.wait_event("packet", cmd="connack", code=0x86)
    client.wait_event("close")


PROPERTIES = {
    "payload_format_indicator_takes_a_byte_of_the_payload": ({"PayloadFormatIndicator": 1}, b"ello world"),
    "user_property_takes_the_payload": ({"UserProperty": ("a", "b")}, b""),
    "content_type_takes_the_payload": ({"ContentType": "text/plain"}, b""),
    "response_topic_takes_the_payload": ({"ResponseTopic": "reply"}, b""),
    "message_expiry_interval_leaves_it_alone": ({"MessageExpiryInterval": 60}, b"hello world"),
}


skipped_wrongly = pytest.mark.classic("LEVEL_BY_CONNECT: each property is as long as the standard says")


@pytest.mark.parametrize("name", [pytest.param(name, marks=skipped_wrongly if "takes" in name else ())
                                  for name in PROPERTIES])
def test_v5_property(broker, keep, name):
    """Properties of PUBLISH other than two are skipped as if each carried its length."""
    values, payload = PROPERTIES[name]
    client = keep(PahoPython.subscriber(broker, "sub", ["t"], 0, level=5))
    properties = Properties(PacketTypes.PUBLISH)
    for key, value in values.items():
        setattr(properties, key, value)
    keep(PahoPython("pub", level=5).connect()).publish_one("t", b"hello world", properties=properties)
    assert client.messages(1) == [Message("t", payload, 0)]


def test_v5_topic_alias_is_handed_on_in_a_form_that_clients_refuse(broker, keep):
    client = keep(MqttJs.subscriber(broker, "sub", ["t"], 0, level=5))
    properties = Properties(PacketTypes.PUBLISH)
    properties.TopicAlias = 5
    keep(PahoPython("pub", level=5).connect()).publish_one("t", b"hello", properties=properties)
    client.wait_event("error", text="Unknown property")


def test_v5_unsuback_without_property_length_ends_paho_python(broker, keep):
    client = keep(PahoPython("sub", level=5).connect())
    client.subscribe([("a", 0)])
    client.client.unsubscribe("a")
    broker.wait_events("unsubscribe")
    assert client.wait("disconnect")[1] != 0


def test_v5_client_is_not_told_the_name_it_was_given(broker, keep):
    client = keep(MqttJs("", level=5))
    connack = client.finish(client.start("connect", options=client.options))
    assert '"clientId":"auto_' in broker.wait_events("connect")[0]
    assert "assignedClientIdentifier" not in connack["properties"]


def test_v5_retain_as_published_and_no_local_are_not_looked_at(broker, keep):
    client = keep(MqttJs("sub", level=5).connect())
    client.finish(client.start("subscribe", filters=[["t", 0]], options={"nl": False, "rap": True}))
    publisher = keep(MqttJs("pub", level=5).connect())
    client.publish_one("t", b"mine")
    publisher.publish_one("t", b"hello", retain=True)
    message = client.wait_event("message")
    assert bytes.fromhex(message["payload"]) == b"hello" and message["retain"] is False
