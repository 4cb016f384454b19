"""Packets as the broker reads and writes them, bytes to values and back."""

import struct


class Malformed(Exception):
    """The broker drops such a packet without an answer."""


def encode_length(value):
    out = bytearray()
    while True:
        value, low = divmod(value, 128)
        out.append(low | (0x80 if value else 0))
        if not value:
            return bytes(out)


def decode_length(data):
    """Value and number of bytes; None where there is no such number of at most three bytes."""
    value = 0
    for index, byte in enumerate(data[:3]):
        value |= (byte & 0x7F) << (7 * index)
        if byte < 0x80:
            return value, index + 1
    return None


def text(value):
    return struct.pack(">H", len(value)) + value


def frame(first_byte, body):
    return bytes([first_byte]) + encode_length(len(body)) + body


class Reader:
    def __init__(self, data):
        self.data, self.pos = data, 0

    def left(self):
        return len(self.data) - self.pos

    def take(self, count):
        if self.left() < count:
            raise Malformed
        self.pos += count
        return self.data[self.pos - count:self.pos]

    def number(self, size):
        return int.from_bytes(self.take(size), "big")

    def text(self):
        return self.take(self.number(2))

    def length(self):
        found = decode_length(self.data[self.pos:])
        if found is None:
            raise Malformed
        self.pos += found[1]
        return found[0]


class Connect:
    """A CONNECT without faults: the model is never given another one."""

    def __init__(self, body):
        reader = Reader(body)
        assert reader.text() == b"MQTT"
        self.level = reader.number(1)
        flags = reader.number(1)
        self.clean = bool(flags & 0x02)
        reader.number(2)  # keep alive
        self.expiry = self.maximum = self.will_delay = 0
        if self.level == 5:
            properties = Reader(reader.take(reader.length()))
            while properties.left():
                kind = properties.number(1)
                value = properties.number(4)
                self.expiry = value if kind == 0x11 else self.expiry
                self.maximum = value if kind == 0x27 else self.maximum
        self.client_id = reader.text().decode()
        self.will = None
        if flags & 0x04:
            if self.level == 5:
                properties = Reader(reader.take(reader.length()))
                while properties.left():
                    kind = properties.number(1)
                    value = properties.number(4)
                    self.will_delay = value if kind == 0x18 else self.will_delay
            self.will = Will(reader.text().decode(), reader.text(), flags >> 3 & 3, flags >> 5 & 1)


class Will:
    def __init__(self, topic, payload, qos, retain):
        self.topic, self.payload, self.qos, self.retain = topic, payload, qos, retain


class Publication:
    def __init__(self, topic, payload, qos, retain, dup=0):
        self.topic, self.payload, self.qos, self.retain, self.dup = topic, payload, qos, retain, dup

    def encode(self, level, pid):
        """None where the broker cannot lay it out."""
        topic = self.topic.encode()
        if not 1 <= len(topic) <= 256 or len(self.payload) > 2048:
            return None
        body = text(topic) + (struct.pack(">H", pid) if self.qos else b"")
        body += (b"\0" if level == 5 else b"") + self.payload
        return frame(0x30 | self.qos << 1 | self.retain | self.dup << 3, body) if len(body) <= 2112 else None


def skip_properties(data, pos, end):
    """Where the payload begins behind a property block that is walked as the broker does."""
    while pos < end and pos < len(data):
        if data[pos] == 0x02:
            pos += 5
        elif data[pos] == 0x23:
            pos += 3
        else:
            found = decode_length(data[pos + 1:])
            pos += 2 if found is None else 1 + found[1] + found[0]
    return pos


def decode_publish(first_byte, body):
    """Publication, identifier, and the level that the packet's shape tells."""
    reader = Reader(body)
    topic = reader.text()
    qos = first_byte >> 1 & 3
    if qos == 3 or not 1 <= len(topic) <= 256:
        raise Malformed
    pid = reader.number(2) if qos else 0
    if qos and not pid:
        raise Malformed
    rest = body[reader.pos:]
    level = 4
    found = decode_length(rest)
    if found is not None and found[0] + found[1] <= len(rest):
        level = 5
        rest = rest[skip_properties(rest, found[1], found[1] + found[0]):]
    return Publication(topic.decode(), rest[:2048], qos, first_byte & 1, first_byte >> 3 & 1), pid, level


def decode_ack(body):
    """Identifier and the level that the packet's length tells."""
    return Reader(body).number(2), 4 if len(body) < 3 else 5


def encode_ack(kind, pid, level):
    first_byte = kind << 4 | (2 if kind == 6 else 0)
    return frame(first_byte, struct.pack(">H", pid) + (b"\0" if level == 5 else b""))


def decode_subscribe(body, level):
    """Identifier and the filters that can be read, as (filter, QoS) pairs."""
    reader = Reader(body)
    pid = reader.number(2)
    if not pid:
        raise Malformed
    if level == 5 and reader.left():
        found = decode_length(body[reader.pos:])
        if found is not None:
            if found[0]:
                raise NotImplementedError("properties of SUBSCRIBE")
            reader.pos += found[1]
    filters = []
    try:
        while reader.left() and len(filters) < 16:
            topic_filter = reader.text()
            if not 1 <= len(topic_filter) <= 256:
                break
            filters.append((topic_filter.decode(), reader.number(1) & 3))
    except Malformed:
        pass  # what was read so far counts
    if not filters:
        raise Malformed
    return pid, filters


def decode_unsubscribe(body, level):
    reader = Reader(body)
    pid = reader.number(2)
    if not pid:
        raise Malformed
    if level == 5:
        length = reader.length()
        if length > len(body) - 2:
            raise Malformed
        reader.take(length)
    filters = []
    while reader.left() and len(filters) < 16:
        topic_filter = reader.text()
        if not 1 <= len(topic_filter) <= 256:
            raise Malformed
        filters.append(topic_filter.decode())
    return pid, filters


def decode_disconnect(body, level):
    """The Session Expiry Interval, 0 when it is absent."""
    if level == 4:
        if body:
            raise Malformed
        return 0
    reader = Reader(body)
    reader.number(1)  # reason
    properties = Reader(reader.take(reader.length()))
    expiry = 0
    while properties.left():
        if properties.number(1) != 0x10:
            raise Malformed
        expiry = properties.number(4)
    return expiry
