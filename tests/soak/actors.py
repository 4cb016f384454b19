"""What the clients of the soak do. Each actor knows what it is owed, and says at the end whether it got it."""

import asyncio
import random
import socket
import struct
import time

from client import Client
from mqtt_wire import CONNACK, HOST, PORT, connect, publish, subscribe, suback

PLACES = 11000
_taken = set()


def name(text):
    """An identifier for the whole run. The broker looks clients up in one of 11000 places that the hash of the
    identifier chooses, and of two clients with one place it finds the later alone; so each gets its own."""
    while True:
        place = 0
        for byte in text.encode():
            place = (place * 31 + byte) & 0xFFFFFFFF
        if place % PLACES not in _taken:
            _taken.add(place % PLACES)
            return text
        text += "x"


FILLER = b"\xff" * 40  # no payload of ours begins like a property block


class Group:
    """Publishers and subscribers of one topic that stay for the whole run."""

    def __init__(self, counts, number, rate):
        self.counts, self.topic, self.rate = counts, "group/%d" % number, rate
        self.number = number
        self.published = [set(), set(), set()]  # sequence numbers by QoS
        self.seen = []
        self.duplicates = 0
        self.clients = []

    async def start(self, subscribers, publishers):
        for index in range(subscribers):
            seen = set()
            self.seen.append((index % 3, seen))

            def on_message(message, seen=seen):
                assert message.topic == self.topic and message.retain == 0, message.topic
                number = struct.unpack_from(">I", message.payload, 2)[0]
                self.duplicates += number in seen
                seen.add(number)

            client = await Client.open(self.counts, name("group-%d-%d" % (self.number, index)), on_message)
            await client.subscribe(self.topic, index % 3)
            self.clients.append(client)
        self.publishers = [await Client.open(self.counts, name("speaker-%d-%d" % (self.number, index)))
                           for index in range(publishers)]
        self.clients += self.publishers
        self.sequence = 0

    async def run(self, over, seed):
        choice = random.Random(seed)
        while not over.is_set():
            qos = choice.randrange(3)
            self.sequence += 1
            number = self.sequence
            self.published[qos].add(number)
            payload = b"\xff\xff" + struct.pack(">I", number) + FILLER
            await choice.choice(self.publishers).publish(self.topic, payload, qos)
            await asyncio.sleep(choice.uniform(0.5, 1.5) / self.rate)

    def owed(self):
        """Messages that did not come: with QoS 0 on either side, and with an identifier. The broker draws
        identifiers at random and gives up one message in 65536, whose identifier would be 0."""
        bare = identified = 0
        for qos, seen in self.seen:
            for sent in range(3):
                missing = len(self.published[sent] - seen)
                if min(qos, sent):
                    identified += missing
                else:
                    bare += missing
        return bare, identified

    def deliveries(self):
        return len(self.seen) * sum(len(numbers) for numbers in self.published)


class Traveller:
    """A stored session that comes and goes; its partner publishes while it is away."""

    def __init__(self, counts, number):
        self.counts, self.topic = counts, "away/%d" % number
        self.name, self.partner_name = name("traveller-%d" % number), name("partner-%d" % number)
        self.missed = 0  # messages published while it was away
        self.next_message = 0
        self.expected, self.seen = set(), set()
        self.news = asyncio.Event()

    def on_message(self, message):
        assert message.topic == self.topic, message.topic
        self.seen.add(struct.unpack_from(">I", message.payload, 2)[0])
        self.news.set()

    async def come(self, present):
        self.client = await Client.open(self.counts, self.name, self.on_message, clean=False)
        assert self.client.session_present == present, "session present: %d" % self.client.session_present

    async def start(self):
        self.partner = await Client.open(self.counts, self.partner_name)
        await self.come(0)
        await self.client.subscribe(self.topic, 1)

    async def run(self, over, seed):
        choice = random.Random(seed)
        while not over.is_set():
            await asyncio.sleep(choice.uniform(2, 6))
            await self.client.ping()
            await self.client.leave()
            for _ in range(choice.randint(1, 3)):
                self.next_message += 1
                self.missed += 1
                self.expected.add(self.next_message)
                payload = b"\xff\xff" + struct.pack(">I", self.next_message) + FILLER
                await self.partner.publish(self.topic, payload, 1)
            await asyncio.sleep(choice.uniform(0, 1))
            await self.come(1)
            deadline = time.monotonic() + 30
            while self.expected - self.seen:
                assert time.monotonic() < deadline, "still missed: %s" % sorted(self.expected - self.seen)
                self.news.clear()
                try:
                    await asyncio.wait_for(self.news.wait(), 1)
                except asyncio.TimeoutError:
                    pass

    async def forget(self):
        """Its session ends with it."""
        await self.client.leave()
        await (await Client.open(self.counts, self.name)).leave()
        await self.partner.leave()


class Mortal:
    """Connects with a will, and dies."""

    deaths = 0

    def __init__(self, counts, number):
        self.counts, self.number, self.name = counts, number, name("mortal-%d" % number)
        self.client = None

    async def start(self):
        will = struct.pack(">H", 4) + b"will" + struct.pack(">HH", 4, 0xFFFF) + struct.pack(">H", self.number)
        self.client = await Client.open(self.counts, self.name, flags=0x04, rest=will)

    async def run(self, over, seed):
        choice = random.Random(seed)
        while not over.is_set():
            await asyncio.sleep(choice.uniform(1, 4))
            await self.client.ping()
            self.client.reset()
            Mortal.deaths += 1
            await self.start()


class Keeper:
    """Keeps one retained message current, and looks it up anew each time."""

    def __init__(self, counts, number):
        self.counts, self.number, self.topic = counts, number, "kept/%d" % number

    def on_message(self, message):
        assert message.topic == self.topic
        if message.retain:
            self.found.set_result(message.payload)

    async def start(self):
        self.writer = await Client.open(self.counts, name("writer-%d" % self.number))
        self.reader = await Client.open(self.counts, name("reader-%d" % self.number), self.on_message)

    async def run(self, over, seed):
        choice = random.Random(seed)
        version = 0
        while not over.is_set():
            version += 1
            payload = b"\xff\xff" + struct.pack(">I", version) + FILLER
            await self.writer.publish(self.topic, payload, 1, retain=1)
            self.found = asyncio.get_running_loop().create_future()
            await self.reader.subscribe(self.topic, 0)
            assert await asyncio.wait_for(self.found, 30) == payload
            await self.reader.unsubscribe(self.topic)
            await asyncio.sleep(choice.uniform(1, 3))

    async def forget(self):
        await self.writer.publish(self.topic, b"", 1, retain=1)
        await self.writer.leave()
        await self.reader.leave()


class Sloth:
    """Reads a few hundred bytes a second of a topic that brings far more."""

    TOPIC = "flood"
    PAYLOAD = 1000

    def __init__(self, counts, number):
        self.counts, self.number = counts, number
        self.buffer = bytearray()
        self.packets = 0

    async def start(self):
        loop = asyncio.get_running_loop()
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 8192)
        self.sock.setblocking(False)
        await loop.sock_connect(self.sock, (HOST, PORT))
        self.counts.connections += 1
        for packet, answer in ((connect(name("sloth-%d" % self.number), keepalive=3600), CONNACK),
                               (subscribe(1, (self.TOPIC, 0)), suback(1, 0))):
            self.counts.sent += 1
            await loop.sock_sendall(self.sock, packet)
            got = b""
            while len(got) < len(answer):
                got += await loop.sock_recv(self.sock, len(answer) - len(got))
            assert got == answer, got.hex()
            self.counts.received += 1

    async def read(self, most):
        data = await asyncio.get_running_loop().sock_recv(self.sock, most)
        assert data, "the broker has closed a slow reader"
        self.buffer += data
        whole = 3 + 2 + len(self.TOPIC) + self.PAYLOAD
        while len(self.buffer) >= whole:
            expected = publish(self.TOPIC, b"\xff" * self.PAYLOAD)
            assert self.buffer[:whole] == expected, "a torn packet: %s" % bytes(self.buffer[:32]).hex()
            del self.buffer[:whole]
            self.packets += 1
            self.counts.received += 1

    async def run(self, over, seed):
        while not over.is_set():
            await self.read(300)
            await asyncio.sleep(1)

    async def catch_up(self):
        """Everything that is still on its way."""
        while True:
            try:
                await asyncio.wait_for(self.read(65536), 2)
            except asyncio.TimeoutError:
                return

    async def leave(self):
        self.counts.sent += 1
        await asyncio.get_running_loop().sock_sendall(self.sock, b"\xe0\x00")
        assert await asyncio.get_running_loop().sock_recv(self.sock, 1) == b""
        self.sock.close()


class Flood:
    def __init__(self, counts, rate):
        self.counts, self.rate, self.published = counts, rate, 0

    async def start(self):
        self.client = await Client.open(self.counts, name("flood"))

    async def publish(self, count):
        for _ in range(count):
            await self.client.publish(Sloth.TOPIC, b"\xff" * Sloth.PAYLOAD)
        self.published += count

    async def fill(self, dropped, readers):
        """Until everything between the broker and its slow readers is full, `dropped` being what it has given up
        so far. Forty messages a time are less than a reader's queue holds."""
        batches = 50
        for _ in range(100):
            before = dropped()
            for _ in range(batches):
                await self.publish(40)
                await asyncio.sleep(0.02)
            await self.client.ping()
            if dropped() - before > 0.9 * 40 * batches * readers:
                return
        raise AssertionError("slow readers keep up")

    async def run(self, over, seed):
        began, before = time.monotonic(), self.published
        while not over.is_set():
            due = int((time.monotonic() - began) * self.rate) - (self.published - before)
            await self.publish(max(0, due))
            await asyncio.sleep(0.05)
