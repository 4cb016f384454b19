"""Random scenarios: lists of steps that can be printed, shortened and run again."""

import json

from filters import SHARE, place

TOPICS = ["a", "a/b", "a/b/c", "b", "b/", "a//c", "$S/x"]
FILTERS = ["a", "a/b", "a/b/c", "b", "a/+", "+/b", "+", "#", "a/#", "a/b/#", "a/+/c", "+/+", "b/+", "$S/#", "b/"]
REFUSED = ["a/+/#", "+/#", "a#", "a+/b", "#/a"]
GROUPS = ["g", "gh", "k"]
REFUSED_QOS = 3
ANNOUNCED = [4096, 4096, 4096, 256, 0]
LETTERS = "abcdefghijklmnopqrstuvwxyz"

PLAIN, SHARED, RESTARTED, ALONE = "plain", "shared", "restarted", "alone"


class Scenario:
    """`turn` counts the shared groups that the broker has to have served before."""

    def __init__(self, name, steps, turn=0):
        self.name, self.steps, self.turn = name, steps, turn

    def shares(self):
        return any(f.startswith(SHARE) for step in self.steps if step[0] == "subscribe" for f, _ in step[2])

    def script(self):
        lines = [json.dumps({"scenario": self.name, "turn": self.turn})]
        return "\n".join(lines + [json.dumps(step) for step in self.steps]) + "\n"

    @staticmethod
    def parse(script):
        head, *steps = [json.loads(line) for line in script.splitlines() if line and not line.startswith("//")]
        return Scenario(head["scenario"], steps, head["turn"])


class Names:
    """Client identifiers of one broker. Two of them share a place in its table only where that is asked for."""

    def __init__(self):
        self.taken = set()

    def fresh(self, rng, stem):
        while True:
            name = stem + "".join(rng.choice(LETTERS) for _ in range(3))
            if place(name) not in self.taken:
                self.taken.add(place(name))
                return name

    @staticmethod
    def sharing(rng, stem, other):
        """Another identifier with the place of `other`."""
        while True:
            name = stem + "".join(rng.choice(LETTERS) for _ in range(5))
            if place(name) == place(other) and name != other:
                return name


class Maker:
    """Makes one scenario."""

    def __init__(self, rng, name, kind, names, restarts=()):
        self.rng, self.name, self.kind = rng, name, kind
        self.prefix = "" if kind == ALONE else name + "/"
        self.ids = [names.fresh(rng, name) for _ in range(rng.randint(2, 4))]
        if rng.random() < 0.05:
            self.ids.append(names.sharing(rng, name, self.ids[0]))
        self.seats = len(self.ids) + 1
        # Few of them, so that they meet.
        self.topics = rng.sample(TOPICS, rng.randint(2, 4))
        self.filters = rng.sample(FILTERS, rng.randint(3, 6))
        self.levels = {}
        self.count = 0
        self.steps = []
        for seat in range(rng.randint(2, len(self.ids))):
            self.connect(seat, self.ids[seat])
            if rng.random() < 0.8:
                self.subscribe(seat)
        if kind in (SHARED, ALONE):
            group = SHARE + "%s/%s#" % (rng.choice(GROUPS), self.prefix)
            for seat in sorted(self.levels):
                self.add("subscribe", seat, [[group, rng.randint(0, 2)]])
        self.length = rng.randint(6, 22)
        self.restarts = list(zip(sorted(rng.randrange(self.length) for _ in restarts), restarts))

    def scenario(self, turn=0):
        kinds = [(self.publish, 30), (self.ack, 16), (self.subscribe, 12), (self.drop, 7), (self.reconnect, 12),
                 (self.disconnect, 5), (self.unsubscribe, 3), (self.pubrel, 4), (self.stray, 1), (self.open, 1),
                 (self.absence, 3), (self.settle, 1.2), (self.silence, 0.04)]
        for at in range(self.length):
            while self.restarts and self.restarts[0][0] <= at:
                self.restart(self.restarts.pop(0)[1])
            self.rng.choices([make for make, _ in kinds], [weight for _, weight in kinds])[0]()
        if self.kind == RESTARTED:
            self.reconnect()
            self.publish()
        if self.rng.random() < 0.15:
            self.settle()
        return Scenario(self.name, self.steps, turn)

    def add(self, *step):
        self.steps.append(list(step))

    def seat(self):
        return self.rng.choice(sorted(self.levels) or [0])

    def topic(self):
        return self.prefix + self.rng.choice(self.topics)

    def topic_filter(self):
        topic_filter = self.prefix + self.rng.choice(REFUSED if self.rng.random() < 0.05 else self.filters)
        if self.kind in (SHARED, ALONE) and self.rng.random() < 0.6:
            return SHARE + "%s/%s" % (self.rng.choice(GROUPS), topic_filter)
        return topic_filter

    def payload(self, will=False):
        """Most payloads begin above 0x7F, which no 3.1.1 payload can lose; each has a number of its own."""
        self.count += 1
        end = b"#%d" % self.count
        way = self.rng.random()
        if way < 0.7:
            return (bytes(self.rng.randrange(0x80, 0x100) for _ in range(self.rng.randint(1, 3))) + end).hex()
        if way < 0.8 or will:
            return (b"t" + end).hex()
        if way < 0.88:
            return ""
        if way < 0.93:
            return (b"\xff" * self.rng.choice([240, 260, 300]) + end).hex()
        return (b"\0" + end if way < 0.97 else b'{"text": "' + b"x" * 130 + end + b'"}').hex()

    def connect(self, seat, client_id, settings=None):
        settings = settings or self.settings()
        self.levels[seat] = settings["level"]
        self.add("connect", seat, client_id, settings)

    def settings(self):
        rng = self.rng
        settings = {"level": rng.choice([4, 5]), "clean": rng.random() < (0.4 if self.kind == RESTARTED else 0.6)}
        if settings["level"] == 5:
            settings["expiry"] = rng.choice([0, 300, 300])
            settings["maximum"] = rng.choice(ANNOUNCED)
        if rng.random() < 0.25:
            settings["will"] = {"topic": self.topic(), "payload": self.payload(will=True), "qos": rng.randint(0, 2),
                                "retain": rng.randint(0, 1),
                                "delay": rng.choice([0, 0, 2]) if settings["level"] == 5 else 0}
        return settings

    def reconnect(self):
        seat = self.rng.randrange(self.seats)
        # Mostly one seat for each client, sometimes the place of another: a takeover or a second CONNECT.
        usual = self.ids[seat] if seat < len(self.ids) else self.rng.choice(self.ids)
        self.connect(seat, usual)

    def absence(self):
        """A client that misses messages, and is back."""
        seat = self.rng.randrange(len(self.ids))
        for stay in range(2):
            settings = dict(self.settings(), clean=False)
            if settings["level"] == 5:
                settings["expiry"] = 300
            self.connect(seat, self.ids[seat], settings)
            if not stay:
                self.subscribe(seat)
                self.add("disconnect", seat, "keep")
                del self.levels[seat]
                for _ in range(self.rng.randint(1, 4)):
                    self.publish()
        if self.rng.random() < 0.5:
            self.settle()

    def open(self):
        seat = self.seats
        self.levels[seat] = 4
        self.add("open", seat)

    def subscribe(self, seat=None):
        count = self.rng.choice([1, 1, 2, 3])
        filters = [[self.topic_filter(), self.rng.choice([0, 1, 1, 2, 2])] for _ in range(count)]
        if self.rng.random() < 0.03:
            filters[-1][1] = REFUSED_QOS
        self.add("subscribe", self.seat() if seat is None else seat, filters)

    def unsubscribe(self):
        used = [f[0] for step in self.steps if step[0] == "subscribe" for f in step[2]] or [self.topic_filter()]
        self.add("unsubscribe", self.seat(), [self.rng.choice(used) for _ in range(self.rng.randint(1, 2))])

    def publish(self):
        rng = self.rng
        self.add("publish", self.seat(), {"topic": self.topic(), "payload": self.payload(), "qos": rng.randint(0, 2),
                                          "pid": rng.randint(1, 9), "retain": int(rng.random() < 0.25),
                                          "dup": int(rng.random() < 0.1)})

    def ack(self):
        how = self.rng.choice(["all", "all", "all", "puback", "pubrec", "pubrel", "pubcomp"])
        self.add("ack", self.seat(), self.rng.randrange(4), how, self.form())

    def form(self):
        """How long an acknowledgement is; None is the form of the client's level."""
        return self.rng.choice([None] * 8 + [2, 3, 4])

    def pubrel(self):
        self.add("pubrel", self.seat(), self.rng.randint(1, 9), self.form())

    def stray(self):
        self.add("stray", self.seat(), self.rng.choice([4, 5, 6, 7]), self.rng.randint(1, 65535), self.form())

    def drop(self):
        seat = self.seat()
        back = self.settings() if self.rng.random() < 0.4 else None
        self.add("drop", seat, self.rng.choice(["close", "reset"]), back)
        if back:
            self.levels[seat] = back["level"]
        elif len(self.levels) > 1:
            self.levels.pop(seat, None)

    def disconnect(self):
        self.add("disconnect", self.seat(), self.rng.choice(["zero", "absent", "keep", "keep", "leave", "short"]))

    def settle(self):
        self.add("settle")

    def silence(self):
        self.add("silence", self.rng.choice(self.ids), self.settings())

    def restart(self, kind):
        self.add("restart", kind)
        for seat in list(self.levels):
            if self.rng.random() < 0.7 and seat < len(self.ids):
                self.connect(seat, self.ids[seat])
