"""Unmodified clients of four makers behind one small interface.

subscriber(...) returns a connected and subscribed Subscriber; publish(...) returns once every message has been
acknowledged and the client has gone. The session classes at the end offer step by step control of two of them."""

import collections
import json
import os
import signal
import subprocess
import threading
import time

import paho.mqtt.client as paho
from paho.mqtt.packettypes import PacketTypes
from paho.mqtt.properties import Properties
from paho.mqtt.subscribeoptions import SubscribeOptions

from mqtt_wire import DEADLINE_S, HOST, PORT

Message = collections.namedtuple("Message", "topic payload qos")  # None where the client does not say


class Inbox:
    """What a client has received so far, filled by another thread."""

    def __init__(self):
        self.items = []
        self.changed = threading.Condition()

    def add(self, item):
        with self.changed:
            self.items.append(item)
            self.changed.notify_all()

    def wait(self, condition, what):
        deadline = time.monotonic() + DEADLINE_S
        with self.changed:
            while not condition(self.items):
                left = deadline - time.monotonic()
                assert left > 0, "waited for %s, got %s" % (what, self.items[-20:])
                self.changed.wait(left)
            return list(self.items)

    def wait_count(self, count):
        return self.wait(lambda items: len(items) >= count, "%d items" % count)[:count]


class ToolSubscriber:
    """A command line subscriber; it is subscribed once the broker reports the event."""

    def __init__(self, broker, client_id, filters, command, parse, ending=signal.SIGINT):
        self.inbox = Inbox()
        self.output = []
        self.ending = ending
        def subscribed(line):
            return "event subscribe" in line and '"clientId":"%s","topic":"%s"' % (client_id, filters[-1]) in line

        before = sum(map(subscribed, broker.output()))
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                        stderr=subprocess.STDOUT)
        self.reader = threading.Thread(target=self._read, args=(parse,), daemon=True)
        self.reader.start()
        broker.wait_line(subscribed, "%s to subscribe" % client_id, before + 1)

    def _read(self, parse):
        for line in self.process.stdout:
            self.output.append(line)
            message = parse(line.rstrip(b"\n"))
            if message is not None:
                self.inbox.add(message)

    def messages(self, count):
        return self.inbox.wait_count(count)

    def close(self):
        if self.process.poll() is None:
            self.process.send_signal(self.ending)
            self.process.wait(DEADLINE_S)
        self.reader.join(DEADLINE_S)

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()


def run_tool(command, stdin=b""):
    result = subprocess.run(command, input=stdin, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=DEADLINE_S)
    assert result.returncode == 0, "%s\nstatus %d: %s" % (command, result.returncode, result.stdout)
    return result.stdout.decode("utf-8", "backslashreplace")


# mosquitto_sub and mosquitto_pub


def mosquitto_options(client_id, level, large):
    options = ["-h", HOST, "-p", str(PORT), "-i", client_id, "-V", "mqttv5" if level == 5 else "mqttv311"]
    if level == 5 and large:
        options += ["-D", "connect", "maximum-packet-size", "4096"]
    return options


def parse_mosquitto(line):
    fields = line.decode().split(" ")
    return Message(fields[2], bytes.fromhex(fields[3]), int(fields[1])) if fields[0] == "message" else None


class Mosquitto:
    name = "mosquitto"

    @staticmethod
    def subscriber(broker, client_id, filters, qos=0, level=4, large=False, more=()):
        command = ["mosquitto_sub", *mosquitto_options(client_id, level, large), "-q", str(qos), "-F",
                   "message %q %t %x", *more]
        for topic_filter in filters:
            command += ["-t", topic_filter]
        return ToolSubscriber(broker, client_id, filters, command, parse_mosquitto)

    @staticmethod
    def publish(client_id, topic, payloads, qos=0, level=4, large=False):
        command = ["mosquitto_pub", *mosquitto_options(client_id, level, large), "-q", str(qos), "-t", topic]
        if len(payloads) > 1:
            run_tool(command + ["-l"], b"".join(payload + b"\n" for payload in payloads))
        else:
            run_tool(command + ["-s"], payloads[0])


# paho_c_sub and paho_c_pub


def paho_c_options(client_id, qos, level):
    return ["-h", HOST, "-p", str(PORT), "-i", client_id, "-q", str(qos), "-V", "5" if level == 5 else "311",
            "--quiet"]


class PahoC:
    name = "paho-c"

    @staticmethod
    def subscriber(broker, client_id, filters, qos=0, level=4, large=False):
        assert len(filters) == 1 and not large

        def parse(line):
            # A wildcard makes it print "length topic", a tab and the payload, and also lines about itself.
            if not set("+#") & set(filters[0]):
                return Message(None, line, None)
            head, tab, payload = line.partition(b"\t")
            return Message(head.decode().split(" ", 1)[1], payload, None) if tab else None

        command = ["paho_c_sub", *paho_c_options(client_id, qos, level), "-t", filters[0]]
        return ToolSubscriber(broker, client_id, filters, command, parse)

    @staticmethod
    def publish(client_id, topic, payloads, qos=0, level=4, large=False):
        for payload in payloads:
            with open("paho_c_payload", "wb") as stream:
                stream.write(payload)
            run_tool(["paho_c_pub", *paho_c_options(client_id, qos, level), "-t", topic, "-f", "paho_c_payload"])


# Paho for Python


class PahoPython:
    """One Paho client and its network thread."""

    name = "paho-python"

    def __init__(self, client_id, level=4, large=False, keepalive=60, username=None, clean=True):
        options = {} if level == 5 else {"clean_session": clean}
        self.level = level
        self.inbox, self.events = Inbox(), Inbox()
        self.client = paho.Client(client_id, protocol=paho.MQTTv5 if level == 5 else paho.MQTTv311, **options)
        if username is not None:
            self.client.username_pw_set(username, "secret")
        self.client.on_message = lambda _, __, m: self.inbox.add(Message(m.topic, m.payload, m.qos))
        self.client.on_connect = lambda *args: self.events.add(("connect", int(getattr(args[3], "value", args[3]))))
        self.client.on_disconnect = lambda *args: self.events.add(
            ("disconnect", int(getattr(args[2], "value", args[2] or 0))))
        self.client.on_subscribe = lambda *args: self.events.add(
            ("subscribe", args[2], [int(getattr(code, "value", code)) for code in args[3]]))
        self.client.on_unsubscribe = lambda *args: self.events.add(("unsubscribe", args[2]))
        properties = None
        if level == 5 and large:
            properties = Properties(PacketTypes.CONNECT)
            properties.MaximumPacketSize = 4096
        more = {"properties": properties} if level == 5 else {}
        self.client.connect_async(HOST, PORT, keepalive, **more)

    def wait(self, kind, *rest):
        wanted = (kind, *rest)
        events = self.events.wait(lambda items: any(item[:len(wanted)] == wanted for item in items), wanted)
        return next(item for item in events if item[:len(wanted)] == wanted)

    def start(self):
        self.client.loop_start()
        return self

    def connect(self):
        self.start()
        assert self.wait("connect") == ("connect", 0)
        return self

    def subscribe(self, filters):
        if self.level == 5:
            filters = [(topic_filter, SubscribeOptions(qos=qos)) for topic_filter, qos in filters]
        _, mid = self.client.subscribe(filters)
        return self.wait("subscribe", mid)[2]

    def unsubscribe(self, filters):
        _, mid = self.client.unsubscribe(filters)
        self.wait("unsubscribe", mid)

    def publish_one(self, topic, payload, qos=0, retain=False, properties=None):
        more = {"properties": properties} if properties is not None else {}
        info = self.client.publish(topic, payload, qos, retain, **more)
        info.wait_for_publish(DEADLINE_S)
        assert info.is_published()

    def messages(self, count):
        return self.inbox.wait_count(count)

    def close(self):
        self.client.disconnect()
        self.client.loop_stop()

    def kill(self):
        self.close()

    @staticmethod
    def subscriber(broker, client_id, filters, qos=0, level=4, large=False):
        session = PahoPython(client_id, level, large).connect()
        session.subscribe([(topic_filter, qos) for topic_filter in filters])
        return session

    @staticmethod
    def publish(client_id, topic, payloads, qos=0, level=4, large=False):
        session = PahoPython(client_id, level, large).connect()
        for payload in payloads:
            session.publish_one(topic, payload, qos)
        session.close()


# MQTT.js


class MqttJs:
    """One MQTT.js client in a process of its own."""

    name = "mqtt.js"

    def __init__(self, client_id, level=4, large=False, **options):
        script = os.path.join(os.path.dirname(os.path.abspath(__file__)), "mqttjs_client.js")
        if level == 5 and large:
            options["properties"] = {"maximumPacketSize": 4096}
        self.options = {"clientId": client_id, "protocolVersion": level, "clean": True, **options}
        self.inbox, self.events = Inbox(), Inbox()
        self.next_id = 0
        self.process = subprocess.Popen(["node", script], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for line in self.process.stdout:
            item = json.loads(line)
            if item.get("event") == "message":
                self.inbox.add(Message(item["topic"], bytes.fromhex(item["payload"]), item["qos"]))
            self.events.add(item)

    def start(self, op, **arguments):
        self.next_id += 1
        self.process.stdin.write(json.dumps({"id": self.next_id, "op": op, **arguments}) + "\n")
        self.process.stdin.flush()
        return self.next_id

    def finish(self, number):
        items = self.events.wait(lambda items: any(item.get("reply") == number for item in items), "a reply")
        reply = next(item for item in items if item.get("reply") == number)
        assert reply["error"] is None, reply
        return reply.get("value")

    def wait_event(self, event, **fields):
        def fits(item):
            return item.get("event") == event and all(item[key] == value for key, value in fields.items())

        return next(item for item in self.events.wait(lambda items: any(map(fits, items)), event) if fits(item))

    def connect(self):
        assert self.finish(self.start("connect", options=self.options))["code"] == 0
        return self

    def subscribe(self, filters):
        return self.finish(self.start("subscribe", filters=filters))

    def unsubscribe(self, filters):
        self.finish(self.start("unsubscribe", filters=filters))

    def start_publish(self, topic, payload, qos=0, **options):
        return self.start("publish", topic=topic, payload=payload.hex(), options={"qos": qos, **options})

    def publish_one(self, topic, payload, qos=0, **options):
        self.finish(self.start_publish(topic, payload, qos, **options))

    def messages(self, count):
        return self.inbox.wait_count(count)

    def close(self):
        self.finish(self.start("end"))
        assert self.process.wait(DEADLINE_S) == 0

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()

    @staticmethod
    def subscriber(broker, client_id, filters, qos=0, level=4, large=False):
        session = MqttJs(client_id, level, large).connect()
        session.subscribe([(topic_filter, qos) for topic_filter in filters])
        return session

    @staticmethod
    def publish(client_id, topic, payloads, qos=0, level=4, large=False):
        session = MqttJs(client_id, level, large).connect()
        for payload in payloads:
            session.publish_one(topic, payload, qos)
        session.close()


MAKERS = [Mosquitto, PahoPython, PahoC, MqttJs]
SESSIONS = [PahoPython, MqttJs]
