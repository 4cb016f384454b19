"""What the host program switches on unless it is given --classic, packet by packet."""

import json
import time

import pytest

from mqtt_wire import (CONNACK, DISCONNECT, PINGREQ, PINGRESP, ack, connect, filler, publish, string, suback,
                       subscribe, unsubscribe)

modern = pytest.mark.modern
CONNECT_TIMEOUT_S = 30


def json_of(size):
    return json.dumps({"v": "x" * (size - len(json.dumps({"v": ""})))}).encode()


@modern
@pytest.mark.parametrize("early", [PINGREQ, DISCONNECT, publish("t", filler(3)), subscribe(1, ("t", 0)),
                                   unsubscribe(1, "t"), ack(0x40, 1), b"\xf0\x00"],
                         ids=["ping", "disconnect", "publish", "subscribe", "unsubscribe", "puback", "auth"])
def test_a_packet_before_connect_closes_the_connection_unanswered(raw, client, early):
    watcher = client("watcher")
    watcher.subscribe(("#", 0))
    conn = raw()
    conn.send(early + connect("late"))
    conn.expect_closed()
    watcher.ping()  # and nothing else has come


@modern
def test_a_second_packet_waits_for_no_connack(raw):
    conn = raw()
    conn.send(connect("a") + PINGREQ)
    conn.expect(CONNACK, PINGRESP)


@modern
@pytest.mark.host("--deny-user", "mallory")
def test_what_follows_a_refused_connect_is_not_answered(raw):
    conn = raw()
    conn.send(connect("m", username="mallory", password="x") + PINGREQ)
    conn.expect_closed(CONNACK)


@modern
def test_datagrams_obey_as_well(datagrams):
    datagrams.send(PINGREQ)
    datagrams.send(connect("by-udp"))
    datagrams.expect(CONNACK)


@modern
def test_json_of_every_size_passes_at_level_4(client):
    sender, receiver = client("sender"), client("receiver")
    receiver.subscribe(("t", 0))
    for size in [*range(50, 260), 500, 1000, 1900]:
        sender.send(publish("t", json_of(size)))
        receiver.expect_publish("t", json_of(size))


@pytest.mark.classic("LEVEL_BY_CONNECT: payloads stay whole")
def test_without_the_option_a_json_payload_of_124_bytes_loses_its_first_byte(client):
    sender, receiver = client("sender"), client("receiver")
    receiver.subscribe(("t", 0))
    sender.send(publish("t", json_of(123)))
    receiver.expect_publish("t", json_of(123))
    sender.send(publish("t", json_of(124)))
    got = receiver.packet()
    assert not got.endswith(json_of(124)), "the fixed rule takes it for a property block"


@modern
@pytest.mark.parametrize("qos", [1, 2])
def test_two_byte_acknowledgements_leave_a_level_5_subscriber_at_level_5(client, qos):
    sender, receiver = client("sender", level=5), client("receiver", level=5)
    receiver.subscribe(("t", qos), level=5)
    for number in range(5):
        sender.send(publish("t", b"message %d" % number, level=5))
        sender.ping()
    sender.send(publish("t", b"one", 1, 7, level=5))
    packets = [receiver.packet() for _ in range(6)]
    assert packets[5].endswith(b"\x00one"), "an empty property block stands before the payload"
    assert all(b"\x00message" in packet for packet in packets[:5])


@modern
@pytest.mark.parametrize("acknowledgement", [2, 3, 4])
def test_every_delivery_at_qos_1_has_a_property_block(client, acknowledgement):
    sender, receiver = client("sender"), client("receiver", level=5)
    receiver.subscribe(("t", 1), level=5)
    for number in range(10):
        sender.send(publish("t", b"%d" % number, 1, number + 1))
        sender.expect(ack(0x40, number + 1))
        packet = receiver.packet()
        assert packet[0] == 0x32 and packet[-2:] == b"\x00%d" % number, packet
        pid = packet[5:7]
        receiver.send(b"\x40" + bytes([acknowledgement]) + pid + b"\x00" * (acknowledgement - 2))
    receiver.send(subscribe(9, ("u", 0), level=5))
    receiver.expect(suback(9, 0, level=5))


@modern
def test_a_second_connect_of_the_other_level_is_dropped(client):
    sender, receiver = client("sender"), client("receiver")
    receiver.subscribe(("t", 0))
    for packet in (connect("sender", 5), connect("sender", 5)[:-1] + b"\x00"):
        sender.send(packet)
        sender.ping()
        sender.send(publish("t", json_of(151)))
        receiver.expect_publish("t", json_of(151))


def will(topic, payload, level):
    """The will's part of a CONNECT."""
    return (b"\x00" if level == 5 else b"") + string(topic) + string(payload)


@modern
@pytest.mark.parametrize("owner_level", [4, 5])
def test_a_will_reaches_subscribers_of_both_levels_whole(raw, client, owner_level):
    old, new = client("old"), client("new", level=5)
    old.subscribe(("w", 0))
    new.subscribe(("w", 0), level=5)
    owner = raw()
    owner.send(connect("owner", owner_level, flags=0x04, rest=will("w", b'{"a":1}', owner_level)))
    owner.packet()
    owner.close()
    old.expect_publish("w", b'{"a":1}')
    new.expect_publish("w", b'{"a":1}', level=5)


@modern
@pytest.mark.parametrize("qos", [1, 2])
def test_everything_that_is_sent_to_level_5_keeps_its_property_block(client, qos):
    sender, receiver = client("sender"), client("receiver", level=5)
    sender.send(publish("t/kept", b"kept", retain=1))
    sender.ping()
    receiver.subscribe(("t/live", qos), level=5)
    sender.send(publish("t/live", b"live", qos, 1))
    packet = receiver.packet()
    assert packet.endswith(b"\x00live")
    pid = packet[10:12]
    receiver.send((b"\x40\x02" if qos == 1 else b"\x50\x02") + pid)  # two bytes: of level 4 by their shape
    if qos == 2:
        assert receiver.packet()[:1] == b"\x62"
        receiver.packet()
        receiver.send(b"\x70\x02" + pid)
    receiver.send(subscribe(8, ("t/kept", 0), level=5))
    assert receiver.packet().endswith(b"\x00kept")
    receiver.expect(suback(8, 0, level=5))


@modern
def test_a_malformed_property_block_at_level_5_is_dropped(client):
    sender, receiver = client("sender", level=5), client("receiver")
    receiver.subscribe(("t", 0))
    sender.send(bytes.fromhex("30 05 00 01 74 05 78"))
    sender.ping()
    sender.send(publish("t", filler(4), level=5))
    receiver.expect_publish("t", filler(4))


@modern
def test_connections_without_connect_are_closed_after_30_seconds(raw, client):
    proper = client("proper")
    silent, half = raw(), raw()
    opened = time.monotonic()
    half.send(connect("half")[:-1])
    for conn in (silent, half):
        conn.expect_closed(deadline_s=2 * CONNECT_TIMEOUT_S)
    waited = time.monotonic() - opened
    assert waited > CONNECT_TIMEOUT_S - 1, waited
    proper.ping()
