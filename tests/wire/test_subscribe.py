"""SUBSCRIBE, UNSUBSCRIBE, PINGREQ, DISCONNECT and the acknowledgements that a client sends."""

import pytest

from mqtt_wire import DISCONNECT, ack, packet, publish, string, suback, subscribe, unhex, unsubscribe

PROPERTIES = unhex("0B 07")  # a subscription identifier


# SUBSCRIBE


@pytest.mark.parametrize("qos", [0, 1, 2])
def test_level_4_grants_the_requested_qos(client, qos):
    conn = client("a")
    conn.send(subscribe(0x1234, ("t", qos)))
    conn.expect(unhex("90 03 12 34") + bytes([qos]))


@pytest.mark.parametrize("qos", [0, 1, 2])
def test_level_5_suback_has_a_zero_byte_before_the_codes(client, qos):
    conn = client("a", 5)
    conn.send(subscribe(0x1234, ("t", qos), level=5))
    conn.expect(unhex("90 04 12 34 00") + bytes([qos]))


def test_codes_come_in_the_order_of_the_filters(client):
    conn = client("a")
    conn.send(subscribe(1, ("a", 2), ("b#", 0), ("c", 0), ("d/+/#", 1), ("e", 1)))
    conn.expect(unhex("90 07 00 01 02 80 00 80 01"))


def test_level_5_codes_come_in_the_order_of_the_filters(client):
    conn = client("a", 5)
    conn.send(subscribe(1, ("a#", 2), ("b", 1), level=5))
    conn.expect(unhex("90 05 00 01 00 80 01"))


@pytest.mark.parametrize("topic_filter", ["a#", "a/#/b", "#/a", "a/+/#", "+/#", "a/b+", "a+/b", "++", "a/+b"])
def test_invalid_filters_are_refused(client, topic_filter):
    conn = client("a")
    conn.send(subscribe(1, (topic_filter, 0)))
    conn.expect(suback(1, 0x80))


@pytest.mark.parametrize("topic_filter", ["#", "+", "a/#", "a/+", "+/b", "+/+", "a//b", "/", "$SYS/#", "$share/g/t",
                                          "$share/g/+", "t" * 256])
def test_valid_filters_are_granted(client, topic_filter):
    conn = client("a")
    conn.send(subscribe(1, (topic_filter, 1)))
    conn.expect(suback(1, 1))


def test_requested_qos_3_is_refused(client):
    conn = client("a")
    conn.send(subscribe(1, ("t", 3), ("u", 0)))
    conn.expect(suback(1, 0x80, 0))


def test_other_subscription_options_are_not_looked_at(client):
    conn = client("a", 5)
    conn.send(subscribe(1, ("t", 0x2D), level=5))
    conn.expect(suback(1, 1, level=5))


@pytest.mark.parametrize("props", [unhex("0B 07"), unhex("26 01 27 02"), unhex("09 02 61 62"), unhex("0B 07 26 01")])
def test_level_5_properties_are_skipped(client, props):
    conn = client("a", 5)
    conn.send(subscribe(1, ("t", 1), level=5, props=props))
    conn.expect(suback(1, 1, level=5))


def test_seventeenth_filter_is_ignored(client):
    conn, publisher = client("a"), client("pub")
    conn.send(subscribe(1, *[("f/%d" % number, number % 3) for number in range(17)]))
    conn.expect(suback(1, *[number % 3 for number in range(16)]))
    publisher.send(publish("f/16", b"hello"))
    publisher.send(publish("f/15", b"hello"))
    conn.expect_publish("f/15", b"hello")
    conn.ping()


@pytest.mark.host("--deny-topic", "secret/")
def test_filter_that_the_application_refuses_gets_0x80(client):
    conn = client("a")
    conn.send(subscribe(1, ("secret/x", 1), ("open", 1)))
    conn.expect(suback(1, 0x80, 1))


def test_subscribing_again_changes_the_qos(client):
    conn, publisher = client("a"), client("pub")
    conn.subscribe(("t", 0))
    conn.subscribe(("t", 1))
    publisher.send(publish("t", b"hello", 1, 5))
    conn.send(ack(0x40, conn.expect_publish("t", b"hello", 1)))
    conn.ping()


def test_filters_before_a_broken_one_are_granted(client):
    conn = client("a")
    conn.send(packet(0x82, b"\x00\x01" + string("a") + b"\x01" + string("b")))
    conn.expect(suback(1, 1))
    conn.send(packet(0x82, b"\x00\x02" + string("a") + b"\x01" + string("b" * 257) + b"\x00"))
    conn.expect(suback(2, 1))
    conn.send(packet(0x82, b"\x00\x03" + string("a") + b"\x01" + string("") + b"\x00"))
    conn.expect(suback(3, 1))


MALFORMED_SUBSCRIBE = {
    "flags_0": b"\x80" + subscribe(1, ("t", 0))[1:],
    "flags_3": b"\x83" + subscribe(1, ("t", 0))[1:],
    "identifier_0": subscribe(0, ("t", 0)),
    "no_filter": subscribe(1),
    "empty_filter": subscribe(1, ("", 0)),
    "filter_of_257_bytes": subscribe(1, ("t" * 257, 0)),
    "filter_without_options": packet(0x82, b"\x00\x01" + string("t")),
    "filter_past_the_end": packet(0x82, unhex("00 01 00 05 74")),
    "no_body": packet(0x82),
}


@pytest.mark.parametrize("name", MALFORMED_SUBSCRIBE)
def test_malformed_subscribe_is_ignored_and_the_connection_kept(client, name):
    conn = client("a")
    conn.send(MALFORMED_SUBSCRIBE[name])
    conn.ping()
    conn.subscribe(("t", 0))


# UNSUBSCRIBE


def test_level_4_unsuback_is_four_bytes(client):
    conn = client("a")
    conn.send(unsubscribe(0x1234, "t"))
    conn.expect(unhex("B0 02 12 34"))


def test_level_5_unsuback_carries_a_single_code(client):
    conn = client("a", 5)
    conn.send(unsubscribe(0x1234, "t", "u", level=5))
    conn.expect(unhex("B0 03 12 34 00"))


@pytest.mark.parametrize("level", [4, 5])
def test_unsubscribed_filters_deliver_no_more(client, level):
    conn, publisher = client("a", level), client("pub")
    conn.subscribe(("a", 0), ("b", 0), ("c/+", 0), level=level)
    conn.send(unsubscribe(9, "a", "c/+", "never", level=level))
    conn.expect(ack(0xB0, 9, 0 if level == 5 else None))
    for topic in ("a", "c/d", "b"):
        publisher.send(publish(topic, b"hello"))
    conn.expect_publish("b", b"hello", level=level)
    conn.ping()


def test_unsubscribe_without_filters_is_answered(client):
    conn = client("a")
    conn.send(unhex("A2 02 00 07"))
    conn.expect(unhex("B0 02 00 07"))


def test_unsubscribe_takes_sixteen_filters(client):
    conn, publisher = client("a"), client("pub")
    conn.subscribe(*[("f/%d" % number, 0) for number in range(16)])
    conn.subscribe(("f/16", 0))
    conn.send(unsubscribe(9, *["f/%d" % number for number in range(17)]))
    conn.expect(ack(0xB0, 9))
    publisher.send(publish("f/15", b"hello"))
    publisher.send(publish("f/16", b"hello"))
    conn.expect_publish("f/16", b"hello")
    conn.ping()


MALFORMED_UNSUBSCRIBE = {
    "flags_0": b"\xa0" + unsubscribe(1, "t")[1:],
    "identifier_0": unsubscribe(0, "t"),
    "empty_filter": unsubscribe(1, ""),
    "filter_of_257_bytes": unsubscribe(1, "t" * 257),
    "filter_past_the_end": packet(0xA2, unhex("00 01 00 05 74")),
    "half_a_filter_length": packet(0xA2, unhex("00 01 00")),
    "remaining_length_of_2049": packet(0xA2, unhex("00 01") + (string("t" * 255) * 8)[:2047]),
    "no_body": packet(0xA2),
}


@pytest.mark.parametrize("name", MALFORMED_UNSUBSCRIBE)
def test_malformed_unsubscribe_is_ignored_and_the_connection_kept(client, name):
    conn = client("a")
    conn.send(MALFORMED_UNSUBSCRIBE[name])
    conn.ping()
    conn.send(unsubscribe(2, "t"))
    conn.expect(ack(0xB0, 2))


# PINGREQ


@pytest.mark.parametrize("level", [4, 5])
def test_ping_is_answered(client, level):
    conn = client("a", level)
    conn.send(unhex("C0 00"))
    conn.expect(unhex("D0 00"))


def test_ping_with_a_body_is_answered_too(client):
    conn = client("a")
    conn.send(unhex("C0 02 00 00"))
    conn.expect(unhex("D0 00"))


# DISCONNECT


@pytest.mark.parametrize("bytes_sent", ["E0 00", "E5 00"])
def test_level_4_disconnect_closes_the_connection(client, bytes_sent):
    conn = client("a")
    conn.send(unhex(bytes_sent))
    conn.expect_closed()


@pytest.mark.parametrize("bytes_sent", ["E0 02 00 00", "E0 02 04 00", "E0 07 00 05 10 00 00 00 3C",
                                        "E0 06 00 04 1F 00 01 78", "E0 06 00 04 26 00 01 78"])
def test_level_5_disconnect_with_a_property_length_closes_the_connection(client, bytes_sent):
    conn = client("a", 5)
    conn.send(unhex(bytes_sent))
    conn.expect_closed()


def test_level_4_disconnect_with_a_body_is_ignored(client):
    conn = client("a")
    conn.send(unhex("E0 01 00"))
    conn.send(unhex("E0 02 00 00"))
    conn.ping()


@pytest.mark.parametrize("bytes_sent", ["E0 00", "E0 01 00", "E0 01 8E", "E0 07 00 05 11 00 00 00 3C", "E0 02 00 05",
                                        "E0 03 00 01 1F"])
def test_level_5_disconnect_that_is_not_well_formed_is_ignored(client, bytes_sent):
    conn = client("a", 5)
    conn.send(unhex(bytes_sent))
    conn.ping()


def test_packets_after_disconnect_are_not_handled(client):
    subscriber, conn = client("sub"), client("a")
    subscriber.subscribe(("t", 0))
    conn.send(DISCONNECT + publish("t", b"hello"))
    conn.expect_closed()
    subscriber.ping()


# Acknowledgements


IN_LEVEL_4_FORM = [("62 02 12 34", "70 02 12 34"), ("60 02 12 34", "70 02 12 34"), ("62 02 00 00", "70 02 00 00"),
                   ("50 02 12 34", "62 02 12 34")]
IN_LEVEL_5_FORM = [("62 03 12 34 92", "70 03 12 34 00"), ("62 04 12 34 00 00", "70 03 12 34 00"),
                   ("50 03 12 34 00", "62 03 12 34 00")]
OF_THE_LEVEL = [(4, *row) for row in IN_LEVEL_4_FORM] + [(5, *row) for row in IN_LEVEL_5_FORM]
OF_THE_OTHER = [(5, *row) for row in IN_LEVEL_4_FORM] + [(4, *row) for row in IN_LEVEL_5_FORM]


def check_answer(conn, bytes_sent, answer):
    conn.send(unhex(bytes_sent))
    conn.expect(answer)
    conn.ping()


@pytest.mark.parametrize("level, bytes_sent, answer", OF_THE_LEVEL)
def test_acknowledgement_of_an_unknown_identifier_is_answered(client, level, bytes_sent, answer):
    check_answer(client("a", level), bytes_sent, unhex(answer))


@pytest.mark.classic("LEVEL_BY_CONNECT: the answer has the form of the level")
@pytest.mark.parametrize("level, bytes_sent, answer", OF_THE_OTHER)
def test_acknowledgement_in_the_other_levels_form_is_answered_in_that_form(client, level, bytes_sent, answer):
    check_answer(client("a", level), bytes_sent, unhex(answer))


@pytest.mark.modern
@pytest.mark.parametrize("level, bytes_sent, answer", OF_THE_OTHER)
def test_acknowledgement_in_the_other_levels_form_is_answered_in_that_of_its_own(client, level, bytes_sent, answer):
    other = unhex(answer)
    own = ack(other[0], int.from_bytes(other[2:4], "big"), 0 if level == 5 else None)
    check_answer(client("a", level), bytes_sent, own)


@pytest.mark.parametrize("bytes_sent", ["40 02 12 34", "70 02 12 34", "40 03 12 34 10", "70 04 12 34 00 00"])
def test_final_acknowledgement_of_an_unknown_identifier_is_not_answered(client, bytes_sent):
    conn = client("a")
    conn.send(unhex(bytes_sent))
    conn.ping()


@pytest.mark.parametrize("bytes_sent", ["40 00", "50 00", "62 00", "70 00", "40 01 12", "50 01 12", "62 01 12",
                                        "70 01 12"])
def test_acknowledgement_without_an_identifier_is_ignored(client, bytes_sent):
    conn = client("a")
    conn.send(unhex(bytes_sent))
    conn.ping()
