"""What a data directory has to hold after a crash: all that was confirmed, and of what was under way all or nothing."""

import threading

import data_files
from data_files import need

# A returning client gets what stands in the first 4095 bytes of its queue, so no queue grows beyond that.
QUEUE_BYTES = 3900
ENTRY_BYTES = len('{"msgid":65535,"qos":1,"topic":"","payload":""},')


class Slots:
    """Values by key, None for none. A change counts from its confirmation on; until then either value is right."""

    def __init__(self, what):
        self.what = what
        self.known, self.begun = {}, {}

    def begin(self, key, value):
        self.begun[key] = value

    def confirm(self, *keys):
        for key in keys:
            self.known[key] = self.begun.pop(key)

    def settle(self, found):
        for key in sorted(set(self.known) | set(self.begun) | set(found)):
            allowed = [self.known.get(key)] + ([self.begun[key]] if key in self.begun else [])
            need(found.get(key) in allowed, self.what, key, "expected", allowed, "actual", found.get(key))
            self.known[key] = found.get(key)
        self.begun = {}

    def present(self):
        return {key: value for key, value in self.known.items() if value is not None}


class Queue:
    """The messages that wait for one client: (topic, payload) in any number of publishers' orders."""

    def __init__(self, client_id, filters, lossy=False):
        self.client_id, self.filters = client_id, filters
        self.lossy = lossy  # its client comes and goes, so that what is confirmed may have been replayed
        self.known, self.begun = [], []
        self.bytes = 0

    def has_room(self, topic, payload):
        return self.bytes + ENTRY_BYTES + len(topic) + 2 * len(payload) <= QUEUE_BYTES

    def begin(self, message):
        self.begun.append(message)
        self.bytes += ENTRY_BYTES + len(message[0]) + 2 * len(message[1])

    def confirm(self, message):
        self.begun.remove(message)
        self.known.append(message)

    def settle(self, found):
        stored = [(message.topic, message.payload) for message in found]
        lost = [message for message in self.known if message not in stored]
        strange = [message for message in stored if message not in self.known + self.begun]
        need(not strange, "messages nobody sent", self.client_id, strange)
        need(self.lossy or not lost, "confirmed messages lost", self.client_id, lost, "stored", stored)
        need(len(set(stored)) == len(stored), "message stored twice", self.client_id, stored)
        need(all(message.qos == 1 for message in found), "QoS of missed messages", self.client_id, found)
        for publisher in {payload_publisher(payload) for _, payload in stored}:
            numbers = [payload_number(payload) for _, payload in stored if payload_publisher(payload) == publisher]
            need(numbers == sorted(numbers), "order of one publisher's messages", self.client_id, numbers)
        self.replace(stored)

    def replace(self, messages):
        self.known, self.begun, self.bytes = list(messages), [], 0
        self.bytes = sum(ENTRY_BYTES + len(topic) + 2 * len(payload) for topic, payload in messages)


# A payload begins with bytes that no property block begins with, then names publisher and number.
PAYLOAD_HEAD = b"\xff\xff\xff\xff"


def make_payload(publisher, number, random, size):
    head = PAYLOAD_HEAD + b"%s|%d|" % (publisher.encode(), number)
    return head + random.randbytes(max(0, size - len(head)))


def payload_publisher(payload):
    return payload[len(PAYLOAD_HEAD):].split(b"|")[0]


def payload_number(payload):
    return int(payload.split(b"|")[1])


class Expectation:
    """All that the writers know. Each key belongs to one writer; queues are filled under the lock."""

    def __init__(self, queues, will_topics):
        self.lock = threading.Lock()
        self.killed = False
        self.queues = {queue.client_id: queue for queue in queues}
        self.will_topics = will_topics  # of the clients that leave a session file
        self.retained = Slots("retained message")
        self.subscriptions = Slots("subscription")  # by client and filter
        self.sessions = Slots("session file")

    def has_session(self, client_id):
        with_subscriptions = {name for name, _ in self.subscriptions.present()}
        return client_id in with_subscriptions or client_id in self.sessions.present()

    def check_files(self, directory):
        """Every file loads and holds what it has to; what was under way is known from here on."""
        self.retained.settle(data_files.retained(directory))
        stored = {}
        for client_id in data_files.names(directory, "subscription"):
            for topic_filter, qos in data_files.subscriptions(directory, client_id).items():
                stored[client_id, topic_filter] = qos
        self.subscriptions.settle(stored)
        with_session = data_files.names(directory, "session")
        for client_id in with_session:
            need(client_id in self.will_topics, "session file of a client without a will", client_id)
            data_files.check_session(directory, client_id, self.will_topics[client_id])
        self.sessions.settle({client_id: True for client_id in with_session})
        with_queue = data_files.names(directory, "message")
        need(with_queue <= set(self.queues), "queue of a stranger", with_queue)
        for client_id, queue in self.queues.items():
            queue.settle(data_files.messages(directory, client_id) if client_id in with_queue else [])
