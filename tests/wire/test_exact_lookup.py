"""Clients whose identifiers share a place, and connections that share an identifier."""

import itertools
import resource
import socket
import struct
import time

import pytest

from mqtt_wire import (CONNACK, DEADLINE_S, DISCONNECT, PINGREQ, PINGRESP, ack, connack_v5, connect, filler, publish,
                       unhex)
from slots import slot

modern = pytest.mark.modern
CLIENTS = 3000
PER_PLACE = 10
FILES = 8192


def groups_of_one_hash(count):
    """Groups of identifiers of one whole hash: "Aa" and "BB" count the same wherever they stand."""
    endings = ["".join(parts) for parts in itertools.islice(itertools.product(("Aa", "BB"), repeat=6), count)]
    for number in itertools.count():
        yield ["p%d%s" % (number, ending) for ending in endings]


def groups_of_one_place(count):
    """Groups of identifiers that share a place, as a rule not more."""
    groups = {}
    for number in itertools.count():
        group = groups.setdefault(slot("c%d" % number), [])
        group.append("c%d" % number)
        if len(group) == count:
            yield list(group)


def colliding(places, count):
    """Groups of identifiers on as many different places, half of them of one whole hash."""
    taken, groups = {slot("pub")}, []
    for source, enough in ((groups_of_one_hash(count), places // 2), (groups_of_one_place(count), places)):
        while len(groups) < enough:
            group = next(source)
            if slot(group[0]) not in taken:
                assert {slot(name) for name in group} == {slot(group[0])}
                taken.add(slot(group[0]))
                groups.append(group)
    return groups


@pytest.fixture
def many_files():
    """Room for some thousands of connections, here and in the broker."""
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    wanted = max(soft, FILES)
    resource.setrlimit(resource.RLIMIT_NOFILE, (wanted, max(hard, wanted)))
    yield
    resource.setrlimit(resource.RLIMIT_NOFILE, (soft, max(hard, wanted)))


def subscribed(client, groups):
    """One after another they connect and subscribe to a topic of their own, those that share a place in turn."""
    conns = {}
    for name in itertools.chain(*zip(*groups)):
        conns[name] = client(name)
        conns[name].subscribe(("to/" + name, 0))
    return conns


def publish_to_each(publisher, conns):
    for name in conns:
        publisher.send(publish("to/" + name, b"\xff" + name.encode()))
        publisher.ping()


def gets_its_message(conn, name):
    """Nothing or exactly its own message stands before the answer to a ping."""
    conn.send(PINGREQ)
    got = conn.packet()
    if got == PINGRESP:
        return False
    assert got == publish("to/" + name, b"\xff" + name.encode()), got
    conn.expect(PINGRESP)
    return True


@modern
@pytest.mark.host("--max-clients", "4000")
def test_3000_clients_on_300_places_get_a_message_each(many_files, broker, client):
    conns = subscribed(client, colliding(CLIENTS // PER_PLACE, PER_PLACE))
    assert len(conns) == CLIENTS
    publish_to_each(client("pub"), conns)
    assert [name for name in conns if not gets_its_message(conns[name], name)] == []


@pytest.mark.classic("EXACT_LOOKUP: every live client is found")
def test_only_the_newest_client_of_each_place_gets_its_message(client):
    groups = colliding(20, 5)
    conns = subscribed(client, groups)
    publish_to_each(client("pub"), conns)
    found = {name for name in conns if gets_its_message(conns[name], name)}
    assert found == {group[-1] for group in groups}


# Several connections of one identifier


def disconnect(conn):
    conn.send(DISCONNECT)
    conn.expect_closed()


def end_of_stream(conn):
    conn.close()


def reset(conn):
    conn.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    conn.close()


def too_large_for_the_stream(conn):
    conn.send(publish("x", filler(5000)))
    conn.expect_closed()


def second_connect_is_refused(conn):
    conn.send(connect("same", username="mallory"))
    conn.expect_closed(CONNACK)


ENDS = [disconnect, end_of_stream, reset, too_large_for_the_stream, second_connect_is_refused]
every_end = pytest.mark.parametrize("end", ENDS, ids=lambda end: end.__name__)
deny = pytest.mark.host("--deny-user", "mallory")


def receives(conn, publisher, payload):
    """Whether a message comes to a connection; its copy is queued before the acknowledgement."""
    publisher.send(publish("t", payload, 1, 7))
    publisher.expect(ack(0x40, 7))
    conn.send(PINGREQ)
    got = conn.packet()
    if got == PINGRESP:
        return False
    assert got == publish("t", payload), got
    conn.expect(PINGRESP)
    return True


def subscribe_anew(conn, publisher, end):
    """Of an end that the broker does not answer it may hear after the SUBSCRIBE, which then goes with it."""
    deadline = time.monotonic() + DEADLINE_S
    conn.subscribe(("t", 0))
    while not receives(conn, publisher, b"\xffanew"):
        assert end in (end_of_stream, reset) and time.monotonic() < deadline, "not found again"
        conn.subscribe(("t", 0))


@modern
@deny
@every_end
def test_what_the_newest_has_subscribed_to_ends_with_it(client, end):
    publisher, older, newer = client("pub"), client("same"), client("same")
    newer.subscribe(("t", 0))
    assert receives(newer, publisher, b"\xfffirst")
    end(newer)
    assert not receives(older, publisher, b"\xffsecond")


@modern
@deny
@every_end
def test_the_newest_of_two_connections_gets_the_messages_until_it_ends(client, end):
    publisher, older = client("pub"), client("same")
    older.subscribe(("t", 0))
    newer = client("same")
    newer.subscribe(("t", 0))
    assert receives(newer, publisher, b"\xfffirst")
    older.ping()
    end(newer)
    subscribe_anew(older, publisher, end)
    assert receives(older, publisher, b"\xffsecond")


@modern
@deny
@every_end
def test_of_three_connections_the_next_newest_takes_over_each_time(client, end):
    publisher, conns = client("pub"), [client("same") for _ in range(3)]
    conns[2].subscribe(("t", 0))
    assert receives(conns[2], publisher, b"\xfffirst")
    end(conns[2])
    subscribe_anew(conns[1], publisher, end)
    conns[0].ping()
    end(conns[1])
    subscribe_anew(conns[0], publisher, end)
    assert receives(conns[0], publisher, b"\xfflast")


@modern
@deny
@every_end
def test_the_end_of_a_connection_in_the_middle_changes_nothing(client, end):
    publisher, conns = client("pub"), [client("same") for _ in range(3)]
    conns[2].subscribe(("t", 0))
    end(conns[1])
    assert receives(conns[2], publisher, b"\xfffirst")
    conns[0].ping()
    disconnect(conns[2])
    subscribe_anew(conns[0], publisher, disconnect)


@modern
def test_a_level_5_connection_that_the_broker_ends_gives_way_to_the_older(client, raw):
    publisher, older, newer = client("pub"), client("same"), raw()
    newer.send(connect("same", 5))
    newer.expect(connack_v5(256))
    newer.subscribe(("t", 0), level=5)
    newer.send(publish("x", filler(300), level=5))
    newer.expect_closed(unhex("E0 02 95 00"))
    older.subscribe(("t", 0))
    assert receives(older, publisher, b"\xffanew")


@modern
@pytest.mark.host("--max-clients", "1000")
def test_a_silent_connection_that_the_broker_ends_gives_way_to_the_older(client):
    publisher, older = client("pub", keepalive=600), client("same", keepalive=600)
    newer = client("same", keepalive=1)
    newer.subscribe(("t", 0))
    newer.expect_closed()
    older.subscribe(("t", 0))
    assert receives(older, publisher, b"\xffanew")


# A second CONNECT on a connection


def rename(conn, name, **options):
    conn.send(connect(name, **options))
    conn.expect(CONNACK)


@modern
def test_a_renamed_connection_is_found_by_its_new_name_alone(client):
    publisher, conn = client("pub"), client("old", clean=False)
    conn.subscribe(("to/old", 1))
    rename(conn, "new", clean=False)
    conn.subscribe(("to/new", 0))
    for topic in ("to/old", "to/new"):
        publisher.send(publish(topic, b"\xff" + topic.encode(), 1, 7))
        publisher.expect(ack(0x40, 7))
    conn.expect_publish("to/new", b"\xffto/new")
    conn.ping()  # the other message waits for a client that is called "old"


@modern
def test_the_message_for_the_old_name_waits_for_its_next_bearer(client, raw):
    publisher, conn = client("pub"), client("old", clean=False)
    conn.subscribe(("t", 1))
    rename(conn, "new", clean=False)
    publisher.send(publish("t", b"\xffmissed", 1, 7))
    publisher.expect(ack(0x40, 7))
    bearer = raw()
    bearer.send(connect("old", clean=False))
    bearer.expect(unhex("20 02 01 00"))
    bearer.send(ack(0x40, bearer.expect_publish("t", b"\xffmissed", 1)))
    conn.ping()


@modern
def test_a_connection_that_takes_a_live_name_is_the_newest_of_it(client):
    publisher, bearer, conn = client("pub"), client("same"), client("other")
    bearer.subscribe(("t", 0))
    rename(conn, "same")
    conn.subscribe(("t", 0))
    assert receives(conn, publisher, b"\xfffirst")
    bearer.ping()
    disconnect(conn)
    bearer.subscribe(("t", 0))
    assert receives(bearer, publisher, b"\xffsecond")


@modern
def test_a_connection_that_gives_up_a_shared_name_leaves_it_to_the_older(client):
    publisher, older, newer = client("pub"), client("same"), client("same")
    rename(newer, "other")
    older.subscribe(("t", 0))
    assert receives(older, publisher, b"\xfffirst")
    newer.subscribe(("t", 0))
    assert receives(newer, publisher, b"\xffsecond")
    older.expect_publish("t", b"\xffsecond")
    older.ping()


@modern
def test_a_connection_that_connects_again_under_its_name_becomes_the_newest(client):
    publisher, older, newer = client("pub"), client("same"), client("same")
    newer.subscribe(("t", 0))
    rename(older, "same")
    older.subscribe(("t", 0))
    assert receives(older, publisher, b"\xfffirst")
    newer.ping()
    disconnect(older)
    newer.subscribe(("t", 0))
    assert receives(newer, publisher, b"\xffsecond")
