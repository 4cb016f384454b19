"""Plays a scenario against a running broker and compares what each client receives with the model."""

import socket
import struct
import time

from broker_model import Delivery, Model
from layout import Publication, decode_publish, encode_length, text
from mqtt_wire import (DEADLINE_S, DISCONNECT, PINGREQ, PINGRESP, Conn, ack, connect, hexs, maximum_packet_size,
                       publish, subscribe, unsubscribe)

CLOCK_STEP_S = 0.002  # the broker counts whole milliseconds
LATE_WILL_S = 0.3     # how long after its time a will that nobody gets is over
SILENCE_KEEPALIVE_S = 1
ACKS = {"puback": 0x40, "pubrec": 0x50, "pubrel": 0x62, "pubcomp": 0x70}


class Mismatch(Exception):
    """The broker did what the model does not."""


class Inconclusive(Exception):
    """The machine was too slow for the scenario to have one outcome."""


class Link(Conn):
    def take(self, deadline_s=DEADLINE_S):
        """The next packet; None at the end of the stream. socket.timeout when nothing comes."""
        deadline = time.monotonic() + deadline_s
        while not self._whole():
            if not self._fill(deadline):
                return None
        return self.packet()

    def hang_up(self, how):
        if how == "reset":
            self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.close()


class Seat:
    """A connection of the scenario: the socket and what the model knows of it."""

    def __init__(self, connection):
        self.link, self.connection = Link(), connection
        self.settings = {"level": 4}
        self.next_pid = 1


def describe(item):
    if not isinstance(item, Delivery):
        return hexs(item.data)
    what = item.publication
    return "PUBLISH level %d topic %s payload %s qos %d retain %d dup %d" % (
        item.level, what.topic, hexs(what.payload), what.qos, what.retain, what.dup)


class Player:
    def __init__(self, turn, restart, deadline_s=DEADLINE_S):
        """`restart(kind)` ends the broker and starts it again."""
        self.deadline_s = deadline_s
        self.model = Model(turn)
        self.restart_broker = restart
        self.seats = {}
        self.witness = Link()  # knows nothing and gets nothing: its pings tell that the broker has got so far

    def close(self):
        for seat in self.seats.values():
            seat.link.close()
        self.witness.close()

    def leave(self):
        """Lose all connections, so that no will comes later."""
        self.play([["drop", name, "close", None] for name in list(self.seats)])

    def play(self, steps):
        for number, step in enumerate(steps):
            began = time.monotonic()
            self.model.begin_step(began)
            try:
                getattr(self, "step_" + step[0])(*step[1:])
                self.check_all()
                for connection in list(self.model.waiting_wills):
                    self.wait_for_will(connection, began)
            except Mismatch as mismatch:
                raise Mismatch("step %d %s: %s" % (number + 1, step, mismatch)) from None

    # What is sent

    def live(self, name):
        seat = self.seats.get(name)
        return seat if seat is not None and seat.connection.is_open() else None

    def send(self, seat, data):
        """Send a packet and see its answers."""
        self.model.packet(seat.connection, data)
        if seat.connection.is_open():
            self.model.packet(seat.connection, PINGREQ)
            data += PINGREQ
        try:
            seat.link.send(data)
        except OSError as error:
            raise Mismatch("the broker has closed the connection (%s)" % error) from None
        self.compare(seat)

    def check_all(self):
        """Whatever the other clients got is what they had to get."""
        for seat in self.seats.values():
            if seat.connection.is_open():
                self.model.packet(seat.connection, PINGREQ)
                try:
                    seat.link.send(PINGREQ)
                except OSError as error:
                    raise Mismatch("the broker has closed a connection (%s)" % error) from None
        for seat in self.seats.values():
            if seat.connection.is_open():
                self.compare(seat)

    def let_the_broker_notice(self):
        """The end of a connection is an event among others: it is handled before the second of two pings."""
        for _ in range(2):
            self.witness.send(PINGREQ)
            if self.witness.take() != PINGRESP:
                raise Mismatch("the witness got no PINGRESP")

    # What is received

    def compare(self, seat):
        expected = seat.connection.expected
        while expected:
            got = self.take(seat, "expected: " + "; ".join(map(describe, expected)))
            if got is not None and self.is_repetition(seat.connection, got):
                continue
            while expected and expected[0].optional and not self.fits(seat.connection, expected[0], got):
                expected.pop(0)
            if not expected and got is None:
                return
            if not expected or not self.fits(seat.connection, expected[0], got):
                raise Mismatch("client %s\n  expected: %s\n  actual:   %s" % (
                    seat.connection.client_id or "without a name", "\n            ".join(map(describe, expected)) or
                    "the end", hexs(got) if got is not None else "the end"))
            expected.pop(0)
        if not seat.connection.is_open():
            self.compare_end(seat)

    def compare_end(self, seat):
        while True:
            got = self.take(seat, "expected: the end")
            if got is None:
                return
            if not self.is_repetition(seat.connection, got):
                raise Mismatch("client %s\n  expected: the end\n  actual:   %s" % (seat.connection.client_id,
                                                                             hexs(got)))

    def take(self, seat, waiting_for, deadline_s=None):
        try:
            return seat.link.take(deadline_s or self.deadline_s)
        except socket.timeout:
            raise Mismatch("client %s: nothing came, %s" % (seat.connection.client_id, waiting_for)) from None

    @staticmethod
    def publish_pid(got):
        """Identifier of a PUBLISH with a QoS, else 0."""
        if got[0] >> 4 != 3 or not got[0] & 6:
            return 0
        at = 1 + len(encode_length(len(got) - 2))
        at += 2 + int.from_bytes(got[at:at + 2], "big")
        return int.from_bytes(got[at:at + 2], "big")

    def fits(self, connection, item, got):
        if got is None:
            return False
        if not isinstance(item, Delivery):
            return got == item.data
        pid = self.publish_pid(got)
        if got != item.publication.encode(item.level, pid) or (item.publication.qos and not pid):
            return False
        item.pid = pid
        if pid:
            connection.received.append(item)
        return True

    def is_repetition(self, connection, got):
        pid = self.publish_pid(got)
        if not pid:
            return False
        for flight in connection.flights + connection.ended_flights:
            delivery, what = flight.delivery, flight.delivery.publication
            if delivery.pid not in (None, pid) or (delivery.pid is None and flight.sent):
                continue
            again = Publication(what.topic, what.payload, what.qos, 0, int(flight.repeats > 0))
            if got not in [again.encode(level, pid) for level in connection.levels | {delivery.level}]:
                continue
            if time.monotonic() - flight.since < 2 ** (flight.repeats + 1) - 1 - CLOCK_STEP_S:
                raise Mismatch("repeated too early: %s" % hexs(got))
            if delivery.pid is None:
                connection.received.append(delivery)
            delivery.pid = pid
            flight.repeats += 1
            return True
        return False

    # The steps. One that cannot be taken does nothing, so that any of them can be left out.

    def step_open(self, name):
        if self.live(name) is None:
            if name in self.seats:
                self.seats[name].link.close()
            self.seats[name] = Seat(self.model.open())

    def step_connect(self, name, client_id, settings, keepalive=600):
        self.step_open(name)
        seat = self.seats[name]
        if seat.connection.client_id not in ("", client_id):
            return  # a connection keeps its name
        seat.settings = settings
        self.send(seat, self.connect_packet(client_id, settings, keepalive))

    @staticmethod
    def connect_packet(client_id, settings, keepalive):
        props = rest = b""
        flags = 0
        if settings["level"] == 5:
            props += b"\x11" + struct.pack(">I", settings["expiry"]) if settings["expiry"] else b""
            props += maximum_packet_size(settings["maximum"]) if settings["maximum"] else b""
        will = settings.get("will")
        if will:
            flags = 0x04 | will["qos"] << 3 | will["retain"] << 5
            if settings["level"] == 5:
                delay = b"\x18" + struct.pack(">I", will["delay"]) if will["delay"] else b""
                rest = encode_length(len(delay)) + delay
            rest += text(will["topic"].encode()) + text(bytes.fromhex(will["payload"]))
        return connect(client_id, settings["level"], settings["clean"], keepalive, props, flags=flags, rest=rest)

    def with_pid(self, name):
        seat = self.live(name)
        if seat is not None:
            seat.next_pid += 1
        return seat

    def step_subscribe(self, name, filters):
        seat = self.with_pid(name)
        if seat:
            self.send(seat, subscribe(seat.next_pid, *filters, level=seat.settings["level"]))

    def step_unsubscribe(self, name, filters):
        seat = self.with_pid(name)
        if seat:
            self.send(seat, unsubscribe(seat.next_pid, *filters, level=seat.settings["level"]))

    def step_publish(self, name, what):
        seat = self.live(name)
        if seat:
            self.send(seat, publish(what["topic"], bytes.fromhex(what["payload"]), what["qos"], what["pid"],
                                    seat.settings["level"], b"", what["retain"], what["dup"]))

    def acknowledge(self, seat, first_byte, pid, form):
        form = form or {4: 2, 5: 4}[seat.settings["level"]]
        packet = ack(first_byte, pid)
        self.send(seat, bytes([packet[0], form]) + packet[2:] + bytes(form - 2))

    def step_ack(self, name, index, how, form):
        """Acknowledge one of the messages received, or everything that has not been acknowledged."""
        seat = self.live(name)
        if seat is None:
            return
        open_messages = [delivery for delivery in seat.connection.received if not delivery.done]
        if how != "all" and open_messages:
            delivery = open_messages[-1 - index % len(open_messages)]
            delivery.done = how == "pubcomp"
            self.acknowledge(seat, ACKS[how], delivery.pid, form)
            return
        for delivery in open_messages:
            delivery.done = True
            for kind in ["puback"] if delivery.publication.qos == 1 else ["pubrec", "pubcomp"]:
                self.acknowledge(seat, ACKS[kind], delivery.pid, form)

    def step_pubrel(self, name, pid, form):
        seat = self.live(name)
        if seat:
            self.acknowledge(seat, ACKS["pubrel"], pid, form)

    def step_stray(self, name, kind, pid, form):
        seat = self.live(name)
        if seat:
            self.acknowledge(seat, kind << 4 | (2 if kind == 6 else 0), pid, form)

    def step_disconnect(self, name, form):
        seat = self.live(name)
        if seat is None:
            return
        expiry = {"zero": b"\x05\x10\0\0\0\0", "keep": b"\x05\x10\0\0\x01\x2c",
                  "leave": b"\x05\x10\xff\xff\xff\xff", "absent": b"\0", "short": b""}[form]
        packet = DISCONNECT
        if seat.settings["level"] == 5 and expiry:
            packet = bytes([0xE0, 1 + len(expiry), 0]) + expiry
        self.send(seat, packet)

    def step_drop(self, name, how, back):
        """Lose the connection. A delayed will is waited for, or its owner is back at once: with `back`."""
        seat = self.live(name)
        if seat is None:
            return
        dropped = time.monotonic()
        seat.link.hang_up(how)
        self.model.lost(seat.connection)
        self.let_the_broker_notice()
        client_id, delay = seat.connection.client_id, seat.connection.will_delay
        waiting = seat.connection in self.model.waiting_wills
        if back and client_id:
            self.check_all()
            self.step_connect(name, client_id, back)
            if waiting:
                if time.monotonic() > dropped + delay:
                    raise Inconclusive
                time.sleep(dropped + delay + LATE_WILL_S - time.monotonic())

    def wait_for_will(self, connection, began):
        """A delayed will comes before anything else happens; its time began to run no earlier than that."""
        due, over = began + connection.will_delay, time.monotonic() + connection.will_delay + LATE_WILL_S
        self.model.due(connection)
        waiting = [seat for seat in self.seats.values() if seat.connection.is_open() and seat.connection.expected]
        for seat in waiting:
            self.compare(seat)
            if time.monotonic() < due - CLOCK_STEP_S:
                raise Mismatch("the will came before its time")
        if not waiting:
            time.sleep(over - time.monotonic())

    def step_settle(self):
        """Wait until each message that has not been acknowledged has been repeated."""
        for seat in self.seats.values():
            while seat.connection.is_open() and seat.connection.awaited_repetitions():
                got = self.take(seat, "expected: a repetition")
                if got is None or not self.is_repetition(seat.connection, got):
                    raise Mismatch("client %s\n  expected: a repetition of %s\n  actual:   %s" % (
                        seat.connection.client_id,
                        [describe(flight.delivery) for flight in seat.connection.awaited_repetitions()],
                        hexs(got) if got is not None else "the end"))

    def step_silence(self, client_id, settings):
        """A client that says nothing more after its CONNECT is closed."""
        name = "silent"
        settings = dict(settings, will=None)
        self.step_connect(name, client_id, settings, SILENCE_KEEPALIVE_S)
        seat = self.seats[name]
        while True:
            got = self.take(seat, "expected: the end of a silent client", DEADLINE_S)
            if got is None:
                break
            if not self.is_repetition(seat.connection, got):
                raise Mismatch("silent client %s\n  actual: %s" % (client_id, hexs(got)))
        self.model.lost(seat.connection)

    def step_restart(self, kind):
        if kind == "stop":
            # In which order a stop ends two connections of one client is open.
            for name in list(self.seats):
                if self.live(name) and self.model.superseded(self.seats[name].connection):
                    self.step_drop(name, "close", None)
                    self.check_all()
            for connection in list(self.model.connections):
                self.model.lost(connection)
        self.restart_broker(kind)
        self.close()
        self.seats = {}
        self.model.forget()
        self.model.turn = 0
        self.model.start()
        self.witness = Link()
