"""Publications from one connection to others: who gets what, in which form, and what the publisher is told."""

import pytest

from mqtt_wire import ack, connack_v5, connect, filler, packet, publish, string, suback, subscribe, unhex

EXPIRY_60 = unhex("02 00 00 00 3C")


def test_qos_0_at_level_4_is_forwarded_byte_for_byte(client):
    subscriber, publisher = client("sub"), client("pub")
    subscriber.subscribe(("a/b", 0))
    publisher.send(unhex("30 07 00 03 61 2F 62 68 69"))
    subscriber.expect(unhex("30 07 00 03 61 2F 62 68 69"))


def test_qos_0_at_level_5_is_forwarded_byte_for_byte(client):
    subscriber, publisher = client("sub", 5), client("pub", 5)
    subscriber.subscribe(("a/b", 0), level=5)
    publisher.send(unhex("30 08 00 03 61 2F 62 00 68 69"))
    subscriber.expect(unhex("30 08 00 03 61 2F 62 00 68 69"))


@pytest.mark.parametrize("level_from, level_to", [(4, 5), (5, 4)])
def test_each_subscriber_gets_the_form_of_its_own_level(client, level_from, level_to):
    subscriber, publisher = client("sub", level_to), client("pub", level_from)
    subscriber.subscribe(("t", 0), level=level_to)
    publisher.send(publish("t", b"hello", level=level_from))
    subscriber.expect_publish("t", b"hello", level=level_to)


def test_own_publications_do_not_come_back(client):
    both = client("both")
    both.subscribe(("t", 0), ("#", 0))
    both.send(publish("t", b"echo"))
    both.ping()


def test_own_publication_still_reaches_the_others(client):
    both, other = client("both"), client("other")
    both.subscribe(("t", 0))
    other.subscribe(("t", 0))
    both.send(publish("t", b"echo"))
    other.expect_publish("t", b"echo")
    both.ping()


@pytest.mark.parametrize("subscribed", [0, 1, 2])
@pytest.mark.parametrize("published", [0, 1, 2])
@pytest.mark.parametrize("level", [4, 5])
def test_the_lower_qos_is_delivered(client, level, published, subscribed):
    subscriber, publisher = client("sub", level), client("pub", level)
    subscriber.subscribe(("t", subscribed), level=level)
    publisher.send(publish("t", b"hello", published, 0x1234, level))
    reason = 0 if level == 5 else None
    if published:
        publisher.expect(ack(0x40 if published == 1 else 0x50, 0x1234, reason))
    qos = min(published, subscribed)
    pid = subscriber.expect_publish("t", b"hello", qos, level)
    if qos:
        subscriber.send(ack(0x40 if qos == 1 else 0x50, pid, reason))
    if qos == 2:
        subscriber.expect(ack(0x62, pid, reason))
        subscriber.send(ack(0x70, pid, reason))


def test_level_4_acknowledgements_are_four_bytes(client):
    publisher = client("pub")
    publisher.send(publish("t", b"hello", 1, 0x1234))
    publisher.expect(unhex("40 02 12 34"))
    publisher.send(publish("t", b"hello", 2, 0x1235))
    publisher.expect(unhex("50 02 12 35"))
    publisher.send(unhex("62 02 12 35"))
    publisher.expect(unhex("70 02 12 35"))


def test_level_5_acknowledgements_are_five_bytes_without_property_length(client):
    publisher = client("pub", 5)
    publisher.send(publish("t", b"hello", 1, 0x1234, 5))
    publisher.expect(unhex("40 03 12 34 00"))
    publisher.send(publish("t", b"hello", 2, 0x1235, 5))
    publisher.expect(unhex("50 03 12 35 00"))
    publisher.send(unhex("62 03 12 35 00"))
    publisher.expect(unhex("70 03 12 35 00"))


def test_qos_2_is_routed_before_its_pubrel(client):
    subscriber, publisher = client("sub"), client("pub")
    subscriber.subscribe(("t", 0))
    publisher.send(publish("t", b"hello", 2, 9))
    publisher.expect(ack(0x50, 9))
    subscriber.expect_publish("t", b"hello")
    publisher.send(ack(0x62, 9))
    publisher.expect(ack(0x70, 9))
    subscriber.ping()


def test_repeated_qos_2_publication_is_routed_again(client):
    subscriber, publisher = client("sub"), client("pub")
    subscriber.subscribe(("t", 0))
    publisher.send(publish("t", b"hello", 2, 9))
    publisher.send(publish("t", b"hello", 2, 9, dup=1))
    publisher.expect(ack(0x50, 9), ack(0x50, 9))
    subscriber.expect_publish("t", b"hello")
    subscriber.expect_publish("t", b"hello", dup=1)


def test_publication_without_subscribers_is_acknowledged(client):
    publisher = client("pub")
    publisher.send(publish("nobody", b"hello", 1, 5))
    publisher.expect(ack(0x40, 5))


def test_forwarded_copies_lose_the_retain_flag_and_keep_the_dup_flag(client):
    subscriber, publisher = client("sub"), client("pub")
    subscriber.subscribe(("t", 1))
    publisher.send(publish("t", b"hello", 1, 5, retain=1, dup=1))
    pid = subscriber.expect_publish("t", b"hello", 1, retain=0, dup=1)
    subscriber.send(ack(0x40, pid))


def test_dup_at_qos_0_is_accepted(client):
    subscriber, publisher = client("sub"), client("pub")
    subscriber.subscribe(("t", 0))
    publisher.send(publish("t", b"hello", dup=1))
    subscriber.expect_publish("t", b"hello", dup=1)


def test_each_matching_filter_delivers_a_copy(client):
    subscriber, publisher = client("sub"), client("pub")
    subscriber.subscribe(("a/b", 0), ("a/+", 0), ("a/#", 0), ("#", 0), ("b/#", 0))
    publisher.send(publish("a/b", b"hello"))
    for _ in range(4):
        subscriber.expect_publish("a/b", b"hello")
    subscriber.ping()


@pytest.mark.parametrize("topic_filter, matching, other", [
    ("#", ["a", "/", "$SYS/x", "a/b/c"], []),
    ("a/#", ["a", "a/", "a/b/c"], ["ab", "b/a"]),
    ("+", ["abc", "abc/"], ["a/b", "/abc"]),
    ("+/b", ["x/b", "/b", "$SYS/b"], ["b", "x/b/c"]),
    ("a/+", ["a/b", "a/b/"], ["a/b/c", "a"]),
    ("a//b", ["a//b"], ["a/b", "a/x/b"]),
    ("A", ["A"], ["a"]),
    ("$share/g/s/+", ["s/1"], ["$share/g/s/1"]),
])
def test_filters_match_topics(client, topic_filter, matching, other):
    subscriber, publisher = client("sub"), client("pub")
    subscriber.subscribe((topic_filter, 0))
    for topic in other + matching:
        publisher.send(publish(topic, b"hello"))
    for topic in matching:
        subscriber.expect_publish(topic, b"hello")
    publisher.ping()
    subscriber.ping()


@pytest.mark.host("--deny-topic", "secret/")
def test_refused_publication_is_neither_routed_nor_acknowledged(client):
    subscriber, publisher = client("sub"), client("pub")
    subscriber.subscribe(("#", 0))
    publisher.send(publish("secret/x", b"hello", 1, 5))
    publisher.send(publish("secret/x", b"hello", 2, 6))
    publisher.ping()
    subscriber.ping()
    publisher.send(publish("open", b"hello", 1, 7))
    publisher.expect(ack(0x40, 7))
    subscriber.expect_publish("open", b"hello")


# Shared subscriptions


def receivers(members, publisher, topic, count):
    """Publish one message after another; per message the names of the members that got it."""
    served = []
    for number in range(count):
        publisher.send(publish(topic, b"message %d" % number))
        publisher.ping()
        names = []
        for name, conn in members.items():
            conn.send(unhex("C0 00"))
            while conn.packet() != unhex("D0 00"):
                names.append(name)
        served.append(names)
    return served


def test_one_member_of_a_group_and_every_plain_subscriber_get_a_message(client):
    members = {name: client(name) for name in ("one", "two", "three")}
    for conn in members.values():
        conn.subscribe(("$share/g/t", 0))
    members["plain"] = client("plain")
    members["plain"].subscribe(("t", 0))
    served = receivers(members, client("pub"), "t", 6)
    assert all(len(names) == 2 and names[1] == "plain" for names in served), served
    assert served[:3] == served[3:] and len({names[0] for names in served}) == 3, served


def test_members_with_different_filters_form_one_group(client):
    members = {"exact": client("exact"), "wild": client("wild")}
    members["exact"].subscribe(("$share/g/a/b", 0))
    members["wild"].subscribe(("$share/g/a/+", 0))
    served = receivers(members, client("pub"), "a/b", 4)
    assert sorted(map(tuple, served)) == [("exact",), ("exact",), ("wild",), ("wild",)], served


def test_group_also_draws_from_groups_whose_name_begins_like_its_own(client):
    """Group a draws from a and ab, group ab from its own two: up to two members of ab serve one message."""
    members = {name: client(name) for name in ("in-a", "in-ab-1", "in-ab-2")}
    members["in-a"].subscribe(("$share/a/t", 0))
    members["in-ab-1"].subscribe(("$share/ab/t", 0))
    members["in-ab-2"].subscribe(("$share/ab/t", 0))
    served = receivers(members, client("pub"), "t", 3)
    # The shared counter starts at 0 and each message advances it twice: a picks 0, 2, 1 of three and ab 1, 1, 1.
    assert served == [["in-a", "in-ab-2"], ["in-ab-2"], ["in-ab-1", "in-ab-2"]], served


def test_message_of_the_chosen_member_itself_is_lost_for_its_group(client):
    members = {"one": client("one"), "two": client("two")}
    for conn in members.values():
        conn.subscribe(("$share/g/t", 0))
    served = receivers(members, members["one"], "t", 4)
    assert served == [[], ["two"], [], ["two"]], served


def test_filter_with_a_group_but_no_topic_is_granted_and_never_served(client):
    """It has no group to be chosen from, and shared filters are served through their groups alone."""
    subscriber, publisher = client("sub"), client("pub")
    subscriber.subscribe(("$share/grp", 0))
    publisher.send(publish("grp", b"hello"))
    publisher.send(publish("$share/grp", b"hello"))
    publisher.ping()
    subscriber.ping()


# The level is recognised from the shape of the packet

by_shape = pytest.mark.classic("LEVEL_BY_CONNECT: the level is that of CONNECT, whatever a packet looks like")


@by_shape
def test_level_4_payload_that_fits_a_property_length_loses_it(client):
    subscriber, publisher = client("sub"), client("pub")
    subscriber.subscribe(("t", 0))
    publisher.send(publish("t", b"\x00hello"))
    subscriber.expect_publish("t", b"hello")


@by_shape
def test_level_4_payload_longer_than_its_first_byte_says_loses_a_property_block(client):
    subscriber, publisher = client("sub"), client("pub")
    subscriber.subscribe(("t", 0))
    publisher.send(publish("t", b"\x05\x02\x00\x00\x00\x3Crest"))
    subscriber.expect_publish("t", b"rest")


def test_level_4_payload_shorter_than_its_first_byte_says_is_left_alone(client):
    subscriber, publisher = client("sub"), client("pub")
    subscriber.subscribe(("t", 0))
    publisher.send(publish("t", b"\x06hello"))
    subscriber.expect_publish("t", b"\x06hello")
    publisher.send(publish("t", filler(500)))
    subscriber.expect_publish("t", filler(500))


@by_shape
def test_publication_that_looks_like_level_5_switches_its_connection_to_level_5(client):
    publisher = client("pub")
    publisher.send(publish("t", b"\x00hello", 1, 5))
    publisher.expect(ack(0x40, 5, 0))
    publisher.send(publish("t", b"hello", 1, 6))
    publisher.expect(ack(0x40, 6))


@by_shape
def test_two_byte_acknowledgement_switches_a_level_5_connection_to_level_4(client):
    subscriber, publisher = client("sub", 5), client("pub")
    subscriber.subscribe(("t", 1), level=5)
    publisher.send(publish("t", b"first", 1, 5))
    pid = subscriber.expect_publish("t", b"first", 1, level=5)
    subscriber.send(ack(0x40, pid))
    subscriber.ping()
    publisher.send(publish("t", b"second", 1, 6))
    pid = subscriber.expect_publish("t", b"second", 1, level=4)
    subscriber.send(ack(0x40, pid, 0))
    subscriber.ping()
    publisher.send(publish("t", b"third", 1, 7))
    pid = subscriber.expect_publish("t", b"third", 1, level=5)
    subscriber.send(ack(0x40, pid, 0))


@by_shape
def test_empty_level_5_publication_without_property_length_is_taken_as_level_4(client):
    publisher = client("pub", 5)
    publisher.send(publish("t", b"", 1, 5))
    publisher.expect(ack(0x40, 5))


# Properties


@pytest.mark.parametrize("props_in, props_out", [
    (b"", b""),
    (EXPIRY_60, EXPIRY_60),
    (unhex("23 00 05"), unhex("23 02 00 05")),
    (EXPIRY_60 + unhex("23 00 05"), EXPIRY_60 + unhex("23 02 00 05")),
    (unhex("23 00 05") + EXPIRY_60, EXPIRY_60 + unhex("23 02 00 05")),
    pytest.param(unhex("08 02 61 62") + EXPIRY_60, EXPIRY_60,
                 marks=pytest.mark.classic("LEVEL_BY_CONNECT: each property is as long as the standard says")),
    pytest.param(unhex("08 00 02 61 62") + EXPIRY_60, EXPIRY_60, marks=pytest.mark.modern),
])
def test_properties_that_reach_a_level_5_subscriber(client, props_in, props_out):
    subscriber, publisher = client("sub", 5), client("pub", 5)
    subscriber.subscribe(("t", 0), level=5)
    publisher.send(publish("t", b"hello", level=5, props=props_in))
    subscriber.expect_publish("t", b"hello", level=5, props=props_out)


def test_no_property_reaches_a_level_4_subscriber(client):
    subscriber, publisher = client("sub"), client("pub", 5)
    subscriber.subscribe(("t", 0))
    publisher.send(publish("t", b"hello", level=5, props=EXPIRY_60))
    subscriber.expect_publish("t", b"hello")


# Limits


def test_topic_of_256_bytes_is_routed_and_one_of_257_is_dropped(client):
    subscriber, publisher = client("sub"), client("pub")
    subscriber.subscribe(("#", 0))
    publisher.send(publish("t" * 257, b"hello", 1, 5))
    publisher.ping()
    publisher.send(publish("t" * 256, b"hello", 1, 6))
    publisher.expect(ack(0x40, 6))
    subscriber.expect_publish("t" * 256, b"hello")


def test_copy_must_fit_2048_bytes(client):
    """1 + 2 bytes of header and 3 of topic leave 2042 for the payload; a longer one is only acknowledged."""
    subscriber, publisher = client("sub"), client("pub")
    subscriber.subscribe(("t", 0))
    publisher.send(publish("t", filler(2043), 1, 5))
    publisher.send(publish("t", filler(3000), 1, 6))
    publisher.expect(ack(0x40, 5), ack(0x40, 6))
    publisher.send(publish("t", filler(2042)))
    subscriber.expect_publish("t", filler(2042))


def test_level_5_subscriber_gets_nothing_above_its_maximum_packet_size(client, raw):
    subscriber, publisher = raw(), client("pub")
    subscriber.send(connect("sub", 5))
    subscriber.expect(connack_v5(256))
    subscriber.subscribe(("t", 0), level=5)
    publisher.send(publish("t", filler(250)))
    publisher.send(publish("t", filler(249)))
    subscriber.expect_publish("t", filler(249), level=5)


MALFORMED = {
    "qos_3": packet(0x36, string("t") + unhex("00 05") + b"hello"),
    "identifier_0": publish("t", b"hello", 1, 0),
    "empty_topic": publish("", b"hello", 1, 5),
    "level_5_topic_alias_alone": publish("", b"hello", 1, 5, 5, unhex("23 00 01")),
    "topic_past_the_end": packet(0x32, unhex("00 09 74 00 05")),
    "no_identifier": packet(0x32, string("t")),
    "half_an_identifier": packet(0x32, string("t") + b"\x01"),
    "no_topic_length": packet(0x32, b"\x00"),
    "no_body": packet(0x32),
}


@pytest.mark.parametrize("name", MALFORMED)
def test_malformed_publication_is_ignored_and_the_connection_kept(client, name):
    subscriber, publisher = client("sub"), client("pub")
    subscriber.subscribe(("#", 0))
    publisher.send(MALFORMED[name])
    publisher.ping()
    subscriber.ping()
    publisher.send(publish("t", b"hello", 1, 6))
    publisher.expect(ack(0x40, 6))


def test_messages_of_one_publisher_stay_in_order(client):
    subscriber, publisher = client("sub"), client("pub")
    subscriber.subscribe(("t", 0))
    for start in range(0, 500, 50):
        for number in range(start, start + 50):
            publisher.send(publish("t", b"message %d" % number))
        for number in range(start, start + 50):
            subscriber.expect_publish("t", b"message %d" % number)


def test_twenty_subscribers_get_the_same_message(client):
    subscribers = [client("sub-%d" % number, 4 + number % 2) for number in range(20)]
    for number, conn in enumerate(subscribers):
        conn.subscribe(("t", number % 3), level=4 + number % 2)
    client("pub").send(publish("t", b"hello", 2, 5))
    for number, conn in enumerate(subscribers):
        pid = conn.expect_publish("t", b"hello", number % 3, 4 + number % 2)
        if number % 3:
            conn.send(ack(0x40 if number % 3 == 1 else 0x50, pid, None if number % 2 == 0 else 0))


def test_subscriber_that_left_gets_nothing(client):
    first, publisher = client("sub"), client("pub")
    first.subscribe(("t", 0))
    first.send(unhex("E0 00"))
    first.expect_closed()
    second = client("sub")
    publisher.send(publish("t", b"hello", 1, 5))
    publisher.expect(ack(0x40, 5))
    second.ping()


def test_subscriber_that_vanished_gets_nothing_under_its_old_name(client):
    first, publisher = client("sub"), client("pub")
    first.subscribe(("t", 0))
    first.close()
    second = client("sub")
    publisher.send(publish("t", b"hello", 1, 5))
    publisher.expect(ack(0x40, 5))
    second.ping()
    second.send(subscribe(1, ("t", 0)))
    second.expect(suback(1, 0))
