#!/usr/bin/python3
"""Write the seed corpora: fuzz/seeds.py [name...]. The files are kept in the tree; this is how they came about.

Inputs have the shape that the fuzzer of that name reads. A corpus that is written again loses no finding: those
are in fuzz/regressions.
"""
import pathlib
import struct
import sys

HERE = pathlib.Path(__file__).resolve().parent


def varint(value):
    out = bytearray()
    while True:
        out.append(value % 128 | (0x80 if value >= 128 else 0))
        value //= 128
        if value == 0:
            return bytes(out)


def text(value):
    raw = value if isinstance(value, bytes) else value.encode()
    return struct.pack(">H", len(raw)) + raw


def packet(first, body=b""):
    return bytes([first]) + varint(len(body)) + body


def connect(client_id, level=4, flags=0x02, keep_alive=60, properties=b"", rest=b""):
    body = text("MQTT") + bytes([level, flags]) + struct.pack(">H", keep_alive)
    if level == 5:
        body += varint(len(properties)) + properties
    return packet(0x10, body + text(client_id) + rest)


def publish(topic, payload=b"", qos=0, packet_id=0, flags=0, properties=None):
    body = text(topic)
    if qos:
        body += struct.pack(">H", packet_id)
    if properties is not None:
        body += varint(len(properties)) + properties
    return packet(0x30 | qos << 1 | flags, body + payload)


def subscribe(packet_id, filters, level=4, properties=b""):
    body = struct.pack(">H", packet_id)
    if level == 5:
        body += varint(len(properties)) + properties
    return packet(0x82, body + b"".join(text(f) + bytes([q]) for f, q in filters))


def unsubscribe(packet_id, filters, level=4, properties=b""):
    body = struct.pack(">H", packet_id)
    if level == 5:
        body += varint(len(properties)) + properties
    return packet(0xA2, body + b"".join(text(f) for f in filters))


def golden_packets():
    """(level, packet) of every type, as clients and brokers write them."""
    will = text("will/t") + text("gone")
    long_will = text("w" * 256) + text("p" * 2000)
    yield 4, connect("a")
    yield 4, connect("", flags=0x02)
    yield 4, connect("persistent", flags=0x00)
    yield 4, connect("w", flags=0x26 | 0x08, rest=will)
    yield 4, connect("u", flags=0xC2, rest=text("user") + text("secret"))
    yield 4, connect("big", flags=0xC6, rest=long_will + text("u" * 64) + text("p" * 64))
    yield 5, connect("a", 5)
    yield 5, connect("five", 5, 0x00, properties=bytes.fromhex("11 0000003c 27 00001000 21 0010 22 0005 19 01 1a 01"))
    yield 5, connect("five", 5, 0x06, properties=bytes.fromhex("27 00000800"),
                     rest=bytes.fromhex("0a 18 00000005 02 0000000a") + will)
    yield 5, connect("x" * 70, 5, properties=bytes.fromhex("26 0001 61 0001 62"))
    yield 5, connect("u", 5, 0xC0, rest=text("user") + text("secret"))
    for level, raw in ((4, "20 02 00 00"), (4, "20 02 01 00"), (5, "20 0b 01 00 08 21 ffff 27 00001000"),
                       (5, "20 0a 00 86 07 10 0000003c 22 0005"), (5, "20 05 00 00 02 99 00")):
        yield level, bytes.fromhex(raw)
    yield 4, publish("a/b", b"payload")
    yield 4, publish("a/b", b"", flags=1)
    yield 4, publish("a/b", b"hello", 1, 10)
    yield 4, publish("t" * 256, b"x" * 400, 2, 65535, 8)
    yield 5, publish("a/b", b"payload", properties=b"")
    yield 5, publish("a/b", b"p", 1, 7, properties=bytes.fromhex("02 00000005"))
    yield 5, publish("a/b", b"p", 2, 8, properties=bytes.fromhex("23 0001 01 01"))
    yield 5, publish("a", b"p", properties=bytes.fromhex("03 0001 74 08 0001 72 09 0001 63 0b 05 26 0001 6b 0001 76"))
    for first in (0x40, 0x50, 0x62, 0x70, 0xB0):
        yield 4, packet(first, b"\x00\x0a")
        yield 5, packet(first, b"\x00\x0a\x10")
        yield 5, packet(first, b"\x00\x0a\x00\x05\x1f\x00\x02ok")
    yield 4, packet(0x90, b"\x00\x0a\x00\x01\x80")
    yield 5, packet(0x90, b"\x00\x0a\x00\x00\x01\x02")
    yield 4, subscribe(10, [("a/+", 1)])
    yield 4, subscribe(11, [("f%d" % i, i % 3) for i in range(17)])
    yield 4, subscribe(12, [("$share/g/a/#", 2), ("t" * 256, 0)])
    yield 5, subscribe(13, [("a/b", 2)], 5, bytes.fromhex("0b 05 26 01 27 02"))
    yield 5, subscribe(14, [("#", 0)], 5, bytes.fromhex("1f 02 6f 6b"))
    yield 4, unsubscribe(10, ["a/+", "b"])
    yield 4, unsubscribe(11, [])
    yield 5, unsubscribe(12, ["a/b"], 5, bytes.fromhex("0b 05"))
    yield 5, unsubscribe(13, ["x"] * 17, 5, bytes.fromhex("26 01"))
    for level, raw in ((4, "c0 00"), (4, "d0 00"), (4, "e0 00"), (5, "e0 02 00 00"), (5, "e0 07 8e 05 10 0000003c"),
                       (5, "e0 0c 04 0a 1f 0002 6f6b 26 0002 6b76"), (4, "c0 80 80 00"), (4, "f0 00")):
        yield level, bytes.fromhex(raw)


def block(raw):
    raw = raw if isinstance(raw, bytes) else raw.encode()
    return (bytes([len(raw)]) if len(raw) < 255 else b"\xff" + struct.pack(">H", len(raw))) + raw


def codec_seeds():
    for level, raw in golden_packets():
        mode = 0 if level == 4 else 1
        yield bytes([mode]) + raw
        yield bytes([mode | 0x80]) + raw
        if raw[0] >> 4 in (3, 4, 9, 14):
            yield bytes([mode | 4]) + raw
    for mode in (8, 9):  # records
        yield bytes([mode, 0, 0x1E]) + struct.pack(">HIHHIBB", 60, 60, 16, 5, 4096, 1, 1) + block("id") + bytes(
            [1]) + struct.pack(">II", 5, 10) + block("will/t") + block("gone") + block("user") + block("secret")
        yield bytes([mode, 1]) + struct.pack(">BBIHHI", 1, 0, 60, 65535, 5, 4096)
        yield bytes([mode, 2, 0x05]) + struct.pack(">HIH", 10, 5, 0) + block("a/b") + block("payload")
        yield bytes([mode, 2, 0x00]) + struct.pack(">HIH", 0, 0, 0) + block("t" * 256) + block("x" * 1900)
        yield bytes([mode, 3]) + struct.pack(">HIB", 10, 5, 3) + b"".join(
            bytes([q]) + block(f) for q, f in ((0, "a"), (1, ""), (2, "b/#")))
        yield bytes([mode, 4]) + struct.pack(">HBB", 10, 11, 2) + block("a") + block("b")
        yield bytes([mode, 5, 0x8E]) + struct.pack(">I", 60) + block("reason") + block("property")
        for kind in range(6):
            yield bytes([mode, 6 | kind << 4]) + struct.pack(">HBB", 10, 0, 2) + bytes([0, 1])
        yield bytes([mode, 7 | 14 << 4])
    yield bytes([16, 0, 0x10, 0x00, 0x01, 0x41])


def netip_seeds():
    packets = [raw for _, raw in golden_packets()]
    stream = b"".join(packets)
    for cuts in (b"", bytes(40), bytes(range(60)), b"\x7f" * 30, b"\x80\x00" * 20):
        yield bytes([0]) + block(cuts) + b"\x00" + stream
        yield bytes([0x83]) + block(cuts) + b"\x00" + stream
        yield bytes([0]) + block(cuts) + b"\x0f" + b"\xc0\x00" * 40
    for size in (4096, 4097, 5000):
        length = varint(size - 3)
        yield bytes([0]) + block(b"\x00\x01\xc8") + b"\x00" + b"\x30" + length + b"p" * (size - 3) + b"\xc0\x00"
        yield bytes([0]) + block(b"\x00\x01\xff") + b"\x07" + b"\x30" + length + b"p" * 700
    yield bytes([0]) + block(b"\x00\x00\x00") + b"\x0f" + b"\x30\x80\x80\x80\x80\x00" + b"x" * 300
    yield bytes([0]) + block(b"\x00\x00\x00") + b"\x03" + b"\xc0\x80\x80\x80\x00\xc0\x00"
    for raw in packets[::3]:
        yield bytes([0]) + block(bytes(len(raw) % 50)) + b"\x02" + raw


LEVELS = ["", "a", "b", "+", "#", "a", "+", "$share", "ab", "$SYS", "a+", "c"]


def sub_text(value):
    parts = value.split("/")
    if value and all(p in LEVELS for p in parts) and len(parts) < 40:
        return bytes([len(parts)] + [LEVELS.index(p) for p in parts])
    return b"\x80" + block(value)


def sub_seeds():
    filters = ["a", "a/b", "+", "a/+", "+/b", "#", "a/#", "a/b/#", "/a", "a/", "a//b", "+/+", "a/+/b", "/#", "a/+/#",
               "+/#", "a#", "a/#/b", "a/b+", "$share/a/b/+", "$share/a/#", "$share/a", "$share/a/", "$SYS/#",
               "a/b" * 30, "a/" * 13 + "+", "+/" * 11 + "b", "\u4f60/+", "l" * 254]
    topics = ["", "a", "a/b", "a/b/", "a//", "/", "/b", "a/b/c", "$SYS/x", "b", "a/" * 13 + "b", "a/" * 14]
    for f in filters:
        yield b"".join(bytes([4]) + sub_text(f) + sub_text(t) for t in topics)
    script = b""
    for number, f in enumerate(filters):
        script += bytes([0, number % 6, number % 3 | (number << 2 & 0xFC)]) + sub_text(f)
    matches = b"".join(bytes([5, 1]) + sub_text(t) + bytes([6, number % 18, number % 6])
                       for number, t in enumerate(topics))
    yield script + matches
    yield script + bytes([7]) + matches
    yield script + b"".join(bytes([2, n % 6]) + sub_text(f) for n, f in enumerate(filters[:12])) + matches
    yield script + bytes([3, 2, 3, 3]) + matches + script + matches


class Script:
    """The steps of connections_fuzz.cpp. Identifiers, topics and filters are places in its lists."""

    def __init__(self, header=0):
        self.raw = bytes([header])

    def add(self, *values):
        self.raw += bytes(values)
        return self

    def connect(self, peer, client_id, flags=0x02, five=(0, 0, 0), will=(0, 3)):
        self.add(0, peer, flags)
        if flags & 1:
            self.add(*five)
        if flags & 4:
            self.add(*will)
        return self.add(client_id)

    def subscribe(self, peer, *filters):
        self.add(3, peer, len(filters) - 1)
        for number, qos in filters:
            self.add(qos, number)
        return self.add(7)

    def unsubscribe(self, peer, *filters):
        return self.add(9, peer, len(filters), *filters, 8)

    def publish(self, peer, topic, flags=0, payload=5):
        self.add(5, peer, flags)
        if flags & 8:
            self.add(3)
        return self.add(payload, topic, 9)

    def storm(self, peer, topic, flags, times):
        return self.add(5, peer | 0x80, flags, 0xC8, topic, 9, times - 1)

    def ack(self, peer, kind, message=0):
        return self.add(10, peer, kind, message)

    def ping(self, peer):
        return self.add(12, peer)

    def goodbye(self, peer):
        return self.add(13, peer)

    def drop(self, peer):
        return self.add(0xA0, peer)

    def kick(self, client_id):
        return self.add(0xA2, client_id)

    def application(self, topic, flags=2, payload=5):
        return self.add(0xA3, flags, payload, topic)

    def clock(self, power):
        return self.add(0xA5, power)

    def house(self, which):
        return self.add(0xA7, which)

    def flush(self):
        return self.add(0xAA, 0xAC, 0x3F, 0xAD)

    def callbacks(self, flags, target):
        return self.add(0xAE, flags, target)

    def restart(self):
        return self.add(0xAF, 0, 0xF0)


def connection_scripts(header):
    def script():
        return Script(header)

    yield script().connect(0, 0).subscribe(0, (0, 1), (1, 2)).connect(1, 1).publish(1, 0, 1).publish(
        1, 1, 2).flush().ack(0, 0).ack(0, 1).ack(0, 3).flush().goodbye(0).goodbye(1)
    yield script().connect(0, 2, 0x00).subscribe(0, (0, 1), (2, 2)).drop(0).connect(1, 1).publish(1, 0, 1).publish(
        1, 3, 2).connect(0, 2, 0x00).flush().clock(11).house(0).flush().ack(0, 0).restart().connect(0, 2, 0x00)
    yield script().connect(0, 0, 0x03, (1, 1, 0)).subscribe(0, (2, 2)).connect(1, 1, 0x07, (1, 0, 2), (0, 3)).drop(
        1).house(4).clock(12).house(4).flush().connect(1, 1, 0x03, (1, 0, 0)).goodbye(1).goodbye(0)
    yield script().connect(0, 1, 0x07, (1, 0, 3), (0, 3)).drop(0).connect(1, 1, 0x03, (1, 0, 0)).house(3).house(4).drop(1)
    yield script().connect(0, 0).connect(1, 0).drop(0).ping(1).connect(2, 13).drop(1).ping(2).connect(3, 3).connect(4, 4)
    yield script().connect(0, 0).subscribe(0, (0, 0)).connect(0, 1).subscribe(0, (1, 1)).connect(0, 0, 0x00).drop(0)
    yield script().connect(0, 7).connect(1, 7).subscribe(0, (0, 2)).subscribe(1, (0, 2)).publish(0, 0, 2).drop(0).drop(1)
    yield script().connect(0, 0).subscribe(0, (5, 1)).connect(1, 1).subscribe(1, (5, 1), (6, 2)).connect(2, 2).publish(
        2, 0, 1).publish(2, 0, 1).publish(2, 0, 2).unsubscribe(0, 5).publish(2, 0, 1).flush().kick(0).kick(1)
    yield script().connect(0, 0).subscribe(0, (2, 2)).connect(1, 1).storm(1, 0, 1, 120).flush().storm(
        1, 0, 2, 120).house(0).clock(11).house(0).flush().flush().clock(12).house(0).flush().house(2).drop(0)
    yield script().publish(0, 0, 4).connect(0, 0).publish(0, 0, 4).publish(0, 1, 0x0C).application(2, 6).connect(
        1, 1).subscribe(1, (2, 1)).flush().clock(13).house(6).publish(0, 0, 4, 0).restart().connect(1, 1).subscribe(1, (2, 1))
    yield script().callbacks(1, 0).connect(0, 0, 0x42).connect(0, 0).callbacks(2, 0).subscribe(0, (8, 1), (9, 1)).publish(
        0, 4, 1)
    for reaction in (1, 2, 3, 4):
        yield script().connect(0, 0).subscribe(0, (2, 2)).callbacks(reaction << 2, 0).connect(1, 1, 0x06, (), (0, 3)).subscribe(
            1, (0, 1)).publish(1, 0, 1).drop(1).kick(0).house(4).flush()
    yield script().connect(0, 0, 0x82).clock(11).house(2).connect(1, 1, 0x80).clock(19).house(2).house(5).add(
        0xA6, 0xE0).house(6).add(0xA6, 0xE1).house(2)
    yield script().add(0xA0, 0).ping(0).subscribe(0, (0, 1)).add(0xA8, 7, 1).clock(10).add(0xA8, 7, 1).connect(0, 0)
    yield script().connect(0, 9, 0x00).subscribe(0, (0, 1), (13, 2)).drop(0).connect(1, 8, 0x00).subscribe(1, (0, 1)).drop(
        1).connect(2, 10, 0x00).subscribe(2, (0, 1)).drop(2).connect(3, 12, 0x00).subscribe(3, (0, 1)).drop(3).connect(
            4, 1).publish(4, 0, 2).application(0).restart().connect(0, 9, 0x00).connect(1, 8, 0x00)


def connections_seeds():
    for header in (0, 1, 2, 3, 4, 8, 16, 32, 48, 51):
        scripts = [script.raw for script in connection_scripts(header)]
        yield from scripts
        # Long lives, in which one script finds what another has left.
        for first in range(0, len(scripts), 6):
            yield bytes([header]) + b"".join(raw[1:] for raw in scripts[first:] + scripts[:first])


def entry(kind, form, client, content=b""):
    """One file of persist_fuzz.cpp: kind 0..2 of client `client`, whose form 6 is a plain file in its place."""
    return bytes([kind | form << 2, client]) + content


def raw_content(value):
    return b"\x00" + block(value)


def retain_file(records, log=None, changes=b"\x00"):
    flags = 0
    while flags % 6 != records or bool(flags & 0x40) != (log is not None):
        flags += 1
    raw = bytes([flags])
    for number in range(records):
        raw += block("t/%d" % number) + bytes([3 + number, 0x70, number % 3]) + struct.pack(">HH", 32768, 0)
    if log is not None:
        raw += bytes([len(log), 0, 0])
        for slot, topic in log:
            raw += block(topic) + bytes([5, 0, slot, 1, 0, 0x71])
    return raw + changes + b"\x00"


SESSION = (b'{"client_id":"a","clean_session":false,"clean_start":false,"session_expiry_interval":60,'
           b'"session_expiry_deadline":1700000060,"last_online":0,"will_flag":true,"will_topic":"will/t","will_qos":1,'
           b'"will_len":4,"will_payload":"676f6e65","will_delay_interval":5,"will_msg_expiry_interval":10,'
           b'"will_payload_format":0,"will_content_type":"","will_response_topic":"","will_correlation_len":0}')
SUBS = b'{"subs":[{"topic":"t","qos":1},{"topic":"a/#","qos":2},{"topic":"a+","qos":0},{"topic":"","qos":3}]}'
MSGS = (b'{"msgs":[{"msgid":1,"qos":1,"topic":"t","payload":"70"},{"msgid":2,"qos":2,"topic":"a/b","payload":"' +
        b"61" * 100 + b'"},{"msgid":65535,"qos":0,"topic":"t","payload":""}]}')


def persist_seeds():
    long_msgs = b'{"msgs":[' + b",".join(
        b'{"msgid":%d,"qos":1,"topic":"t","payload":"%s"}' % (n, b"6a" * 300) for n in range(1, 12)) + b"]}"
    many_subs = b'{"subs":[' + b",".join(b'{"topic":"f/%d","qos":%d}' % (n, n % 3) for n in range(90)) + b"]}"
    files = {0: SESSION, 1: SUBS, 2: MSGS}
    use = bytes([0x10, 0, 0, 0x10, 0, 1, 0x10, 0, 0x33]) + block("t/9") + bytes([0x10, 0, 4, 0, 2, 0x10, 0, 0])
    for kind, content in files.items():
        for cut in (len(content), len(content) - 3, len(content) // 2):
            yield bytes([0]) + entry(kind, 6, 0, raw_content(content[:cut])) + use
        yield bytes([0]) + entry(kind, 1, 0, raw_content(content)) + use
        for form in (0, 2, 3, 4, 5):
            body = raw_content(content) if form == 0 else b""
            yield bytes([1]) + entry(kind, form, 1, body) + entry(kind, 6, 0, raw_content(content)) + use
    whole = b"".join(entry(kind, 6, 0, raw_content(content)) for kind, content in files.items())
    yield bytes([2]) + whole + use
    yield bytes([0x82]) + whole + use
    yield bytes([1]) + entry(2, 6, 0, raw_content(long_msgs)) + entry(1, 6, 0, raw_content(many_subs)) + use
    for number in range(4):
        yield bytes([0]) + entry(number % 3, 6, number, b"\xff\x30" + bytes(range(number, 48 + number))) + use
    store = bytes([0xA0, 0x81]) + block("new/t") + bytes([0xA1, 0x02, 0xA2, 0x00, 0xFA, 0xA0, 0x85]) + block("x")
    for records in (0, 1, 2, 5):
        yield bytes([0, 3]) + retain_file(records) + store
        yield bytes([0, 3]) + retain_file(records, [(0, "t/0"), (max(records - 1, 0), "late")]) + store
    yield bytes([0, 3]) + retain_file(2, [(0, "t/0")], changes=b"\x01\x10\x00\x01") + store
    yield bytes([0, 3, 0xF0]) + block(struct.pack("<I", 1001) + bytes(3000)) + store
    yield bytes([1]) + entry(1, 6, 0, raw_content(SUBS)) + bytes([3]) + retain_file(3) + use + store


SEEDS = {
    "codec": codec_seeds,
    "netip": netip_seeds,
    "sub": sub_seeds,
    "connections": connections_seeds,
    "persist": persist_seeds,
}


def main(names):
    for name in names or SEEDS:
        folder = HERE / "corpus" / name
        folder.mkdir(parents=True, exist_ok=True)
        for old in folder.iterdir():
            old.unlink()
        for number, raw in enumerate(SEEDS[name]()):
            (folder / ("%03d" % number)).write_bytes(raw)


if __name__ == "__main__":
    main(sys.argv[1:])
