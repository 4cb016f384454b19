"""What a process costs, from /proc, and waiting for it to cost less."""

import os
import time

from mqtt_wire import DEADLINE_S


def descriptors(process):
    return len(os.listdir("/proc/%d/fd" % process.pid))


def threads(process):
    return len(os.listdir("/proc/%d/task" % process.pid))


def processor_seconds(process):
    with open("/proc/%d/stat" % process.pid) as stream:
        fields = stream.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def load_while_idle(process, seconds=2.0):
    """Processor time per second of real time. The sleep is the length of the measurement."""
    before = processor_seconds(process)
    time.sleep(seconds)
    return (processor_seconds(process) - before) / seconds


def eventually(value, wanted, what, meanwhile=lambda: time.sleep(0.01)):
    """Wait until value() is `wanted`, or for what it takes when that is a condition."""
    holds = wanted if callable(wanted) else lambda actual: actual == wanted
    deadline = time.monotonic() + DEADLINE_S
    while not holds(value()):
        assert time.monotonic() < deadline, "%s: actual %s, wanted %s" % (what, value(), wanted)
        meanwhile()
