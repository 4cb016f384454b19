"""The byte stream under the packets: reassembly, limits, datagrams, and peers that behave badly."""

import os
import socket
import struct
import time

import pytest

from mqtt_wire import (CONNACK, DEADLINE_S, DISCONNECT, PINGREQ, PINGRESP, Conn, ack, connect, filler, hexs, publish,
                       string, suback, subscribe, unhex)


def test_two_packets_in_one_write_are_both_handled_in_order(client):
    subscriber, publisher = client("sub"), client("pub")
    subscriber.subscribe(("t", 0))
    publisher.send(publish("t", b"one") + publish("t", b"two"))
    subscriber.expect_publish("t", b"one")
    subscriber.expect_publish("t", b"two")


def test_packets_that_arrive_byte_by_byte_are_handled(client):
    conn = client("a")
    for byte in subscribe(7, ("t", 1)) + PINGREQ + publish("x", filler(200), 1, 8):
        conn.send(bytes([byte]))
    conn.expect(suback(7, 1), PINGRESP, ack(0x40, 8))


@pytest.mark.parametrize("cut", [1, 2, 3, 4])
def test_packet_split_in_its_fixed_header_is_handled(client, cut):
    subscriber, publisher = client("sub"), client("pub")
    subscriber.subscribe(("t", 0))
    whole = publish("t", filler(200))
    publisher.send(whole[:cut])
    subscriber.ping()  # the broker has been round its loop since
    publisher.send(whole[cut:])
    subscriber.expect_publish("t", filler(200))


def test_connect_and_more_in_one_write_are_handled(raw):
    conn = raw()
    conn.send(connect("a") + subscribe(1, ("t", 0)) + PINGREQ)
    conn.expect(CONNACK, suback(1, 0), PINGRESP)


def test_packet_of_5000_bytes_closes_the_connection(client):
    conn = client("a")
    conn.send(publish("t", filler(4994)))
    conn.expect_closed()


def test_connection_of_a_packet_of_5000_bytes_is_closed_once_4096_have_come(client):
    conn = client("a")
    conn.send(publish("t", filler(4994))[:4095])
    client("bystander").ping()
    conn.send(b"\xff")
    conn.expect_closed()


def test_remaining_length_of_five_bytes_never_makes_a_packet(client):
    conn = client("a")
    conn.send(unhex("30 FF FF FF FF FF") + PINGREQ * 2000)
    client("bystander").ping()
    conn.send(PINGREQ * 45)
    conn.expect_closed()


def test_remaining_length_may_be_written_with_more_bytes_than_needed(client):
    conn = client("a")
    conn.send(unhex("C0 80 80 00"))
    conn.expect(PINGRESP)
    conn.send(unhex("40 82 00 12 34"))
    conn.ping()


def test_ninety_nine_answers_wait_in_a_queue(client):
    conn = client("a")
    conn.send(PINGREQ * 99)
    conn.expect(*[PINGRESP] * 99)


def test_peer_that_sends_its_end_is_closed(client):
    conn = client("a")
    conn.sock.shutdown(socket.SHUT_WR)
    conn.expect_closed()


def test_peer_that_resets_its_connection_is_forgotten(client):
    conn, publisher = client("a"), client("pub")
    conn.subscribe(("t", 0))
    conn.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    conn.close()
    publisher.send(publish("t", b"hello", 1, 1))
    publisher.expect(ack(0x40, 1))


def test_descriptors_come_back_after_a_storm_of_connections(broker, raw, client):
    def descriptors():
        return len(os.listdir("/proc/%d/fd" % broker.process.pid))

    bystander = client("bystander")
    bystander.ping()
    before = descriptors()
    for number in range(300):
        conn = Conn()
        if number % 3:
            conn.send(connect("storm-%d" % (number % 20)))
        if number % 3 == 2:
            conn.expect(CONNACK)
            conn.send(DISCONNECT)
        conn.close()
    deadline = time.monotonic() + DEADLINE_S
    while descriptors() != before:
        assert time.monotonic() < deadline, "descriptors: expected %d, actual %d" % (before, descriptors())
        bystander.ping()


# A subscriber that stops reading


def stall(client, raw):
    """A subscriber that reads nothing, with everything full between it and the broker."""
    stalled = raw(receive_buffer=4096)
    stalled.send(connect("stalled"))
    stalled.expect(CONNACK)
    stalled.subscribe(("t", 0))
    reader, publisher = client("reader"), client("pub")
    reader.subscribe(("t", 0))
    for number in range(4000):
        message = struct.pack(">HH", 0xFFFF, number) + filler(1900)
        publisher.send(publish("t", message))
        if number % 40 == 39:
            for _ in range(40):
                reader.packet()
    return stalled, reader, publisher


def test_subscriber_that_stops_reading_delays_nobody_and_gets_whole_packets_later(client, raw):
    stalled, reader, publisher = stall(client, raw)
    publisher.ping()
    reader.ping()
    seen = []
    while True:
        try:
            got = stalled.packet(deadline_s=0.5)
        except AssertionError:
            stalled.send(PINGREQ)  # its answer comes behind all that still waits
            continue
        if got == PINGRESP:
            break
        assert len(got) == 3 + 3 + 1904 and got[:6] == unhex("30 F3 0E 00 01 74"), hexs(got[:16])
        assert got[10:] == filler(1900), "a packet with foreign bytes: %s" % hexs(got[10:])
        seen.append(struct.unpack(">H", got[8:10])[0])
    assert seen == sorted(set(seen)) and 100 <= len(seen) < 4000, len(seen)


def test_subscriber_that_stops_reading_costs_no_processor_time(broker, client, raw):
    def seconds_used():
        with open("/proc/%d/stat" % broker.process.pid) as stream:
            fields = stream.read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    stall(client, raw)
    before = seconds_used()
    time.sleep(2.0)  # the length of the measurement, not a wait for something to happen
    assert seconds_used() - before < 0.5


# Datagrams


def test_datagram_connect_is_answered_with_a_datagram(datagrams):
    datagrams.send(connect("udp"))
    datagrams.expect(CONNACK)
    datagrams.send(PINGREQ)
    datagrams.expect(PINGRESP)


def test_datagrams_and_streams_reach_each_other(datagrams, client):
    conn = client("tcp")
    conn.subscribe(("to/tcp", 0))
    datagrams.send(connect("udp"))
    datagrams.expect(CONNACK)
    datagrams.send(subscribe(1, ("to/udp", 0)))
    datagrams.expect(suback(1, 0))
    datagrams.send(publish("to/tcp", b"hello"))
    conn.expect_publish("to/tcp", b"hello")
    conn.send(publish("to/udp", b"hello"))
    datagrams.expect(publish("to/udp", b"hello"))


def test_only_the_first_packet_of_a_datagram_is_handled(datagrams):
    datagrams.send(connect("udp") + PINGREQ + PINGREQ)
    datagrams.expect(CONNACK)
    datagrams.send(subscribe(1, ("t", 0)))
    datagrams.expect(suback(1, 0))


def test_connect_datagram_that_is_shorter_than_it_says_is_decoded_from_what_is_there(datagrams):
    whole = connect("udp")
    datagrams.send(whole[:1] + b"\x7f" + whole[2:])
    datagrams.expect(CONNACK)


def test_datagram_that_is_cut_short_is_ignored(datagrams):
    datagrams.send(connect("udp"))
    datagrams.expect(CONNACK)
    for cut in range(1, len(publish("t", b"hello", 1, 5))):
        datagrams.send(publish("t", b"hello", 1, 5)[:cut])
    datagrams.send(PINGREQ)
    datagrams.expect(PINGRESP)


def test_datagram_peer_that_disconnects_may_connect_again(datagrams):
    for _ in range(3):
        datagrams.send(connect("udp"))
        datagrams.expect(CONNACK)
        datagrams.send(DISCONNECT)


@pytest.mark.host("--max-packet-size", "256")
def test_datagram_above_the_maximum_is_answered_with_disconnect(datagrams):
    datagrams.send(connect("udp", flags=0x04, rest=string("w") + string("m" * 300)))
    datagrams.expect(DISCONNECT)
    datagrams.send(connect("udp"))
    datagrams.expect(CONNACK)


def test_datagram_of_several_thousand_bytes_does_no_harm(datagrams):
    datagrams.send(filler(60000))
    datagrams.send(b"\x30" + b"\x80" * 5000)
    datagrams.send(string("x" * 4094))
    datagrams.send(connect("udp"))
    datagrams.expect(CONNACK)
