"""CONNECT and CONNACK at both protocol levels, and what a connection may do before and after them."""

import json

import pytest

from mqtt_wire import (CONNACK, DISCONNECT, DISCONNECT_V5, ack, connack_v5, connect, filler, maximum_packet_size,
                       packet, publish, string, suback, subscribe, unhex)
from slots import names_apart

DISCONNECT_TOO_LARGE = unhex("E0 02 95 00")


def client_ids(broker, count):
    return [json.loads(event)["clientId"] for event in broker.wait_events("connect", count)]


def test_level_4_connack_is_four_bytes(raw):
    conn = raw()
    conn.send(connect("a"))
    conn.expect(unhex("20 02 00 00"))


def test_level_5_connack_is_thirteen_bytes_and_announces_the_clients_own_maximum(raw):
    conn = raw()
    conn.send(connect("a", 5, props=maximum_packet_size(1000)))
    conn.expect(unhex("20 0B 00 00 08 21 FF FF 27 00 00 03 E8"))


def test_level_5_without_maximum_packet_size_is_held_to_256_bytes(raw):
    conn = raw()
    conn.send(connect("a", 5))
    conn.expect(unhex("20 0B 00 00 08 21 FF FF 27 00 00 01 00"))
    conn.send(publish("t", b"x" * 293, level=5))
    conn.expect_closed(DISCONNECT_TOO_LARGE)


def test_level_5_packet_of_exactly_the_maximum_is_accepted(raw):
    conn = raw()
    conn.send(connect("a", 5))
    conn.expect(connack_v5(256))
    largest = publish("t", b"x" * (256 - 3 - 3 - 2 - 1), qos=1, pid=7, level=5)
    assert len(largest) == 256
    conn.send(largest)
    conn.expect(ack(0x40, 7, 0))
    conn.send(publish("t", b"x" * (257 - 3 - 3 - 2 - 1), qos=1, pid=8, level=5))
    conn.expect_closed(DISCONNECT_TOO_LARGE)


@pytest.mark.parametrize("asked, given", [(0, 256), (100, 256), (255, 256), (256, 256), (257, 257), (0xFFFFFFFF,) * 2])
def test_level_5_maximum_packet_size_below_256_is_forced_to_256(raw, asked, given):
    conn = raw()
    conn.send(connect("a", 5, props=maximum_packet_size(asked)))
    conn.expect(connack_v5(given))


def test_level_5_unknown_property_hides_the_properties_after_it(raw):
    conn = raw()
    conn.send(connect("a", 5, props=b"\x17\x01" + maximum_packet_size(4096)))
    conn.expect(connack_v5(256))
    other = raw()
    other.send(connect("b", 5, props=maximum_packet_size(4096) + b"\x17\x01"))
    other.expect(connack_v5(4096))


@pytest.mark.classic("REQUIRE_CONNECT: closed unanswered")
def test_ping_before_connect_is_answered(raw):
    raw().ping()


@pytest.mark.classic("REQUIRE_CONNECT: closed unanswered")
def test_subscribe_before_connect_is_refused_per_filter(raw):
    conn = raw()
    conn.send(subscribe(1, ("t", 0)))
    conn.expect(suback(1, 0x80))


@pytest.mark.classic("REQUIRE_CONNECT: closed unanswered")
def test_publish_before_connect_is_routed_and_acknowledged(raw, client):
    subscriber = client("sub")
    subscriber.subscribe(("t", 0))
    conn = raw()
    conn.send(publish("t", b"early", qos=1, pid=3))
    conn.expect(ack(0x40, 3))
    subscriber.expect_publish("t", b"early")


@pytest.mark.host("--max-packet-size", "256")
def test_configured_maximum_applies_before_connect(raw):
    def connect_of(size):
        whole = connect("a", flags=0x04, rest=string("w") + string("m" * (size - 21)))
        assert len(whole) == size
        return whole

    small = raw()
    small.send(connect_of(256))
    small.expect(CONNACK)
    large = raw()
    large.send(connect_of(257))
    large.expect_closed(DISCONNECT)


@pytest.mark.host("--max-packet-size", "256")
@pytest.mark.classic("REQUIRE_CONNECT: closed unanswered")
def test_configured_maximum_applies_to_publications_before_connect(raw):
    small = raw()
    small.send(publish("t", filler(248), qos=1, pid=1))
    small.expect(ack(0x40, 1))
    large = raw()
    large.send(publish("t", filler(249), qos=1, pid=1))
    large.expect_closed(DISCONNECT)


@pytest.mark.host("--max-packet-size", "256")
def test_level_4_connect_lifts_the_configured_maximum_to_4096(client):
    conn = client("a")
    conn.send(publish("t", filler(2000), qos=1, pid=1))
    conn.expect(ack(0x40, 1))


other_level = pytest.mark.classic("LEVEL_BY_CONNECT: a second CONNECT of the other level is dropped")


@pytest.mark.host("--print-events")
@pytest.mark.parametrize("first, second", [(4, 4), (5, 5), pytest.param(4, 5, marks=other_level),
                                           pytest.param(5, 4, marks=other_level)])
def test_second_connect_on_a_connection_is_answered_again(broker, client, first, second):
    conn = client("first", first)
    conn.send(connect("second", second))
    conn.expect(connack_v5(256) if second == 5 else CONNACK)
    assert client_ids(broker, 2) == ["first", "second"]


@pytest.mark.host("--deny-user", "mallory")
def test_second_connect_is_authenticated_again(client):
    conn = client("a", username="alice", password="secret")
    conn.send(connect("a", username="mallory", password="secret"))
    conn.expect_closed(CONNACK)


@pytest.mark.host("--deny-user", "mallory")
def test_refused_level_4_client_gets_return_code_0_and_is_closed(raw):
    conn = raw()
    conn.send(connect("a", username="mallory", password="secret"))
    conn.expect_closed(unhex("20 02 00 00"))


@pytest.mark.host("--deny-user", "mallory")
def test_refused_level_5_client_gets_reason_0x86_and_is_closed(raw):
    conn = raw()
    conn.send(connect("a", 5, username="mallory", password="secret"))
    conn.expect_closed(connack_v5(4096, 0x86))


@pytest.mark.host("--deny-user", "mallory")
def test_every_refusal_arrives_before_the_close(raw):
    for _ in range(30):
        conn = raw()
        conn.send(connect("a", username="mallory"))
        conn.expect_closed(CONNACK)


def test_password_without_user_name_is_accepted(client):
    client("a", password="secret").ping()


@pytest.mark.host("--print-events")
def test_empty_client_id_with_clean_session_is_named_by_the_broker(broker, raw):
    conn = raw()
    conn.send(connect(""))
    conn.expect(CONNACK)
    name = client_ids(broker, 1)[0]
    assert name.startswith("auto_") and name[5:].isdigit(), name


@pytest.mark.host("--print-events")
def test_clients_without_an_id_get_names_and_messages_of_their_own(broker, raw, client):
    unnamed = [raw() for _ in range(5)]
    for conn in unnamed:
        conn.send(connect(""))
        conn.expect(CONNACK)
    for number, conn in enumerate(unnamed):
        conn.subscribe(("to/%d" % number, 0))
    publisher = client(*names_apart("publisher-", 1))
    for number in range(len(unnamed)):
        publisher.send(publish("to/%d" % number, b"for %d" % number))
    publisher.ping()
    for number, conn in enumerate(unnamed):
        conn.expect_publish("to/%d" % number, b"for %d" % number)
        conn.ping()
    names = client_ids(broker, 6)[:5]
    assert len(set(names)) == 5 and all(name.startswith("auto_") for name in names), names


def test_level_4_client_id_may_have_23_bytes(client):
    client("i" * 23).ping()


@pytest.mark.host("--print-events")
def test_level_5_client_id_keeps_63_bytes(broker, client):
    client("0123456789" * 7, 5)
    assert client_ids(broker, 1) == [("0123456789" * 7)[:63]]


@pytest.mark.host("--deny-user", "fghij")
def test_level_5_client_id_beyond_64_bytes_is_read_as_the_next_field(raw):
    identifier = b"c" * 64 + string("fghij")
    conn = raw()
    conn.send(connect(identifier, 5, flags=0x80))
    assert conn.packet()[:4] == unhex("20 0B 00 86")
    conn.expect_closed()


MALFORMED = {
    "level_4_client_id_of_24_bytes": connect("i" * 24),
    "empty_client_id_without_clean_session": connect("", clean=False),
    "empty_level_5_client_id_without_clean_start": connect("", 5, clean=False),
    "protocol_name_of_mqtt_3_1": packet(0x10, string("MQIsdp") + unhex("03 02 00 3C") + string("a")),
    "protocol_level_3": connect("a", 3),
    "protocol_level_6": connect("a", 6),
    "flags_in_the_first_byte": b"\x11" + connect("a")[1:],
    "will_with_qos_3": connect("a", flags=0x1C, rest=string("w") + string("m")),
    "will_without_topic": connect("a", flags=0x04),
    "will_with_empty_topic": connect("a", flags=0x04, rest=string("") + string("m")),
    "will_topic_of_257_bytes": connect("a", flags=0x04, rest=string("w" * 257) + string("m")),
    "will_payload_of_2049_bytes": connect("a", flags=0x04, rest=string("w") + string("m" * 2049)),
    "user_name_flag_without_user_name": connect("a", flags=0x80),
    "empty_user_name": connect("a", username=""),
    "user_name_of_65_bytes": connect("a", username="u" * 65),
    "password_of_65_bytes": connect("a", username="u", password="p" * 65),
    "client_id_past_the_end": packet(0x10, string("MQTT") + unhex("04 02 00 3C 00 05 61")),
    "ends_before_the_client_id": packet(0x10, string("MQTT") + unhex("04 02 00 3C")),
    "ends_before_the_keep_alive": packet(0x10, string("MQTT") + unhex("04 02")),
    "level_5_property_cut_short": connect("a", 5, props=b"\x27\x00\x00"),
    "level_5_property_length_of_four_bytes": packet(0x10, string("MQTT") + unhex("05 02 00 3C FF FF FF 7F 00 01 61")),
    "no_body": unhex("10 00"),
}


@pytest.mark.parametrize("name", MALFORMED)
def test_malformed_connect_is_ignored_and_the_connection_kept(raw, name):
    conn = raw()
    conn.send(MALFORMED[name])
    conn.send(connect("good"))
    conn.expect(CONNACK)
    conn.ping()


def test_reserved_connect_flag_is_not_looked_at(client):
    client("a", flags=0x01).ping()


def test_will_qos_and_retain_without_will_are_not_looked_at(client):
    client("a", flags=0x38).ping()


def test_bytes_after_the_last_field_are_ignored(raw):
    conn = raw()
    conn.send(packet(0x10, connect("a")[2:] + b"trailing"))
    conn.expect(CONNACK)
    conn.ping()


def test_clean_session_answers_without_session_present(client):
    first = client("same")
    first.send(DISCONNECT)
    first.expect_closed()
    client("same").ping()


def test_same_client_id_moves_messages_to_the_newer_connection(client):
    older = client("same")
    older.subscribe(("t", 0))
    newer = client("same")
    newer.subscribe(("t", 0))
    publisher = client("publisher")
    publisher.send(publish("t", b"one"))
    publisher.ping()
    newer.expect_publish("t", b"one")
    older.ping()


def test_closing_the_older_connection_does_not_make_the_newer_deaf(broker, client):
    older = client("same", clean=False)
    newer = client("same", clean=False)
    newer.subscribe(("t", 0))
    older.send(DISCONNECT)
    older.expect_closed()
    publisher = client("publisher")
    publisher.send(publish("t", b"one"))
    newer.expect_publish("t", b"one")


def test_level_4_packet_above_4096_bytes_closes_the_connection(client):
    conn = client("a")
    largest = publish("t", filler(4088), qos=1, pid=1)
    assert len(largest) == 4096
    conn.send(largest)
    conn.expect(ack(0x40, 1))
    conn.send(publish("t", filler(4089), qos=1, pid=2))
    conn.expect_closed()


@pytest.mark.parametrize("first_byte", [0x00, 0x20, 0x90, 0xB0, 0xD0, 0xF0])
def test_packet_types_that_no_client_sends_are_dropped(client, first_byte):
    conn = client("a")
    conn.send(packet(first_byte, b"\x00\x01\x00"))
    conn.ping()


@pytest.mark.host("--max-clients", "3")
def test_client_beyond_the_capacity_is_closed_at_its_first_packet(raw, client):
    first = client("1")
    client("2")
    client("3")
    conn = raw()
    conn.send(connect("4"))
    conn.expect_closed()
    first.send(DISCONNECT)
    first.expect_closed()
    client("5", 5).send(DISCONNECT_V5)
