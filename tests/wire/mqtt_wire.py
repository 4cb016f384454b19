"""Raw MQTT packets, and a socket that says in hex what it expected and what it got."""

import socket
import struct
import time

HOST = "127.0.0.1"
PORT = 1883
DEADLINE_S = 30.0  # generous: only a broken broker ever waits this long

PINGREQ = b"\xc0\x00"
PINGRESP = b"\xd0\x00"
DISCONNECT = b"\xe0\x00"
DISCONNECT_V5 = b"\xe0\x02\x00\x00"
CONNACK = b"\x20\x02\x00\x00"


def hexs(data):
    return " ".join("%02X" % byte for byte in data) if data else "(nothing)"


def unhex(text):
    return bytes.fromhex(text)


def varint(value):
    out = bytearray()
    while True:
        value, low = divmod(value, 128)
        out.append(low | (0x80 if value else 0))
        if not value:
            return bytes(out)


def string(value):
    data = value.encode() if isinstance(value, str) else value
    return struct.pack(">H", len(data)) + data


def packet(first_byte, body=b""):
    return bytes([first_byte]) + varint(len(body)) + body


def connect(client_id, level=4, clean=True, keepalive=60, props=b"", username=None, password=None, flags=0,
            rest=b""):
    """A CONNECT; `flags` is or-ed into the connect flags and `rest` stands between identifier and user name."""
    flags |= 0x02 if clean else 0
    flags |= 0x80 if username is not None else 0
    flags |= 0x40 if password is not None else 0
    body = string("MQTT") + bytes([level, flags]) + struct.pack(">H", keepalive)
    if level == 5:
        body += varint(len(props)) + props
    body += string(client_id) + rest
    body += string(username) if username is not None else b""
    body += string(password) if password is not None else b""
    return packet(0x10, body)


def maximum_packet_size(value):
    return b"\x27" + struct.pack(">I", value)


def connack_v5(announced, reason=0):
    return bytes([0x20, 0x0B, 0, reason, 8, 0x21, 0xFF, 0xFF, 0x27]) + struct.pack(">I", announced)


def filler(length):
    """A payload that cannot be read as a property block: no property length begins like this."""
    return b"\xff" * length


def publish(topic, payload=b"", qos=0, pid=0, level=4, props=b"", retain=0, dup=0):
    body = string(topic)
    body += struct.pack(">H", pid) if qos else b""
    if level == 5:
        body += varint(len(props)) + props
    return packet(0x30 | dup << 3 | qos << 1 | retain, body + payload)


def subscribe(pid, *filters, level=4, props=b""):
    """`filters` are (filter, options byte) pairs."""
    body = struct.pack(">H", pid)
    if level == 5:
        body += varint(len(props)) + props
    for topic_filter, options in filters:
        body += string(topic_filter) + bytes([options])
    return packet(0x82, body)


def suback(pid, *codes, level=4):
    return packet(0x90, struct.pack(">H", pid) + (b"\x00" if level == 5 else b"") + bytes(codes))


def unsubscribe(pid, *filters, level=4):
    body = struct.pack(">H", pid) + (b"\x00" if level == 5 else b"")
    return packet(0xA2, body + b"".join(string(f) for f in filters))


def ack(first_byte, pid, reason=None):
    """PUBACK 0x40, PUBREC 0x50, PUBREL 0x62, PUBCOMP 0x70, UNSUBACK 0xB0."""
    return packet(first_byte, struct.pack(">H", pid) + (b"" if reason is None else bytes([reason])))


class Conn:
    """One TCP connection. Everything it reads has a deadline."""

    def __init__(self, receive_buffer=None):
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        if receive_buffer:
            self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        self.sock.settimeout(DEADLINE_S)
        self.sock.connect((HOST, PORT))
        self.sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.buffer = b""
        self.next_pid = 1

    def close(self):
        self.sock.close()

    def send(self, data):
        self.sock.sendall(data)

    def _fill(self, deadline):
        """Read once; False at the end of the stream."""
        self.sock.settimeout(max(0.001, deadline - time.monotonic()))
        try:
            data = self.sock.recv(65536)
        except ConnectionResetError:
            return False
        self.buffer += data
        return bool(data)

    def _whole(self):
        """Length of the packet at the head of the buffer, or 0 while it is incomplete."""
        value, shift = 0, 0
        for index, byte in enumerate(self.buffer[1:5]):
            value |= (byte & 0x7F) << shift
            shift += 7
            if byte < 0x80:
                total = 2 + index + value
                return total if len(self.buffer) >= total else 0
        return 0

    def packet(self, deadline_s=DEADLINE_S, waiting_for=None):
        deadline = time.monotonic() + deadline_s
        wanted = "" if waiting_for is None else "\nexpected: %s" % hexs(waiting_for)
        while not self._whole():
            try:
                open_still = self._fill(deadline)
            except socket.timeout:
                raise AssertionError("no packet in time%s\nactual:   %s" % (wanted, hexs(self.buffer)))
            if not open_still:
                raise AssertionError("closed by the broker%s\nactual:   %s" % (wanted, hexs(self.buffer)))
        total = self._whole()
        taken, self.buffer = self.buffer[:total], self.buffer[total:]
        return taken

    def expect(self, *expected):
        for wanted in expected:
            got = self.packet(waiting_for=wanted)
            assert got == wanted, "\nexpected: %s\nactual:   %s" % (hexs(wanted), hexs(got))

    def expect_publish(self, topic, payload=b"", qos=0, level=4, props=b"", retain=0, dup=0):
        """The next packet is this PUBLISH under whatever identifier; returns the identifier."""
        got = self.packet(waiting_for=publish(topic, payload, qos, 0, level, props, retain, dup))
        pid = 0
        if qos:
            at = 1 + len(varint(len(got) - 2)) + 2 + len(string(topic)) - 2
            pid = struct.unpack(">H", got[at:at + 2])[0] if len(got) >= at + 2 else 0
            assert pid != 0, "identifier 0 in %s" % hexs(got)
        wanted = publish(topic, payload, qos, pid, level, props, retain, dup)
        assert got == wanted, "\nexpected: %s\nactual:   %s" % (hexs(wanted), hexs(got))
        return pid

    def expect_closed(self, *last_packets, deadline_s=DEADLINE_S):
        """These packets still come, then the broker closes the connection."""
        self.expect(*last_packets)
        deadline = time.monotonic() + deadline_s
        try:
            while self._fill(deadline):
                pass
        except socket.timeout:
            raise AssertionError("still open\nexpected: the end\nactual:   %s" % hexs(self.buffer))
        assert self.buffer == b"", "\nexpected: the end\nactual:   %s" % hexs(self.buffer)

    def ping(self):
        """The broker handles packets in order, so a bare answer proves that nothing else was sent before it."""
        self.send(PINGREQ)
        self.expect(PINGRESP)

    def subscribe(self, *filters, level=4):
        """Subscribe to (filter, qos) pairs, all granted."""
        pid, self.next_pid = self.next_pid, self.next_pid + 1
        self.send(subscribe(pid, *filters, level=level))
        self.expect(suback(pid, *[qos for _, qos in filters], level=level))


class Datagrams:
    """One UDP peer of the broker. The broker looks for a datagram after it has handled TCP events, so each
    exchange is nudged along with pings on a TCP connection."""

    def __init__(self, nudge):
        self.nudge = nudge
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.sock.connect((HOST, PORT))

    def close(self):
        self.sock.close()

    def send(self, data):
        """When this returns the datagram has been handled: it was read before the second ping was."""
        self.sock.send(data)
        self.nudge.ping()
        self.nudge.ping()

    def expect(self, *expected):
        for wanted in expected:
            deadline = time.monotonic() + DEADLINE_S
            got = None
            while got is None:
                assert time.monotonic() < deadline, "no datagram in time\nexpected: %s" % hexs(wanted)
                self.sock.settimeout(0.05)
                try:
                    got = self.sock.recv(65536)
                except socket.timeout:
                    self.nudge.ping()
            assert got == wanted, "\nexpected: %s\nactual:   %s" % (hexs(wanted), hexs(got))
