"""Clients that look, after a restart, whether all is there that the files promise."""

import time

from data_files import Retained, need
from mqtt_wire import CONNACK, DEADLINE_S, DISCONNECT, PINGRESP, Conn, ack, connect, publish, string, suback, subscribe
from writers import CONNACK_PRESENT, WILL

# About one in 65536 deliveries above QoS 0 draws the identifier 0 and is left out; asking again brings it.
ATTEMPTS = 4


def come(client_id, present, clean=False, **options):
    conn = Conn()
    conn.send(connect(client_id, clean=clean, **options))
    conn.expect(CONNACK_PRESENT if present else CONNACK)
    return conn


def leave(conn):
    conn.send(DISCONNECT)
    conn.expect_closed()
    conn.close()


def parse_publish(packet):
    """Topic, payload, QoS and identifier."""
    need(packet[0] >> 4 == 3, "not a PUBLISH", packet.hex())
    at = next(index for index in range(1, 5) if packet[index] < 0x80) + 1
    end = at + 2 + int.from_bytes(packet[at:at + 2], "big")
    topic, qos, pid = packet[at + 2:end].decode(), packet[0] >> 1 & 3, 0
    if qos:
        pid, end = int.from_bytes(packet[end:end + 2], "big"), end + 2
    return topic, packet[end:], qos, pid


def retained_under(topic_filter):
    """All retained messages that match, each exactly once."""
    conn = come("reader", False, clean=True)
    conn.send(subscribe(1, (topic_filter, 2)))
    found = {}
    packet = conn.packet()
    while packet[0] == 0x31 or packet[0] == 0x33 or packet[0] == 0x35:
        topic, payload, qos, _ = parse_publish(packet)
        need(topic not in found, "retained message delivered twice", topic)
        found[topic] = Retained(topic, payload, qos)
        packet = conn.packet()
    need(packet == suback(1, 2), "not the SUBACK", packet.hex())
    leave(conn)
    return found


def check_retained(prefix, known):
    wanted = {topic: message for topic, message in known.items() if topic.startswith(prefix)}
    for _ in range(ATTEMPTS):
        found = retained_under(prefix + "#")
        strange = {topic: message for topic, message in found.items() if wanted.get(topic) != message}
        need(not strange, "retained messages that are not stored", strange)
        if found == wanted:
            return
    need(False, "retained messages not delivered", sorted(set(wanted) - set(found)))


def check_subscriptions(client_id, present, filters, **options):
    """The client is back without subscribing, and each of its filters brings a message."""
    conn = come(client_id, present, **options)
    publisher = come("prober", False, clean=True)
    topics = [topic_filter.replace("#", "x") for topic_filter in sorted(filters)]
    for topic in topics:
        publisher.send(publish(topic, b"\xff" + topic.encode()))
    for topic in topics:
        need(parse_publish(conn.packet())[:3] == (topic, b"\xff" + topic.encode(), 0), "live message", client_id, topic)
    conn.ping()
    leave(conn)
    leave(publisher)


def check_chooser(expectation, client_id):
    filters = [topic_filter for name, topic_filter in expectation.subscriptions.present() if name == client_id]
    will = string(expectation.will_topics[client_id]) + string(b"gone")
    expectation.sessions.begin(client_id, True)
    check_subscriptions(client_id, expectation.has_session(client_id), filters, flags=WILL, rest=will)
    expectation.sessions.confirm(client_id)


def drain(queues):
    """Each client comes back for its messages; they need about a second, so all come at once."""
    waiting = [(queue, come(queue.client_id, True), dict(enumerate(queue.known))) for queue in queues]
    for queue, conn, missing in waiting:
        taken = set()
        deadline = time.monotonic() + DEADLINE_S
        while missing:
            need(time.monotonic() < deadline, "messages not replayed", queue.client_id, missing)
            topic, payload, qos, pid = parse_publish(conn.packet())
            conn.send(ack(0x40, pid))
            if pid in taken:  # repeated because the acknowledgement came late
                continue
            taken.add(pid)
            place = next((key for key, message in missing.items() if message == (topic, payload)), None)
            need(place is not None and qos == 1, "replayed, but not stored", queue.client_id, topic, payload, qos)
            del missing[place]
        finish(conn, taken)
        queue.replace([])


def finish(conn, taken):
    """Say goodbye; what still comes may only be a repetition."""
    conn.send(b"\xc0\x00")
    packet = conn.packet()
    while packet != PINGRESP:
        need(parse_publish(packet)[3] in taken, "message after the last", packet.hex())
        packet = conn.packet()
    conn.send(DISCONNECT)
    while conn.sock.recv(65536):
        pass
    conn.close()
