"""What the broker has to do, in a few hundred lines that share nothing with it.

The model gets the packets that the clients send and says which packets each connection has to receive, in order.
Identifiers of the broker's messages are its own choice; whoever compares fills them in."""

from filters import group_name, is_valid, matches, place
from layout import (Connect, Malformed, Publication, Reader, Will, decode_ack, decode_disconnect, decode_publish,
                    decode_subscribe, decode_unsubscribe, encode_ack, encode_length, frame)
from stored import RECORDED_FILTERS, Disk, Record

DEFAULT_MAXIMUM = 4096
LEAST_MAXIMUM = 256
FORWARDED_BYTES = 2048
FAILURE = 0x80
TOO_LARGE = 0x95
CONNECTED, LOGINED, CLOSED = "connected", "logined", "closed"


class Answer:
    """A packet whose bytes are known. One that is optional may get lost because the connection ends at once."""

    def __init__(self, data, optional=False):
        self.data, self.optional = data, optional


class Delivery:
    """A publication to a client, under an identifier that the broker chooses."""

    def __init__(self, publication, level):
        self.publication, self.level = publication, level
        self.pid = None
        self.done = False  # the client has acknowledged it
        self.flight = None
        self.optional = False


class Flight:
    """A message that is repeated until it is acknowledged."""

    def __init__(self, delivery, since, sent):
        self.delivery, self.since = delivery, since
        self.sent = sent  # False: its first repetition is the first that the client sees
        self.repeats = 0
        self.state = 1 if delivery.publication.qos == 2 else 0


class Connection:
    """What the broker knows of a connection."""

    def __init__(self):
        self.state, self.client_id, self.level = CONNECTED, "", 4
        self.levels = {4}  # those of the current step, for repetitions
        self.clean = self.said_goodbye = False
        self.expiry = 0
        self.maximum = DEFAULT_MAXIMUM
        self.will, self.will_delay = None, 0
        self.record = Record()
        self.expected, self.received = [], []
        self.flights, self.ended_flights = [], []

    def is_open(self):
        return self.state != CLOSED

    def awaited_repetitions(self):
        """Messages whose first repetition is still to come; one that is too large by now is tried in vain."""
        return [flight for flight in self.flights if flight.state in (0, 1) and not flight.repeats and
                len(flight.delivery.publication.encode(self.level, 1)) <= self.maximum]

    def set_level(self, level):
        self.level = level
        self.levels.add(level)


class Model:
    def __init__(self, turn=0):
        self.disk = Disk()
        self.retained = {}  # topic -> Publication, oldest first
        self.turn = turn  # counts the shared groups served
        self.now = 0.0
        self.forget()

    def forget(self):
        """The broker's process has ended."""
        self.connections, self.found = [], {}
        self.subscriptions = []  # [client, filter, QoS] in the order of their making
        self.waiting_wills = []

    def start(self):
        for client_id in self.disk.clients:
            for topic_filter, qos in self.disk.of(client_id).read().subscriptions:
                self._subscribe(client_id, topic_filter, qos)

    def open(self):
        connection = Connection()
        self.connections.append(connection)
        return connection

    def begin_step(self, now):
        self.now = now
        for connection in self.connections:
            connection.levels = {connection.level}
            connection.ended_flights = []

    def packet(self, connection, data):
        if len(data) > connection.maximum:
            reason = b"" if connection.level == 4 else bytes([TOO_LARGE, 0])
            connection.expected.append(Answer(frame(0xE0, reason), optional=True))
            self._close(connection)
            return
        length, used = Reader(data[1:]).length(), len(encode_length(len(data)))
        body = data[len(data) - length:]
        assert used and len(body) == length
        handler = {1: self._connect, 3: self._publish, 4: self._ack, 5: self._ack, 6: self._ack, 7: self._ack,
                   8: self._handle_subscribe, 10: self._handle_unsubscribe, 12: self._ping, 14: self._disconnect}
        try:
            handler.get(data[0] >> 4, lambda *_: None)(connection, data[0], body)
        except Malformed:
            pass

    # Clients and their identifiers

    def owner(self, client_id):
        """The connection that is found under an identifier."""
        connection = self.found.get(place(client_id))
        return connection if connection is not None and connection.client_id == client_id else None

    def superseded(self, connection):
        owner = self.owner(connection.client_id)
        return owner is not None and owner is not connection

    def lost(self, connection):
        """The client's end of the connection has gone, or the client was silent for too long."""
        self._close(connection)

    def _leave_subscriptions(self, connection):
        if connection.client_id and connection.clean and not self.superseded(connection):
            self._unsubscribe(connection.client_id, None)

    def _close(self, connection):
        if not connection.is_open():
            return
        self._leave_subscriptions(connection)
        keeps_files = connection.client_id and not self.superseded(connection)
        if not connection.clean and not connection.said_goodbye and keeps_files:
            if connection.expiry:
                self.disk.of(connection.client_id).write_session(connection.client_id, connection.record)
            else:
                self.disk.remove(connection.client_id)
        if connection.will is not None and not connection.said_goodbye:
            if connection.will_delay:
                self.waiting_wills.append(connection)
            else:
                self._send_will(connection)
                # Its owner is still among the subscribers, but nothing more is sent to it for certain.
                for item in connection.expected:
                    item.optional = True
        connection.state = CLOSED
        connection.ended_flights += connection.flights
        connection.flights = []
        if self.found.get(place(connection.client_id)) is connection:
            del self.found[place(connection.client_id)]

    # Wills

    def due(self, connection):
        """The delay of a waiting will has passed."""
        self.waiting_wills.remove(connection)
        self._send_will(connection)

    def _send_will(self, connection):
        will, connection.will = connection.will, None
        packet = Publication(will.topic, will.payload, will.qos, will.retain).encode(connection.level, 1)
        if packet is None:
            return
        self._broadcast(packet)
        connection.record.will_flag = False
        if not connection.clean and not self.superseded(connection):
            self._write_subscriptions(connection)

    def _broadcast(self, packet):
        """The broker reads a will back from its packet, with one byte of length and whatever that leads to."""
        topic_bytes = packet[2] << 8 | packet[3]
        if len(packet) < topic_bytes + 4:
            return
        topic = packet[4:4 + topic_bytes].split(b"\0")[0].decode("latin-1")
        qos = packet[0] >> 1 & 3
        for client_id, _, granted in self._served(topic):
            subscriber = self.owner(client_id)
            if subscriber is None:
                continue
            start = topic_bytes + 4 + (2 if qos else 0)
            if subscriber.level == 5 and start < len(packet):
                start += packet[start] + 1
            if start < len(packet):
                copy = Publication(topic, packet[start:], min(qos, granted), packet[0] & 1)
                self._deliver(subscriber, copy)

    # CONNECT and DISCONNECT

    def _connect(self, connection, _, body):
        packet = Connect(body)
        connection.set_level(packet.level)
        connection.clean = packet.clean
        connection.client_id = packet.client_id
        self.found[place(packet.client_id)] = connection
        connection.state = LOGINED
        connection.expiry = packet.expiry
        connection.maximum = max(packet.maximum, LEAST_MAXIMUM) if packet.level == 5 else DEFAULT_MAXIMUM
        present = self.disk.has_session(packet.client_id)
        record = connection.record = self.disk.of(packet.client_id).read() if present else Record()
        if record.will_flag:
            connection.will = Will(record.will_topic, record.will_payload, record.will_qos, 0)
        record.will_flag = packet.will is not None
        if packet.will is not None:
            self._take_will(connection, packet)
        if packet.clean:
            self.disk.remove(packet.client_id)
            present = False
            record.subscriptions = []
            self._unsubscribe(packet.client_id, None)
        for topic_filter, qos in record.subscriptions:
            self._subscribe(packet.client_id, topic_filter, qos)
        self.waiting_wills = [owner for owner in self.waiting_wills if owner.client_id != packet.client_id]
        connack = bytes([present, 0])
        if connection.level == 5:
            connack += b"\x08\x21\xff\xff\x27" + connection.maximum.to_bytes(4, "big")
        self._answer(connection, frame(0x20, connack))
        if present:
            for topic_filter, _ in record.subscriptions:
                self._send_retained(connection, topic_filter)
            self._replay(connection)

    def _take_will(self, connection, packet):
        will, record = packet.will, connection.record
        connection.will = will
        if packet.level == 5:
            connection.will_delay = record.will_delay = packet.will_delay
        record.will_topic, record.will_qos, record.will_payload = will.topic, will.qos, will.payload
        if not packet.clean:
            self.disk.of(packet.client_id).write_session(packet.client_id, record)

    def _replay(self, connection):
        files = self.disk.of(connection.client_id)
        for topic, payload, qos in files.missed or []:
            if qos:
                delivery = Delivery(Publication(topic, payload, qos, 0), connection.level)
                delivery.flight = Flight(delivery, self.now, sent=False)
                connection.flights.insert(0, delivery.flight)
        files.missed = [] if files.missed is not None else None

    def _disconnect(self, connection, _, body):
        expiry = decode_disconnect(body, connection.level)
        connection.said_goodbye = True
        if connection.level == 5 and expiry < 0xFFFFFFFF:
            connection.expiry = expiry
        connection.will = None
        connection.record.will_flag = False
        if connection.client_id and not self.superseded(connection):
            stays = connection.expiry if connection.level == 5 else not connection.clean
            if stays:
                self._write_subscriptions(connection)
            else:
                self.disk.remove(connection.client_id)
        self._close(connection)

    def _ping(self, connection, _, __):
        self._answer(connection, b"\xd0\x00")

    # Subscriptions and retained messages

    def _subscribe(self, client_id, topic_filter, qos):
        if not client_id or qos > 2 or not is_valid(topic_filter):
            return False
        for entry in self.subscriptions:
            if entry[:2] == [client_id, topic_filter]:
                entry[2] = qos
                return True
        self.subscriptions.append([client_id, topic_filter, qos])
        return True

    def _unsubscribe(self, client_id, topic_filter):
        self.subscriptions = [entry for entry in self.subscriptions
                              if entry[0] != client_id or topic_filter not in (None, entry[1])]

    def _handle_subscribe(self, connection, _, body):
        pid, filters = decode_subscribe(body, connection.level)
        codes = []
        for topic_filter, qos in filters:
            granted = self._subscribe(connection.client_id, topic_filter, qos)
            codes.append(qos if granted else FAILURE)
            if granted:
                self._send_retained(connection, topic_filter)
        for (topic_filter, qos), code in zip(filters, codes):
            if code != FAILURE:
                if len(connection.record.subscriptions) >= RECORDED_FILTERS:
                    break
                connection.record.note(topic_filter, qos)
        if not connection.clean:
            self._write_subscriptions(connection)
        self._answer(connection, frame(0x90, pid.to_bytes(2, "big") + (b"\0" if connection.level == 5 else b"") +
                                       bytes(codes)))

    def _handle_unsubscribe(self, connection, _, body):
        pid, filters = decode_unsubscribe(body, connection.level)
        for topic_filter in filters:
            self._unsubscribe(connection.client_id, topic_filter)
        self._answer(connection, encode_ack(11, pid, connection.level))

    def _write_subscriptions(self, connection):
        if connection.client_id and connection.record.subscriptions:
            self.disk.of(connection.client_id).write_subscriptions(connection.record)

    def _send_retained(self, connection, topic_filter):
        for topic, publication in self.retained.items():
            if matches(topic_filter, topic):
                self._deliver(connection, publication)

    # Publications

    def _publish(self, connection, first_byte, body):
        publication, pid, level = decode_publish(first_byte, body)
        connection.set_level(level)
        if publication.retain:
            if not publication.payload:
                self.retained.pop(publication.topic, None)
            else:
                self.retained[publication.topic] = Publication(publication.topic, publication.payload,
                                                               publication.qos, 1)
        for client_id, _, granted in self._served(publication.topic):
            if client_id != connection.client_id:
                self._forward(client_id, publication, min(publication.qos, granted))
        if publication.qos:
            self._answer(connection, encode_ack(4 if publication.qos == 1 else 5, pid, connection.level))

    def _forward(self, client_id, publication, qos):
        copy = Publication(publication.topic, publication.payload, qos, 0, publication.dup)
        subscriber = self.owner(client_id)
        if subscriber is None:
            if publication.payload and self.disk.has_session(client_id):
                self.disk.of(client_id).add_missed(copy.topic, copy.payload, qos)
            return
        delivery = self._deliver(subscriber, copy)
        if delivery is not None and qos and copy.payload:
            delivery.flight = Flight(delivery, self.now, sent=True)
            subscriber.flights.insert(0, delivery.flight)

    def _served(self, topic):
        """The matching subscriptions, of each shared group the one whose turn it is."""
        found = [entry for entry in self.subscriptions if matches(entry[1], topic)]
        chosen, groups = set(), []
        for _, topic_filter, _ in found:
            group = group_name(topic_filter)
            if group is None or group in groups:
                continue
            groups.append(group)
            pool = [index for index, (_, other, _) in enumerate(found)
                    if group_name(other) is not None and other[len("$share/"):].startswith(group)]
            chosen.add(pool[self.turn % len(pool)])
            self.turn += 1
        return [entry for index, entry in enumerate(found) if group_name(entry[1]) is None or index in chosen]

    def _deliver(self, subscriber, publication):
        packet = publication.encode(subscriber.level, 1)
        if packet is None or len(packet) > min(FORWARDED_BYTES, subscriber.maximum):
            return None
        delivery = Delivery(publication, subscriber.level)
        subscriber.expected.append(delivery)
        return delivery

    # Acknowledgements

    def _ack(self, connection, first_byte, body):
        kind = first_byte >> 4
        pid, level = decode_ack(body)
        connection.set_level(level)
        flight = next((flight for flight in connection.flights if flight.delivery.pid == pid), None)
        if flight is not None and pid:
            self._advance(connection, flight, kind)
        if kind in (5, 6):
            self._answer(connection, encode_ack(kind + 1, pid, connection.level))

    def _advance(self, connection, flight, kind):
        pid, qos = flight.delivery.pid, flight.delivery.publication.qos
        if kind == 4 or (kind == 7 and qos == 2):
            connection.flights.remove(flight)
            connection.ended_flights.append(flight)
        elif (kind, qos, flight.state) in ((5, 2, 1), (6, 2, 2)):
            flight.state += 1
            connection.ended_flights.append(flight)
            self._answer(connection, encode_ack(kind + 1, pid, connection.level))

    def _answer(self, connection, data):
        if len(data) <= connection.maximum:
            connection.expected.append(Answer(data))
