"""One client on an event loop: it counts what it sends and receives, and acknowledges messages by itself."""

import asyncio
import collections
import socket
import struct

from mqtt_wire import DISCONNECT, HOST, PINGREQ, PORT, ack, connect, publish, subscribe, unsubscribe

DEADLINE_S = 60.0  # generous: only a broken broker ever takes this long


class Counts:
    """Of all clients together."""

    def __init__(self):
        self.sent = self.received = 0
        self.published = [0, 0, 0]
        self.connections = 0


class Message:
    def __init__(self, packet):
        self.qos = packet[0] >> 1 & 3
        self.retain = packet[0] & 1
        at = 1
        while packet[at] & 0x80:
            at += 1
        at += 1
        length = struct.unpack_from(">H", packet, at)[0]
        self.topic = packet[at + 2:at + 2 + length].decode()
        at += 2 + length
        self.pid = struct.unpack_from(">H", packet, at)[0] if self.qos else 0
        self.payload = packet[at + (2 if self.qos else 0):]


class Client(asyncio.Protocol):
    """At level 4. Answers are handed out by packet type in the order of their arrival."""

    def __init__(self, counts, on_message=None):
        self.counts = counts
        self.on_message = on_message or (lambda message: None)
        self.buffer = bytearray()
        self.answers = collections.defaultdict(asyncio.Queue)
        self.closed = asyncio.get_running_loop().create_future()
        self.next_pid = 0

    @classmethod
    async def open(cls, counts, client_id, on_message=None, **options):
        loop = asyncio.get_running_loop()
        _, client = await loop.create_connection(lambda: cls(counts, on_message), HOST, PORT)
        counts.connections += 1
        client.send(connect(client_id, **options))
        answer = await client.answer(2)
        assert answer[0] == 0x20 and answer[3] == 0, "%s: refused with %s" % (client_id, answer.hex())
        client.session_present = answer[2]
        return client

    def connection_made(self, transport):
        self.transport = transport
        transport.get_extra_info("socket").setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

    def connection_lost(self, error):
        if not self.closed.done():
            self.closed.set_result(error)

    def data_received(self, data):
        self.buffer += data
        while True:
            length, shift, at = 0, 0, 1
            while at < len(self.buffer):
                length |= (self.buffer[at] & 0x7F) << shift
                shift += 7
                at += 1
                if self.buffer[at - 1] < 0x80:
                    break
            else:
                return
            if len(self.buffer) < at + length:
                return
            packet = bytes(self.buffer[:at + length])
            del self.buffer[:at + length]
            self.counts.received += 1
            self.handle(packet)

    def handle(self, packet):
        kind = packet[0] >> 4
        if kind == 3:
            message = Message(packet)
            if message.qos:
                self.send(ack(0x40 if message.qos == 1 else 0x50, message.pid))
            self.on_message(message)
        elif kind == 6:  # the end of a message of QoS 2 to us
            self.send(ack(0x70, struct.unpack(">H", packet[2:4])[0]))
        elif kind == 5:  # the middle of one from us
            self.send(ack(0x62, struct.unpack(">H", packet[2:4])[0]))
        else:
            self.answers[kind].put_nowait(packet)

    def send(self, packet):
        self.counts.sent += 1
        self.transport.write(packet)

    async def answer(self, kind):
        waiting = asyncio.ensure_future(self.answers[kind].get())
        await asyncio.wait({waiting, self.closed}, timeout=DEADLINE_S, return_when=asyncio.FIRST_COMPLETED)
        if not waiting.done():
            waiting.cancel()
            raise AssertionError("no answer of type %d: %s" % (kind, "closed" if self.closed.done() else "in time"))
        return waiting.result()

    def new_pid(self):
        self.next_pid = self.next_pid % 65535 + 1
        return self.next_pid

    async def publish(self, topic, payload, qos=0, retain=0):
        """Returns once the broker has taken it over (QoS 1, 2)."""
        pid = self.new_pid()
        self.counts.published[qos] += 1
        self.send(publish(topic, payload, qos, pid, retain=retain))
        if qos:
            answer = await self.answer(4 if qos == 1 else 7)
            assert struct.unpack(">H", answer[2:4])[0] == pid, answer.hex()

    async def subscribe(self, topic_filter, qos):
        pid = self.new_pid()
        self.send(subscribe(pid, (topic_filter, qos)))
        answer = await self.answer(9)
        assert answer == b"\x90\x03" + struct.pack(">HB", pid, qos), answer.hex()

    async def unsubscribe(self, topic_filter):
        self.send(unsubscribe(self.new_pid(), topic_filter))
        await self.answer(11)

    async def ping(self):
        """The broker has handled all that was sent before when this returns."""
        self.send(PINGREQ)
        await self.answer(13)

    async def leave(self):
        self.send(DISCONNECT)
        await asyncio.wait({self.closed}, timeout=DEADLINE_S)
        assert self.closed.done(), "still open after DISCONNECT"

    def reset(self):
        self.transport.get_extra_info("socket").setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.transport.abort()
