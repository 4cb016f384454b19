"""Where and with what the figures were taken."""

import datetime
import os
import platform
import subprocess
from pathlib import Path

import brokers


def field_of(path, name):
    """The first value of a field of a /proc file of `name : value` lines."""
    for line in Path(path).read_text().splitlines():
        key, colon, value = line.partition(":")
        if colon and key.strip() == name:
            return value.strip()
    return "unknown"


def git(top, *arguments):
    done = subprocess.run(["git", "-C", str(top), *arguments], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                          timeout=20, check=False)
    return done.stdout.decode().strip()


def commit(top):
    # What a report changes is not what was measured.
    changed = git(top, "status", "--porcelain", "--untracked-files=no", "--", ".", ":!bench/RESULTS.md",
                  ":!bench/figures")
    return (git(top, "rev-parse", "HEAD") or "unknown") + (" with changes" if changed else "")


def memory():
    kib = field_of("/proc/meminfo", "MemTotal").split()[0]
    return f"{int(kib) / 1024 / 1024:.1f} GiB" if kib.isdigit() else kib


def describe(top, settings, found):
    """The first record of the results."""
    now = datetime.datetime.now(datetime.timezone.utc)
    facts = {
        "date": now.strftime("%Y-%m-%d %H:%M UTC"),
        "commit": commit(top),
        "CPU": field_of("/proc/cpuinfo", "model name"),
        "cores": str(len(os.sched_getaffinity(0))),
        "memory": memory(),
        "kernel": platform.release(),
    }
    return {"kind": "machine", "facts": facts | brokers.versions(settings), "rounds": settings.rounds,
            "seconds": settings.seconds, "brokers": {broker.name: broker.title for broker in found}}
