"""Packets that a hostile or broken peer might send, from a fixed seed."""

import random
import struct

from mqtt_wire import (PINGREQ, ack, connect, maximum_packet_size, packet, publish, string, subscribe, unsubscribe,
                       varint)

# Few names, so that the tables of the broker fill with a bounded number of entries.
NAMES = ["", "a", "b", "fuzz-1", "fuzz-2", "i" * 23, "j" * 64]
TOPICS = ["t", "a/b", "a/b/c", "/", "$SYS/x", "x" * 256]
FILTERS = ["t", "#", "a/#", "a/+", "+/b", "$share/g/t", "$share/ga/a/b", "$share/", "a/+/#", "x" * 256, ""]
PROPERTIES = [b"", b"\x02\x00\x00\x00\x3c", b"\x23\x00\x05", b"\x0b\x07", b"\x26\x01\x27\x02", b"\x08\x02ab",
              b"\x11\x00\x00\x00\x05", b"\x01", b"\x27\x00", b"\xff\xff\xff\xff", b"\x26\x00\x01a\x00\x01b"]
HEADS = [(0x10, string("MQTT") + b"\x05\xc6\x00\x3c"), (0x10, string("MQTT") + b"\x04\xc6\x00\x3c"),
         (0x30, string("t")), (0x32, string("t") + b"\x00\x01"), (0x82, b"\x00\x01"), (0xA2, b"\x00\x01"),
         (0x82, b"\x00\x01\x00"), (0xA2, b"\x00\x01\x00")]


class Hostile:
    def __init__(self, seed):
        self.random = random.Random(seed)
        self.kinds = [self.body_of_noise, self.changed, self.changed, self.changed, self.valid, self.noise_with_header]
        self.last_kinds = [self.cut_short, self.lying_length, self.noise, self.oversized, self.endless_length]

    def bytes(self, low, high):
        return self.random.randbytes(self.random.randint(low, high))

    def payload(self):
        size = self.random.choice([0, 1, 5, 50, 200, 1000, 2048, 3000]) if self.random.random() < 0.2 else 8
        return self.random.randbytes(size)

    def connect(self, level=None):
        pick = self.random.choice
        level = level or pick([4, 5])
        props = pick([b"", maximum_packet_size(4096), maximum_packet_size(4096), pick(PROPERTIES)])
        will = b""
        flags = 0
        if self.random.random() < 0.3:
            flags = 0x04 | pick([0, 0x08, 0x10, 0x18, 0x20])
            will = (varint(0) if level == 5 else b"") + string(pick(TOPICS)) + string(self.bytes(0, 60))
        return connect(pick(NAMES), level, clean=self.random.random() < 0.97, keepalive=pick([0, 60, 600]), props=props,
                       flags=flags, rest=will, username=pick([None, "u", "u" * 64]), password=pick([None, "p"]))

    def valid(self):
        pick = self.random.choice
        level = pick([4, 5])
        kind = self.random.randrange(12)
        if kind < 4:
            return publish(pick(TOPICS), self.payload(), pick([0, 1, 2]), self.random.randint(1, 9), level,
                           pick(PROPERTIES) if level == 5 else b"", pick([0, 0, 0, 1]), pick([0, 1]))
        if kind < 6:
            filters = [(pick(FILTERS), self.random.randrange(4)) for _ in range(self.random.randint(1, 4))]
            return subscribe(self.random.randint(1, 9), *filters, level=level,
                             props=pick(PROPERTIES) if level == 5 else b"")
        if kind == 6:
            return unsubscribe(self.random.randint(1, 9), *[pick(FILTERS) for _ in range(3)], level=level)
        if kind < 10:
            return ack(pick([0x40, 0x50, 0x62, 0x70]), self.random.randint(1, 9), pick([None, 0, 0x80]))
        if kind == 10:
            return self.connect(level)
        return PINGREQ

    def body_of_noise(self):
        """Whole packets of every type but DISCONNECT, which would end the connection too often."""
        kind = self.random.choice([1, 2, 3, 3, 4, 5, 6, 7, 8, 8, 9, 10, 11, 12, 13, 15])
        return packet(kind << 4 | self.random.randrange(16), self.bytes(0, 60))

    def noise_with_header(self):
        """Noise behind a sound beginning, which takes the decoders further."""
        first_byte, head = self.random.choice(HEADS)
        return packet(first_byte, head + self.bytes(0, 80))

    def changed(self):
        """A valid packet with some bytes of its body changed, lengths in it included."""
        data = bytearray(self.valid())
        start = 2 if data[1] < 0x80 else 3
        for _ in range(self.random.randint(1, 4)):
            if len(data) > start:
                data[self.random.randrange(start, len(data))] = self.random.choice([0, 1, 0x7F, 0x80, 0xFF,
                                                                                   self.random.randrange(256)])
        return bytes(data)

    def disconnect(self):
        return packet(0xE0, self.bytes(0, 12))

    # What follows one of these on a stream is lost in it, so they come last.

    def cut_short(self):
        data = self.valid()
        return data[:self.random.randint(1, len(data))]

    def lying_length(self):
        data = self.valid()
        return data[:1] + self.random.choice([b"\x00", b"\x01", b"\x7f", b"\xff\x01", b"\xff\xff\x03"]) + data[2:]

    def noise(self):
        return self.bytes(1, 300)

    def oversized(self):
        return publish("t", self.random.randbytes(self.random.choice([2049, 4085, 4090, 5000, 9000])))

    def endless_length(self):
        return struct.pack("B", self.random.randrange(256)) + b"\xff" * self.random.randint(4, 4200)

    def packet(self):
        if self.random.random() < 0.003:
            return self.disconnect()
        return self.random.choice(self.kinds)()

    def last_packet(self):
        return self.random.choice(self.last_kinds)()

    def datagram(self):
        return self.last_packet()[:8000] if self.random.random() < 0.3 else self.packet()
