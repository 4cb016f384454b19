"""Retained messages over the wire."""

from mqtt_wire import PINGREQ, ack, filler, publish, suback, subscribe


def parse(packet):
    """Topic and payload of a QoS 0 PUBLISH with two length bytes."""
    assert packet[0] == 0x31 and packet[1] >= 0x80, packet
    length = packet[3] << 8 | packet[4]
    return packet[5:5 + length].decode(), packet[5 + length:]


def test_a_retained_message_comes_before_the_suback_with_its_own_qos(client):
    publisher = client("pub")
    publisher.send(publish("t", b"kept", 2, 7, retain=1))
    publisher.expect(ack(0x50, 7))
    subscriber = client("sub")
    subscriber.send(subscribe(1, ("t", 0)))
    subscriber.expect_publish("t", b"kept", 2, retain=1)
    subscriber.expect(suback(1, 0))


def test_live_subscribers_get_it_without_the_retain_flag(client):
    subscriber, publisher = client("sub"), client("pub")
    subscriber.subscribe(("t", 0))
    publisher.send(publish("t", b"kept", retain=1))
    subscriber.expect_publish("t", b"kept", retain=0)


def test_a_later_message_replaces_an_earlier_one(client):
    publisher, subscriber = client("pub"), client("sub")
    for payload in (b"first", b"second"):
        publisher.send(publish("t", payload, retain=1))
    publisher.ping()
    subscriber.send(subscribe(1, ("t", 0)))
    subscriber.expect_publish("t", b"second", retain=1)
    subscriber.expect(suback(1, 0))


def test_an_empty_payload_deletes_it(client):
    publisher, subscriber = client("pub"), client("sub")
    publisher.send(publish("t", b"kept", retain=1) + publish("t", b"", retain=1))
    publisher.ping()
    subscriber.subscribe(("t", 0))
    subscriber.ping()


def test_wildcards_bring_all_that_match_in_the_order_they_were_first_set(client):
    publisher, subscriber = client("pub"), client("sub")
    for topic in ("a/z", "a/m", "b/a", "a/a"):
        publisher.send(publish(topic, topic.encode(), retain=1))
    publisher.send(publish("a/m", b"newer", retain=1))  # keeps its place
    publisher.ping()
    subscriber.send(subscribe(1, ("a/+", 1)))
    for topic, payload in (("a/z", b"a/z"), ("a/m", b"newer"), ("a/a", b"a/a")):
        subscriber.expect_publish(topic, payload, retain=1)
    subscriber.expect(suback(1, 1))


def test_each_filter_of_a_packet_brings_its_own(client):
    publisher, subscriber = client("pub"), client("sub")
    publisher.send(publish("a", b"A", retain=1) + publish("b", b"B", retain=1))
    publisher.ping()
    subscriber.send(subscribe(1, ("b", 0), ("a", 0)))
    subscriber.expect_publish("b", b"B", retain=1)
    subscriber.expect_publish("a", b"A", retain=1)
    subscriber.expect(suback(1, 0, 0))


def test_a_shared_filter_brings_them_too(client):
    publisher, subscriber = client("pub"), client("sub")
    publisher.send(publish("a", b"A", retain=1))
    publisher.ping()
    subscriber.send(subscribe(1, ("$share/g/a", 0)))
    subscriber.expect_publish("a", b"A", retain=1)
    subscriber.expect(suback(1, 0))


def test_a_subscriber_to_everything_gets_what_its_queue_holds_and_stalls_nobody(client):
    publisher, greedy, bystander = client("pub"), client("greedy"), client("bystander")
    bystander.subscribe(("live", 0))
    for number in range(1001):
        publisher.send(publish("r/%d" % number, filler(200), retain=1))
        if number % 50 == 49:
            publisher.ping()
    publisher.ping()
    greedy.send(subscribe(1, ("r/#", 0)))
    # At most 99 wait at a time; how many more leave while the walk goes on is the send thread's luck. What comes
    # is whole and in the store's order; the SUBACK may be among what was dropped.
    publisher.send(publish("live", b"meanwhile"))
    bystander.expect_publish("live", b"meanwhile")
    seen = []
    while True:
        got = greedy.packet()
        if got[0] == 0xD0:
            break
        if got[0] == 0x90:
            continue
        topic, _ = parse(got)
        seen.append(int(topic[2:]))
        if len(seen) == 50:  # the queue has been emptied since
            greedy.send(PINGREQ)
    assert len(seen) >= 99 and seen == sorted(seen) and seen[0] == 0, seen
    assert max(seen) < 1000  # the 1001st topic found the store full
