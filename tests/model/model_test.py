#!/usr/bin/python3
"""Random scenarios against a running broker, compared packet by packet with a model of it.

    model_test.py [--scenarios N] [--seed N]     as many as asked for; ZEB_MODEL_SCENARIOS, ZEB_MODEL_SEED
    model_test.py --seconds N                    as many as that time allows
    model_test.py --jobs N ...                   the same with N brokers at a time
    model_test.py --replay FILE                  one scenario, as printed for a failure

ZEB_HOST names the host program. Run it within tests/support/isolated.sh."""

import argparse
import os
import random
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

from broker_process import Broker
from player import Inconclusive, Mismatch, Player
from scenarios import ALONE, PLAIN, RESTARTED, SHARED, Maker, Names, Scenario
from shrinking import shrink

LANES = 24
BATCH = 240               # scenarios of one broker without a restart
ALONE_PER_ROUND = 6       # each on a broker of its own
RESTARTS = [["stop"], ["kill"], ["kill", "stop"], ["stop", "stop"]]
TURNS = 840               # a multiple of every number of members that a shared group may have
SPIN_BURST = 50
DEFAULT_SCENARIOS = 600
FIXED_SEED = 20240117     # so that a run that must pass is the same each time; longer runs choose others
REPEATS_OF_A_FAILURE = 3
SHRINK_S = 120.0
ALONE_DEADLINE_S = 8.0    # nothing else keeps the broker busy


class Host:
    """The broker and its data directory, in memory where there is a file system for that."""

    def __init__(self):
        memory = "/dev/shm"
        self.directory = tempfile.mkdtemp(prefix="zeb-model.", dir=memory if os.access(memory, os.W_OK) else None)
        self.start()

    def start(self):
        # Of 1000 places each search for silent clients sees all.
        self.broker = Broker(self.directory, "--max-clients", "1000", "--log-level", "fatal")

    def restart(self, kind):
        self.broker.stop(signal.SIGTERM) if kind == "stop" else self.broker.kill()
        self.start()

    def close(self):
        try:
            self.broker.stop()
        finally:
            self.broker.kill()
            shutil.rmtree(self.directory)


def spin(player, turn):
    """Serve a shared group so often that the next one meets this turn."""
    player.play([["connect", "spinner", "spin-publisher", {"level": 4, "clean": True}],
                 ["connect", "spun", "spin-member", {"level": 4, "clean": True}],
                 ["subscribe", "spun", [["$share/spin/spin", 0]]]])
    what = {"topic": "spin", "payload": "ff", "qos": 0, "pid": 0, "retain": 0, "dup": 0}
    while player.model.turn < turn:
        player.play([["publish", "spinner", what]])
    player.play([["disconnect", "spinner", "absent"], ["disconnect", "spun", "absent"]])


def play_alone(scenario):
    """Play a scenario on a broker of its own; the mismatch, or None."""
    host = Host()
    try:
        player = Player(0, host.restart, ALONE_DEADLINE_S)
        try:
            spin(player, scenario.turn)
            player.play(scenario.steps)
        except Mismatch as mismatch:
            return mismatch
        except Inconclusive:
            return None
        finally:
            player.close()
    finally:
        host.close()
    return None


class Failure(Exception):
    def __init__(self, scenario, mismatch):
        Exception.__init__(self, str(mismatch))
        self.scenario = scenario


class Batch:
    """Scenarios that share a broker: each lane plays its own, one after another."""

    def __init__(self, lanes, restarts=()):
        self.host = Host()
        self.restarts = restarts
        self.barrier = threading.Barrier(len(lanes), action=self.restart)
        self.done = self.inconclusive = 0
        self.failures, self.errors = [], []
        self.threads = [threading.Thread(target=self.run_lane, args=(lane,)) for lane in lanes]
        self.restarted = 0

    def restart(self):
        self.host.restart(self.restarts[self.restarted])
        self.restarted += 1

    def run(self):
        try:
            for thread in self.threads:
                thread.start()
            for thread in self.threads:
                thread.join()
        finally:
            self.host.close()
        if self.errors:
            raise self.errors[0]

    def run_lane(self, scenarios):
        met = [0]

        def restart(_):
            met[0] += 1
            self.barrier.wait()

        turn = 0
        try:
            for scenario in scenarios:
                if self.failures or self.errors:
                    break
                scenario.turn = turn % TURNS
                turn = self.play(scenario, turn, restart)
        except Exception as error:  # a fault of the test itself
            self.errors.append(error)
        # The others cannot restart without this lane.
        while met[0] < len(self.restarts):
            restart(None)

    def play(self, scenario, turn, restart):
        player = Player(turn, restart)
        try:
            player.play(scenario.steps)
            if scenario.shares():
                player.leave()  # a will would take a turn of the next scenario's groups
            self.done += 1
        except Inconclusive:
            self.inconclusive += 1
        except Mismatch as mismatch:
            self.failures.append(Failure(scenario, mismatch))
        finally:
            player.close()
        return player.model.turn


class ModelTest:
    def __init__(self, seed):
        self.rng = random.Random(seed)
        self.number = self.done = self.inconclusive = self.unrepeated = 0
        self.kinds = dict.fromkeys([PLAIN, SHARED, RESTARTED, ALONE], 0)
        self.steps = 0

    def make(self, kind, names, restarts=()):
        self.number += 1
        self.kinds[kind] += 1
        scenario = Maker(self.rng, "m%d" % self.number, kind, names, restarts).scenario()
        self.steps += len(scenario.steps)
        return scenario

    def run_batch(self, lanes, restarts=()):
        batch = Batch(lanes, restarts)
        batch.run()
        self.done += batch.done
        self.inconclusive += batch.inconclusive
        for failure in batch.failures:
            self.confirm(failure)

    def confirm(self, failure):
        """A message whose identifier is drawn as 0 is lost, once in 65536; such a scenario passes alone."""
        for _ in range(REPEATS_OF_A_FAILURE):
            if play_alone(failure.scenario) is not None:
                raise failure
        self.unrepeated += 1
        print("model_test: passed when repeated alone: %s\n%s" % (failure, failure.scenario.script()), flush=True)
        lost = str(failure).count("PUBLISH") and " qos 0 " not in str(failure)
        if not lost or self.unrepeated > 1 + self.done / 1000:
            raise failure

    def round(self, limit):
        """Scenarios of all kinds, at most so many."""
        first = self.number
        for _ in range(min(ALONE_PER_ROUND, limit // 40)):
            self.run_batch([[self.make(ALONE, Names())]])
        for restarts in RESTARTS:
            names = Names()
            lanes = [[self.make(RESTARTED, names, restarts)] for _ in range(min(LANES, limit // 14))]
            if lanes:
                self.run_batch(lanes, restarts)
        names = Names()
        left = min(BATCH, limit - (self.number - first))
        lanes = [[] for _ in range(min(LANES, left))]
        for index in range(left):
            lane = index % LANES
            # The turn of shared groups goes on through all of them, so one lane alone serves them.
            lanes[lane].append(self.make(PLAIN if lane else SHARED, names))
        self.run_batch(lanes)

    def run(self, scenarios, seconds):
        end = time.monotonic() + seconds if seconds else None
        while time.monotonic() < end if end else self.number < scenarios:
            self.round(BATCH * 2 if end else scenarios - self.number)


def report(failure):
    print("model_test: the broker and the model disagree\n%s\n" % failure, flush=True)
    first = failure.scenario

    def fails(steps):
        return play_alone(Scenario(first.name, steps, first.turn)) is not None

    if not fails(first.steps):
        print("model_test: does not fail alone; as it was:\n%s" % first.script(), flush=True)
        return
    steps = shrink(first.steps, fails, SHRINK_S)
    shortest = Scenario(first.name, steps, first.turn)
    print("%s\nmodel_test: for --replay, %d of %d steps:\n%s" % (
        play_alone(shortest), len(steps), len(first.steps), shortest.script()), flush=True)


def run_jobs(jobs, options):
    """As many tests at a time, each with a broker in a network namespace of its own."""
    isolated = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support", "isolated.sh")
    if subprocess.run(["unshare", "-n", "true"], stderr=subprocess.DEVNULL).returncode != 0:
        jobs = 1  # the port is fixed
    share = -(-options.scenarios // jobs)
    running = [subprocess.Popen([isolated, sys.executable, os.path.abspath(__file__), "--seed", str(options.seed + job),
                                 "--scenarios", str(share), "--seconds", str(options.seconds)]) for job in range(jobs)]
    return max([process.wait() for process in running])


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--jobs", type=int, default=0)
    parser.add_argument("--seed", type=int, default=int(os.environ.get("ZEB_MODEL_SEED") or FIXED_SEED))
    parser.add_argument("--scenarios", type=int, default=int(os.environ.get("ZEB_MODEL_SCENARIOS") or
                                                             DEFAULT_SCENARIOS))
    parser.add_argument("--seconds", type=float, default=0)
    parser.add_argument("--replay")
    options = parser.parse_args()
    if options.replay:
        with open(options.replay) as stream:
            mismatch = play_alone(Scenario.parse(stream.read()))
        print("model_test: %s" % (mismatch or "the broker and the model agree"))
        return 1 if mismatch else 0
    if options.jobs:
        return run_jobs(options.jobs, options)
    print("model_test: seed %d" % options.seed, flush=True)
    began = time.monotonic()
    test = ModelTest(options.seed)
    failure = None
    try:
        test.run(options.scenarios, options.seconds)
    except Failure as caught:
        failure = caught
    minutes = (time.monotonic() - began) / 60
    print("model_test: %d scenarios agree (%s), %d steps, %d inconclusive, %d not repeated, %.0f a minute" % (
        test.done, ", ".join("%s %d" % item for item in test.kinds.items()), test.steps, test.inconclusive,
        test.unrepeated, test.done / minutes), flush=True)
    if failure:
        report(failure)
    return 1 if failure else 0


if __name__ == "__main__":
    sys.exit(main())
