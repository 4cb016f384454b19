"""500 clients of mixed behaviour for minutes: what the broker holds in the end is what it held at the beginning,
and what it has counted is what the clients have seen.

    soak.py [--seconds N] [--clients N] [--seed N]
"""

import argparse
import asyncio
import json
import os
import resource
import subprocess
import sys
import time

from actors import Flood, Group, Keeper, Mortal, Sloth, Traveller, name
from client import Client, Counts
from measure import descriptors, processor_seconds, threads

SETTLE_S = 60.0
SLACK = 0.05
SLACK_KIB = 1024  # and this much of pages that come and go whatever the size
IDLE_LOAD = 0.15  # of one processor


class Host:
    def __init__(self):
        self.process = subprocess.Popen([os.environ["ZEB_SOAK_HOST"]], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        text=True)
        self.pid = self.process.pid
        self.expect("ready")

    def expect(self, start):
        for line in self.process.stdout:
            if line.startswith(start):
                return line[len(start):]
        raise AssertionError("the broker has ended")

    def stats(self):
        self.process.stdin.write("stats\n")
        self.process.stdin.flush()
        return json.loads(self.expect("stats "))

    def held(self):
        with open("/proc/%d/status" % self.pid) as stream:
            resident = next(int(line.split()[1]) for line in stream if line.startswith("VmRSS:"))
        return {"resident_kib": resident, "descriptors": descriptors(self), "threads": threads(self)}

    def stop(self):
        self.process.stdin.close()
        assert self.process.wait(60) == 0, "exit status %d" % self.process.returncode


class Soak:
    def __init__(self, host, clients, seed):
        self.host, self.seed, self.counts = host, seed, Counts()
        share = clients / 500
        pairs, mortals, sloths = int(50 * share), int(40 * share), int(20 * share)
        self.groups = [Group(self.counts, number, 2.0) for number in range(20)]
        self.group_size = (int(10 * share), int(4 * share))
        self.travellers = [Traveller(self.counts, number) for number in range(pairs)]
        self.mortals = [Mortal(self.counts, number) for number in range(mortals)]
        self.keepers = [Keeper(self.counts, number) for number in range(int(29 * share))]
        self.sloths = [Sloth(self.counts, number) for number in range(sloths)]
        self.flood = Flood(self.counts, 200)
        self.wills = 0

    async def start(self):
        def on_will(message):
            assert message.topic == "will", message.topic
            self.wills += 1

        self.witness = await Client.open(self.counts, name("witness"), on_will)
        await self.witness.subscribe("will", 0)
        for group in self.groups:
            await group.start(*self.group_size)
        for actor in self.travellers + self.mortals + self.keepers + self.sloths + [self.flood]:
            await actor.start()
        await self.flood.fill(lambda: self.host.stats()["drop_queue_full"], len(self.sloths))

    def actors(self):
        return self.groups + self.travellers + self.mortals + self.keepers + self.sloths + [self.flood]

    def steady(self):
        clients = [self.witness, self.flood.client] + [m.client for m in self.mortals]
        clients += [client for group in self.groups for client in group.clients]
        clients += [client for t in self.travellers for client in (t.client, t.partner)]
        return clients + [client for k in self.keepers for client in (k.writer, k.reader)]

    def online(self):
        return len(self.steady()) + len(self.sloths)

    async def run(self, seconds, first):
        """Returns what is held after `first` seconds."""
        over = asyncio.Event()
        tasks = [asyncio.ensure_future(actor.run(over, self.seed + number))
                 for number, actor in enumerate(self.actors())]
        tasks.append(asyncio.ensure_future(self.keep_alive(over)))
        began, held = time.monotonic(), None
        while time.monotonic() < began + seconds:
            await asyncio.sleep(0.5)
            for task in tasks:
                if task.done():
                    task.result()
            if held is None and time.monotonic() >= began + first:
                held = self.host.held()
        over.set()
        await asyncio.wait_for(asyncio.gather(*tasks), SETTLE_S)
        return held

    async def keep_alive(self, over):
        while not over.is_set():
            for client in [self.witness] + [c for group in self.groups for c in group.clients]:
                await client.ping()
            await asyncio.sleep(5)

    async def settle(self):
        """Until nobody is owed anything more: acknowledgements included."""
        for sloth in self.sloths:
            await sloth.catch_up()
        sent = -1
        while sent != self.counts.sent:
            sent = self.counts.sent
            await asyncio.sleep(3)  # a repeated message would come within two
        await asyncio.gather(*[client.ping() for client in self.steady()])

    def check_counters(self, stats):
        bare = sum(group.owed()[0] for group in self.groups)
        identified = sum(group.owed()[1] for group in self.groups)
        deliveries = sum(group.deliveries() for group in self.groups)
        flooded = self.flood.published * len(self.sloths)
        print("group deliveries %d, lost without identifier %d, with one %d, repeated %d" % (
            deliveries, bare, identified, sum(group.duplicates for group in self.groups)))
        print("flood deliveries %d, dropped %d" % (flooded, stats["drop_queue_full"]))
        rows = [("packets received", stats["pkt_rx"], self.counts.sent),
                ("packets sent", stats["pkt_tx"], self.counts.received),
                ("QoS 0", stats["qos0"], self.counts.published[0]),
                ("QoS 1", stats["qos1"], self.counts.published[1]),
                ("QoS 2", stats["qos2"], self.counts.published[2]),
                ("messages", stats["total_messages"], sum(self.counts.published)),
                ("stored for clients away", stats["offline_msg"], sum(t.missed for t in self.travellers)),
                ("wills sent", stats["will_sent"], Mortal.deaths),
                ("wills received", self.wills, Mortal.deaths),
                ("flood received and dropped", sum(s.packets for s in self.sloths) + stats["drop_queue_full"], flooded),
                ("online", stats["online"], self.online()),
                ("records", stats["pool_used"], self.online()),
                ("subscriptions", stats["subs"],
                 1 + sum(len(g.seen) for g in self.groups) + len(self.travellers) + len(self.sloths)),
                ("retained", stats["retain_msg"], len(self.keepers)),
                ("lost without identifier", bare, 0)]
        rows += [(drop, stats[drop], 0) for drop in ("drop_offline", "drop_too_big", "drop_invalid_param",
                                                     "drop_send_failed", "timeout", "parse_error")]
        for what, actual, expected in rows:
            print("  %-28s broker %10d  clients %10d" % (what, actual, expected))
        wrong = [row for row in rows if row[1] != row[2]]
        assert not wrong, wrong
        assert identified <= 3 + deliveries // 6000, "lost with an identifier: %d" % identified

    async def end(self):
        for actor in self.keepers + self.travellers:
            await actor.forget()
        for sloth in self.sloths:
            await sloth.leave()
        for client in [m.client for m in self.mortals] + [self.flood.client, self.witness]:
            await client.leave()
        for group in self.groups:
            for client in group.clients:
                await client.leave()


async def take_every_place():
    """Connections take the next place of 11000 in turn, and a place keeps its page of memory: what that comes to
    is no part of what is measured."""
    counts = Counts()
    for number in range(112):
        clients = await asyncio.gather(*[Client.open(counts, "place-%d" % place) for place in range(100)])
        await asyncio.gather(*[client.leave() for client in clients])


def check_held(when, before, after):
    print("%-22s before %s\n%-22s after  %s" % (when, before, "", after))
    resident = after["resident_kib"] - before["resident_kib"]
    assert resident <= before["resident_kib"] * SLACK + SLACK_KIB, "resident memory has grown by %d KiB" % resident
    for what in ("descriptors", "threads"):
        assert abs(after[what] - before[what]) <= before[what] * SLACK, what


def check_idle(host, what):
    before = processor_seconds(host)
    time.sleep(5)
    load = (processor_seconds(host) - before) / 5
    print("%-22s %.1f %% of a processor" % (what, 100 * load))
    assert load <= IDLE_LOAD
    return load


async def soak(options, host):
    await take_every_place()
    empty = host.held()
    baseline = host.stats()
    check_idle(host, "idle before")
    run = Soak(host, options.clients, options.seed)
    run.counts.sent, run.counts.received = baseline["pkt_rx"], baseline["pkt_tx"]
    await run.start()
    print("%d clients for %d s, seed %d" % (run.online(), options.seconds, options.seed), flush=True)
    began = processor_seconds(host)
    first = await run.run(options.seconds, min(60.0, options.seconds / 3))
    print("load under way         %.1f %% of a processor" % (100 * (processor_seconds(host) - began) / options.seconds))
    await run.settle()
    check_held("first minute and end", first, host.held())
    run.check_counters(host.stats())
    check_idle(host, "idle, all connected")
    await run.end()
    stats = host.stats()
    left = {what: stats[what] for what in ("online", "pool_used", "subs", "retain_msg")}
    assert not any(left.values()), left
    # Client records stay for the next clients, so that memory is compared with that of the first minute here too.
    check_held("without a client", {**empty, "resident_kib": first["resident_kib"]}, host.held())
    check_idle(host, "idle after")
    print("connections %d, packets %d in, %d out" % (run.counts.connections, stats["pkt_rx"], stats["pkt_tx"]))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--seconds", type=float, default=float(os.environ.get("ZEB_SOAK_SECONDS", "60")))
    parser.add_argument("--clients", type=int, default=500)
    parser.add_argument("--seed", type=int, default=1)
    options = parser.parse_args()
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(4096, hard), hard))
    host = Host()
    try:
        asyncio.run(soak(options, host))
        host.stop()
    finally:
        if host.process.poll() is None:
            host.process.kill()
    print("passed")


if __name__ == "__main__":
    sys.exit(main())
