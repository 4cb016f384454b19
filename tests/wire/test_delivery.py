"""Reliable delivery over the wire: what an unacknowledged message does, and how QoS 2 is carried through."""

import time

import pytest

from mqtt_wire import ack, publish

SECOND_REPETITION_S = 3.0


def deliver(subscriber, publisher, qos, payload=b"hello"):
    """One message on its way to a subscriber; its identifier there and when it came."""
    subscriber.subscribe(("t", qos))
    publisher.send(publish("t", payload, qos, 7))
    pid = subscriber.expect_publish("t", payload, qos)
    return pid, time.monotonic()


@pytest.mark.parametrize("qos", [1, 2])
def test_an_unacknowledged_message_comes_again_without_dup_and_then_with_dup(client, qos):
    subscriber, publisher = client("sub"), client("pub")
    pid, first = deliver(subscriber, publisher, qos)
    assert subscriber.expect_publish("t", b"hello", qos, dup=0) == pid
    again = time.monotonic()
    assert subscriber.expect_publish("t", b"hello", qos, dup=1) == pid
    # Never early; how late is the machine's affair.
    assert again - first > 0.9 and time.monotonic() - first > SECOND_REPETITION_S - 0.1


def test_an_acknowledged_message_does_not_come_again(client):
    subscriber, publisher = client("sub"), client("pub")
    pid, first = deliver(subscriber, publisher, 1)
    subscriber.send(ack(0x40, pid))
    publisher.send(publish("t", b"second", 1, 8))
    second = subscriber.expect_publish("t", b"second", 1)
    # The repetition of the second would come after one of the first.
    assert subscriber.expect_publish("t", b"second", 1) == second
    assert time.monotonic() - first > 0.9


def test_pubrec_is_answered_by_two_pubrels_and_ends_the_repetitions(client):
    subscriber, publisher = client("sub"), client("pub")
    pid, _ = deliver(subscriber, publisher, 2)
    subscriber.send(ack(0x50, pid))
    subscriber.expect(ack(0x62, pid), ack(0x62, pid))
    publisher.send(publish("t", b"marker", 1, 9))
    marker = subscriber.expect_publish("t", b"marker", 1)
    assert subscriber.expect_publish("t", b"marker", 1) == marker  # a second later, and nothing before it
    subscriber.send(ack(0x70, pid))
    subscriber.ping()


def test_puback_completes_a_qos_2_message(client):
    subscriber, publisher = client("sub"), client("pub")
    pid, _ = deliver(subscriber, publisher, 2)
    subscriber.send(ack(0x40, pid))
    subscriber.send(ack(0x50, pid))
    subscriber.expect(ack(0x62, pid))  # the packet handler's answer alone: the message is done
    subscriber.ping()


def test_a_message_in_flight_ends_with_its_connection(client):
    subscriber, publisher = client("sub"), client("pub")
    deliver(subscriber, publisher, 1)
    subscriber.close()
    successor = client("sub")
    successor.subscribe(("other", 1))
    publisher.send(publish("other", b"marker", 1, 8))
    marker = successor.expect_publish("other", b"marker", 1)
    assert successor.expect_publish("other", b"marker", 1) == marker


def test_the_same_identifier_from_a_publisher_is_routed_again(client):
    subscriber, publisher = client("sub"), client("pub")
    subscriber.subscribe(("t", 0))
    for _ in range(2):
        publisher.send(publish("t", b"twice", 2, 77))
        publisher.expect(ack(0x50, 77))
        subscriber.expect_publish("t", b"twice")
    publisher.send(ack(0x62, 77))
    publisher.expect(ack(0x70, 77))
