#!/usr/bin/python3
r"""Kills the broker with SIGKILL at random moments while clients change what it keeps, and looks after each restart
whether every file loads and everything that had been acknowledged is there.

Run by ctest with a small number of kills; for more of them, from the root of the project:
  ZEB_HOST=$PWD/build/release/examples/zeb_mqtt_host PYTHONPATH=$PWD/tests/wire \
    tests/support/isolated.sh /usr/bin/python3 $PWD/tests/crash/crash_test.py --kills 500
ZEB_CRASH_KILLS and ZEB_CRASH_SEED say the same as the options. The seed decides what the clients do, not when the
machine lets them do it."""

import argparse
import os
import random
import re
import subprocess
import sys
import time

import data_files
import readers
from broker_process import Broker, host_program
from expectation import Expectation, Queue, make_payload
from mqtt_wire import ack, publish
from writers import ROLLER_BRANCH, ROLLER_TOPICS, Chooser, Ghost, Keeper, Roller, Sender, Visitor, roller_topic

DATA = "data"
OPTIONS = ["--data-dir", DATA, "--max-clients", "100"]
ACTIVITY_S = 0.4  # the kill comes at any moment of it
ROUNDS_PER_DRAIN = 6
SLEEPERS, VISITORS, CHOOSERS, KEEPERS = 12, 1, 3, 5
# Who is at work in a round. One thread of the broker serves all, so that some have to have it to themselves.
MIXES = [
    [(Keeper, 2), (Sender, 2), (Chooser, CHOOSERS), (Ghost, 2), (Visitor, VISITORS)],
    [(Keeper, KEEPERS), (Roller, 1)],
    [(Roller, 1)],
    [(Sender, 2), (Visitor, VISITORS)],
    [(Chooser, CHOOSERS), (Ghost, 2)],
]

COMPLAINT = re.compile(r"\[(WARN|ERROR|FATAL)\] (\[persist\].*)")


def new_expectation():
    sleepers = [Queue("sleeper%d" % n, ["off/%d" % n, "group/%d" % (n % 4)]) for n in range(SLEEPERS)]
    visitors = [Queue("visitor%d" % n, ["visit/%d" % n], lossy=True) for n in range(VISITORS)]
    wills = {"chooser%d" % n: "will/of/chooser%d" % n for n in range(CHOOSERS)}
    return Expectation(sleepers + visitors, wills)


def new_writers(expectation, mix, seed, round_number):
    return [kind(expectation, "%s%d" % (kind.__name__.lower(), number), seed, round_number)
            for kind, count in mix for number in range(count)]


class CrashTest:
    def __init__(self, seed, kills):
        self.seed, self.kills_wanted = seed, kills
        self.random = random.Random(seed)
        self.expectation = new_expectation()
        self.kills = self.confirmed = 0
        self.seen = {"files to be renamed": 0, "files to be removed": 0, "retained changes to be completed": 0,
                     "kills at the start": 0, "messages replayed": 0}
        self.start_s = 0.1

    def start(self):
        """Start the broker; it must not complain about what it finds."""
        had_retained = os.path.exists(os.path.join(DATA, "retain.dat"))
        began = time.monotonic()
        self.broker = Broker(".", *OPTIONS)
        self.start_s = time.monotonic() - began
        self.allowed = [] if had_retained else ["[persist] no retain file"]
        self.check_log()

    def check_log(self):
        found = [match.group(2) for match in map(COMPLAINT.search, self.broker.output()) if match]
        data_files.need(found == self.allowed, "complaints of the broker", found)

    def kill(self):
        self.expectation.killed = True
        self.broker.kill()
        self.kills += 1
        self.note_traces()

    def note_traces(self):
        """Count the crashes that left something half done: without any, the test would prove little."""
        for kind in ("session", "subscription", "message"):
            for name in os.listdir(os.path.join(DATA, kind)):
                if name.endswith(".tmp"):
                    gone = not os.path.exists(os.path.join(DATA, kind, name[:-4]))
                    self.seen["files to be renamed" if gone else "files to be removed"] += 1
        path = os.path.join(DATA, "retain.dat")
        if os.path.exists(path) and (os.path.getsize(path) - 4) % data_files.RECORD.size:
            self.seen["retained changes to be completed"] += 1

    def kill_at_the_start(self):
        with open("start.txt", "wb") as out:
            process = subprocess.Popen([host_program(), *OPTIONS], stdin=subprocess.DEVNULL, stdout=out, stderr=out)
        time.sleep(self.random.uniform(0, 1.2 * self.start_s))
        process.kill()
        process.wait()
        self.kills += 1
        self.seen["kills at the start"] += 1

    def prepare(self):
        """The subscriptions of those who wait for messages, and the retained messages that are moved about."""
        for queue in self.expectation.queues.values():
            conn = readers.come(queue.client_id, False)
            conn.subscribe(*[(topic_filter, 1) for topic_filter in queue.filters])
            readers.leave(conn)
            for topic_filter in queue.filters:
                self.expectation.subscriptions.begin((queue.client_id, topic_filter), 1)
                self.expectation.subscriptions.confirm((queue.client_id, topic_filter))
        conn = readers.come("first", False, clean=True)
        for first in range(0, ROLLER_TOPICS, ROLLER_BRANCH):
            numbers = range(first, first + ROLLER_BRANCH)
            messages = [data_files.Retained(roller_topic(number), make_payload("first", number, self.random, 1500), 1)
                        for number in numbers]
            conn.send(b"".join(publish(message.topic, message.payload, 1, number + 1, retain=1)
                               for number, message in zip(numbers, messages)))
            for number, message in zip(numbers, messages):
                conn.expect(ack(0x40, number + 1))
                self.expectation.retained.begin(message.topic, message)
                self.expectation.retained.confirm(message.topic)
        readers.leave(conn)

    def work_and_kill(self):
        self.expectation.killed = False
        writers = new_writers(self.expectation, self.random.choice(MIXES), self.seed, self.kills)
        for writer in writers:
            writer.start()
        time.sleep(self.random.uniform(0, ACTIVITY_S))
        self.check_log()
        self.kill()
        for writer in writers:
            writer.join(60)
            data_files.need(not writer.is_alive() and writer.error is None, "writer " + writer.name, writer.error)
            self.confirmed += writer.confirmed

    def verify(self, with_queues):
        self.expectation.check_files(DATA)
        retained = self.expectation.retained.present()
        for prefix in sorted({topic[:topic.rindex("/") + 1] for topic in self.expectation.retained.known}):
            readers.check_retained(prefix, retained)
        for client_id in self.expectation.will_topics:
            readers.check_chooser(self.expectation, client_id)
        if with_queues:
            queues = [queue for queue in self.expectation.queues.values() if queue.known]
            self.seen["messages replayed"] += sum(len(queue.known) for queue in queues)
            readers.drain(queues)

    def run(self):
        self.start()
        self.prepare()
        self.verify(False)
        rounds = 0
        while self.kills < self.kills_wanted:
            self.work_and_kill()
            while self.kills < self.kills_wanted and self.random.random() < 0.3:
                self.kill_at_the_start()
            self.start()
            rounds += 1
            self.verify(rounds % ROUNDS_PER_DRAIN == 0 or self.kills == self.kills_wanted)
        self.broker.stop()
        self.expectation.check_files(DATA)

    def report(self):
        counted = ", ".join("%s %d" % (what, count) for what, count in self.seen.items())
        print("crash_test: %d kills, %d confirmed changes, %s" % (self.kills, self.confirmed, counted), flush=True)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--kills", type=int, default=int(os.environ.get("ZEB_CRASH_KILLS") or 25))
    parser.add_argument("--seed", type=int, default=int(os.environ.get("ZEB_CRASH_SEED") or time.time_ns() % 2**31))
    options = parser.parse_args()
    print("crash_test: seed %d, %d kills" % (options.seed, options.kills), flush=True)
    test = CrashTest(options.seed, options.kills)
    try:
        test.run()
    finally:
        test.report()
        if getattr(test, "broker", None) is not None:
            test.broker.kill()


if __name__ == "__main__":
    sys.exit(main())
