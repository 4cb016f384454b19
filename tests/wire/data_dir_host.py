"""A host program over a data directory that a test has prepared, and what can be seen of it."""

import json
import os
import re
import stat
import time

from mqtt_wire import CONNACK, DISCONNECT, Conn, ack, connect, publish, suback, subscribe

CONNACK_PRESENT = b"\x20\x02\x01\x00"
LINE = re.compile(r"^\[[\d-]{10} [\d:.]{12}\] \[(\w+)\] (.*)$")
LINE_S = 3.0
KINDS = ("session", "subscription", "message")
BAIT = '{"subs":[{"topic":"bait/#","qos":1}]}'
DATA = "tree/data"  # as the broker is told; what lies beside it in the tree is none of its business


class Host:
    """A host program over tree/data, and clients for it."""

    def __init__(self, start_broker, directory):
        self.start_broker = start_broker
        self.tree = directory / "tree"
        self.tree.mkdir()
        self.data = self.tree / "data"
        self.opened = []

    def start(self, *options, data=DATA):
        self.broker = self.start_broker("--data-dir", data, *options)
        return self

    def log(self):
        return [match.groups() for match in map(LINE.match, self.broker.output()) if match]

    def complaints(self):
        return [line for line in self.log() if line[1].startswith("[persist]")]

    def expect_log(self, level, text, again):
        """The line comes once `again` has run. The log drops a line when two threads meet, so it may run again."""
        for _ in range(5):
            again()
            if self.appears((level, text)):
                return
        raise AssertionError("no line [%s] %s\nactual: %s" % (level, text, self.log()))

    def appears(self, line):
        """Lines take a moment through the pipe: an answer of the broker may be here before them."""
        deadline = time.monotonic() + LINE_S
        while line not in self.log():
            if time.monotonic() > deadline:
                return False
            time.sleep(0.01)
        return True

    def client(self, client_id, clean=True, answer=CONNACK, **options):
        conn = Conn()
        self.opened.append(conn)
        conn.send(connect(client_id, clean=clean, **options))
        if answer is not None:
            conn.expect(answer)
        return conn

    def leave(self, conn):
        conn.send(DISCONNECT)
        conn.expect_closed()

    def visit(self, client_id, *filters, answer=None):
        """A persistent client comes, subscribes and leaves."""
        conn = self.client(client_id, False, answer)
        if answer is None:
            conn.packet()
        if filters:
            conn.subscribe(*[(topic_filter, 1) for topic_filter in filters])
        self.leave(conn)

    def publish(self, topic, payload, retain=0):
        conn = self.client("publisher")
        conn.send(publish(topic, payload, 1, 7, retain=retain))
        conn.expect(ack(0x40, 7))
        self.leave(conn)

    def retained(self, topic_filter):
        """Topic and payload of what is retained."""
        conn = self.client("reader")
        conn.send(subscribe(1, (topic_filter, 0)))
        found = []
        packet = conn.packet()
        while packet != suback(1, 0):
            end = 4 + packet[3]
            assert packet[0] == 0x33 and packet[1] < 0x80, packet
            found.append((packet[4:end].decode(), packet[end + 2:]))
            packet = conn.packet()
        self.leave(conn)
        return found

    def check_service(self):
        """Connect, subscribe, publish, receive; retained as well."""
        conn = self.client("service")
        conn.subscribe(("service", 1))
        self.publish("service", b"hello", retain=1)
        conn.send(ack(0x40, conn.expect_publish("service", b"hello", 1)))
        self.leave(conn)
        assert ("service", b"hello") in self.retained("service")
        self.publish("service", b"", retain=1)

    def close(self):
        for conn in self.opened:
            conn.close()
        self.opened = []

    def stop(self):
        self.close()
        self.broker.stop()  # checks the exit status

    def has_file(self, kind, client_id):
        return os.path.isfile(str(self.data / kind / (client_id + ".json")))

    def stored(self, kind, client_id):
        return (self.data / kind / (client_id + ".json")).read_text()

    def missed(self, client_id):
        return [(msg["topic"], bytes.fromhex(msg["payload"]))
                for msg in json.loads(self.stored("message", client_id))["msgs"]]

    def filters(self, client_id):
        return [entry["topic"] for entry in json.loads(self.stored("subscription", client_id))["subs"]]


def snapshot(directory, leave_out=()):
    """All that can be seen of a tree: names, kinds, modes, times, and contents where they may be read."""
    found = {}
    for folder, folders, files in os.walk(str(directory)):
        folders[:] = [name for name in folders if os.path.join(folder, name) not in leave_out]
        for name in folders + files:
            path = os.path.join(folder, name)
            info = os.lstat(path)
            content = os.readlink(path) if stat.S_ISLNK(info.st_mode) else None
            if stat.S_ISREG(info.st_mode) and info.st_size < 1 << 20 and os.access(path, os.R_OK):
                with open(path, "rb") as stream:
                    content = stream.read()
            # The time of a directory changes with its entries.
            changed = None if stat.S_ISDIR(info.st_mode) else info.st_mtime_ns
            found[path] = (info.st_mode, info.st_ino, info.st_size, changed, content)
    return found


def cannot_write(path):
    return "[persist] 写入临时文件失败(重试3次): %s.tmp" % path


def lay_bait(host):
    """An empty data directory, and beside it a file that would read as subscriptions. Returns its path."""
    bait = host.tree / "bait.json"
    bait.write_text(BAIT)
    for kind in KINDS:
        (host.data / kind).mkdir(parents=True)
    return str(bait)
