"""Clients that change what the broker keeps, each on a thread of its own, until the broker dies."""

import random
import threading
import traceback

from data_files import Retained
from expectation import make_payload
from mqtt_wire import CONNACK, DISCONNECT, Conn, ack, connect, publish, string, suback, subscribe

FILTERS_PER_CHOOSER = 16
TOPICS_PER_KEEPER = 12
ROLLER_TOPICS = 300  # the more move at once, the likelier the broker dies in between
ROLLER_BRANCH = 60  # topics of one branch; a client's send queue holds 99 messages
BATCH = 10
WILL = 0x04
CONNACK_PRESENT = b"\x20\x02\x01\x00"


class Writer(threading.Thread):
    """Runs step() until the connection dies. That it died before the broker did is an error."""

    def __init__(self, expectation, name, seed, round_number):
        super().__init__(name=name, daemon=True)
        self.expectation = expectation
        self.random = random.Random("%s %d %s" % (seed, round_number, name))
        self.number = round_number * 1000000  # of messages; they grow from round to round
        self.pid = 0
        self.conn = None
        self.error = None
        self.confirmed = 0

    def connect(self, client_id, present, clean=False, **options):
        """present: whether a stored session has to be found."""
        self.conn = Conn()
        self.conn.send(connect(client_id, clean=clean, **options))
        self.conn.expect(CONNACK_PRESENT if present else CONNACK)

    def leave(self):
        self.conn.send(DISCONNECT)
        self.conn.expect_closed()
        self.conn.close()
        self.conn = None

    def new_pid(self):
        self.pid = self.pid % 65535 + 1
        return self.pid

    def run(self):
        try:
            self.start_up()
            while True:
                self.step()
        except (AssertionError, OSError):
            if not self.expectation.killed:
                self.error = traceback.format_exc()
        finally:
            if self.conn is not None:
                self.conn.close()

    def start_up(self):
        pass


class Publisher(Writer):
    """Sends several publications at a time, so that the broker is at work whenever it dies."""

    def start_up(self):
        self.connect(self.name, False, clean=True)

    def publish_all(self, publications, confirm, retain=0):
        """publications are (topic, payload) pairs; confirm is called with each place once it is acknowledged."""
        data, pids = b"", []
        for topic, payload in publications:
            pids.append(self.new_pid())
            data += publish(topic, payload, 1, pids[-1], retain=retain)
        self.conn.send(data)
        for place, pid in enumerate(pids):
            self.conn.expect(ack(0x40, pid))
            confirm(place)
            self.confirmed += 1

    def payload(self, smallest, greatest):
        self.number += 1
        return make_payload(self.name, self.number, self.random, self.random.randrange(smallest, greatest))


class Keeper(Publisher):
    """Sets, replaces and removes retained messages of topics of its own."""

    def step(self):
        retained = self.expectation.retained
        numbers = self.random.sample(range(TOPICS_PER_KEEPER), self.random.randrange(1, BATCH))
        publications = []
        for number in numbers:
            topic, payload, message = "ret/%s/%d" % (self.name, number), b"", None
            if self.random.random() < 0.8:
                payload = self.payload(20, 1900)
                message = Retained(topic, payload, 1)
            retained.begin(topic, message)
            publications.append((topic, payload))
        self.publish_all(publications, lambda place: retained.confirm(publications[place][0]), retain=1)


class Roller(Publisher):
    """Removes retained messages, which moves those behind them, and sets them again as the newest."""

    def step(self):
        retained = self.expectation.retained
        first = self.random.randrange(ROLLER_TOPICS)
        topics = [roller_topic((first + place) % ROLLER_TOPICS) for place in range(BATCH)]
        for message_of in (lambda topic: None, lambda topic: Retained(topic, self.payload(1000, 1900), 1)):
            messages = [message_of(topic) for topic in topics]
            for topic, message in zip(topics, messages):
                retained.begin(topic, message)
            publications = [(topic, message.payload if message else b"") for topic, message in zip(topics, messages)]
            self.publish_all(publications, lambda place: retained.confirm(topics[place]), retain=1)


def roller_topic(number):
    return "roll%d/%d" % (number // ROLLER_BRANCH, number)


class Sender(Publisher):
    """Publishes to clients that are away."""

    def step(self):
        publications, receivers = [], []
        with self.expectation.lock:
            for _ in range(self.random.randrange(1, BATCH)):
                self.choose(self.payload(30, 160), publications, receivers)
        if not publications:
            self.conn.ping()  # all queues are full
        else:
            self.publish_all(publications, lambda place: self.confirm(publications[place], receivers[place]))

    def choose(self, payload, publications, receivers):
        queues = list(self.expectation.queues.values())
        topic = self.random.choice(self.random.choice(queues).filters)
        chosen = [queue for queue in queues if topic in queue.filters]
        if not all(queue.has_room(topic, payload) for queue in chosen):
            return
        for queue in chosen:
            queue.begin((topic, payload))
        publications.append((topic, payload))
        receivers.append(chosen)

    def confirm(self, message, receivers):
        with self.expectation.lock:
            for queue in receivers:
                queue.confirm(message)


class Chooser(Writer):
    """A persistent client with a will that subscribes again and again, and now and then comes back."""

    def __init__(self, expectation, name, *rest):
        super().__init__(expectation, name, *rest)
        self.has_session = expectation.has_session(name)

    def start_up(self):
        self.come()

    def come(self):
        self.expectation.sessions.begin(self.name, True)
        will = string(self.expectation.will_topics[self.name]) + string(b"gone")
        self.connect(self.name, self.has_session, flags=WILL, rest=will)
        self.expectation.sessions.confirm(self.name)
        self.has_session = True

    def step(self):
        if self.random.random() < 0.3:
            self.leave()
            self.come()
        numbers = self.random.sample(range(FILTERS_PER_CHOOSER), self.random.randrange(1, BATCH))
        wanted = [(chooser_filter(self.name, number), self.random.randrange(3)) for number in numbers]
        slots = self.expectation.subscriptions
        for topic_filter, qos in wanted:
            slots.begin((self.name, topic_filter), qos)
        packets = [(self.new_pid(), wanted[place:place + 2]) for place in range(0, len(wanted), 2)]
        self.conn.send(b"".join(subscribe(pid, *filters) for pid, filters in packets))
        for pid, filters in packets:
            self.conn.expect(suback(pid, *[qos for _, qos in filters]))
            slots.confirm(*[(self.name, topic_filter) for topic_filter, _ in filters])
            self.confirmed += 1


def chooser_filter(name, number):
    return "sub/%s/%d" % (name, number) + ("/#" if number % 2 else "")


class Ghost(Writer):
    """Opens a session and wipes it out again, so that its files come and go."""

    def step(self):
        key = (self.name, "ghost/" + self.name)
        slots = self.expectation.subscriptions
        self.connect(self.name, slots.known.get(key) is not None)
        slots.begin(key, 1)
        self.conn.subscribe((key[1], 1))
        slots.confirm(key)
        self.leave()
        slots.begin(key, None)
        self.connect(self.name, False, clean=True)
        slots.confirm(key)
        self.leave()
        self.confirmed += 2


class Visitor(Writer):
    """Comes back to its queue for a moment only, so that the broker dies while it empties it."""

    def step(self):
        self.connect(self.name, True)
        self.conn.send(DISCONNECT)
        while self.conn.sock.recv(65536):  # what was published just then
            pass
        self.conn.close()
