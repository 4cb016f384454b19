"""What the broker keeps of a client on disk."""

import re

SESSION_TEXT_BYTES = 227  # a session file is cut there
RECORDED_FILTERS = 32
RECORDED_FILTER_BYTES = 63
MISSED_MESSAGES = 100

SESSION = ('{"client_id":"%s","clean_session":false,"clean_start":%s,"session_expiry_interval":0,'
           '"session_expiry_deadline":0,"last_online":0,"will_flag":%s,"will_topic":"%s","will_qos":%d,"will_len":%d,'
           '"will_payload":"%s","will_delay_interval":%d,')


class Record:
    """A client's session as its connection holds it."""

    def __init__(self):
        self.clean_start = self.will_flag = False
        self.will_topic, self.will_qos, self.will_payload, self.will_delay = "", 0, b"", 0
        self.subscriptions = []  # [filter, QoS]

    def note(self, topic_filter, qos):
        for entry in self.subscriptions:
            if entry[0] == topic_filter:
                entry[1] = qos
                return
        self.subscriptions.append([topic_filter[:RECORDED_FILTER_BYTES], qos])


class Files:
    """The three files of one client."""

    def __init__(self):
        self.session = self.subscriptions = self.missed = None

    def write_session(self, client_id, record):
        text = SESSION % (client_id, "true" if record.clean_start else "false",
                          "true" if record.will_flag else "false", record.will_topic, record.will_qos,
                          len(record.will_payload), record.will_payload[:1024].hex(), record.will_delay)
        self.session = text[:SESSION_TEXT_BYTES]

    def write_subscriptions(self, record):
        if record.subscriptions:
            self.subscriptions = [list(entry) for entry in record.subscriptions]

    def add_missed(self, topic, payload, qos):
        self.missed = ((self.missed or []) + [(topic, payload[:1024], qos)])[-MISSED_MESSAGES:]

    def read(self):
        record = Record()
        record.subscriptions = [list(entry) for entry in self.subscriptions or []]
        text = self.session or ""
        # Read back as set when a later key's value says "true"; and a shorter word moves where the text is cut.
        record.clean_start = "true" in text.partition('"clean_start":')[2]
        flag = text.partition('"will_flag":')[2]
        topic = re.search(r'"will_topic":"([^"]*)"', text)
        # A will whose topic was cut off is none.
        if "true" in flag and topic and topic.group(1):
            record.will_flag, record.will_topic = True, topic.group(1)
            record.will_qos = self._number(text, "will_qos")
            payload = re.search(r'"will_payload":"([0-9a-f]*)"', text)
            # One whose payload was cut off comes back with zero bytes.
            record.will_payload = bytes.fromhex(payload.group(1)) if payload else b""
            record.will_payload = record.will_payload.ljust(self._number(text, "will_len"), b"\0")
        return record

    @staticmethod
    def _number(text, key):
        found = re.search('"%s":([0-9]*)' % key, text)
        return int(found.group(1) or 0) if found else 0


class Disk:
    def __init__(self):
        self.clients = {}

    def of(self, client_id):
        return self.clients.setdefault(client_id, Files())

    def has_session(self, client_id):
        return client_id in self.clients

    def remove(self, client_id):
        self.clients.pop(client_id, None)
