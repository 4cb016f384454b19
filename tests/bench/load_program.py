"""The load program as a child process, and its line of JSON."""

import json
import os
import subprocess

DEADLINE_S = 60.0


def start(*arguments):
    return subprocess.Popen([os.environ["ZEB_LOAD"], *map(str, arguments)], stdin=subprocess.DEVNULL,
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)


def finish(process):
    """Its exit status, its result (None without one) and what it said on stderr."""
    try:
        out, err = process.communicate(timeout=DEADLINE_S)
    except subprocess.TimeoutExpired:
        process.kill()
        process.communicate()
        raise AssertionError("the load program did not end in time")
    return process.returncode, json.loads(out) if out else None, err


def run(*arguments):
    """The result of a run that must succeed."""
    status, result, err = finish(start(*arguments))
    assert status == 0 and err == "" and "error" not in result, "exit status %d\n%s\n%s" % (status, result, err)
    return result


def publish(*arguments):
    """A short run. At 320 messages a second a subscriber gets 80 in all, so that not even a machine that stands still
    meanwhile makes a broker's queue of 98 lose one."""
    return run("publish", "--seconds", "0.2", "--warmup", "0.05", *arguments)
