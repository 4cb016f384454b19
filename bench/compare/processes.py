"""Process control: every program that a measurement starts is started, watched and ended here."""

import contextlib
import ctypes
import os
import re
import resource
import signal
import socket
import subprocess
import tempfile
import time
from pathlib import Path

from brokers import HOST_PORT

START_S = 20.0  # until a broker answers a CONNECT
STOP_S = 20.0   # until it has ended after SIGTERM
CLONE_NEWNET = 0x40000000
PR_SET_PDEATHSIG = 1

libc = ctypes.CDLL(None, use_errno=True)


class RunFailed(Exception):
    """This run has no result; the next one may."""


def raise_descriptor_limit():
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))


def enter_fresh_network():
    """Move this process, and what it starts from now on, into an empty network. False without the right to."""
    if os.geteuid() != 0 or libc.unshare(CLONE_NEWNET) != 0:
        return False
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True, timeout=20)
    return True


def unused_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def start(command, directory, stdout, stderr):
    """A session of its own keeps a Ctrl-C of the terminal from it: this process ends it in order."""
    return subprocess.Popen(command, cwd=directory, stdin=subprocess.DEVNULL, stdout=stdout, stderr=stderr,
                            start_new_session=True, preexec_fn=die_with_parent)


def die_with_parent():
    # Nobody else would end it if this process were killed outright.
    libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)


def end(process, seconds):
    """End a child for certain. Returns what was wrong about that, or None; one that had ended is another's concern."""
    if process.poll() is not None:
        return None
    process.terminate()
    try:
        process.wait(seconds)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()
        return f"did not end within {seconds:.0f} s and was killed"
    return None if process.returncode == 0 else f"ended with status {process.returncode}"


def answers_connect(port):
    """Whether a CONNECT gets a CONNACK that accepts it."""
    connect = b"\x10\x11\x00\x04MQTT\x04\x02\x00\x00\x00\x05probe"
    try:
        with socket.create_connection(("127.0.0.1", port), timeout=2) as peer:
            peer.sendall(connect)
            accepted = peer.recv(4) == b"\x20\x02\x00\x00"
            peer.sendall(b"\xe0\x00")
            return accepted
    except OSError:
        return False


def status_kib(pid, field):
    """A size out of /proc/PID/status, such as VmRSS."""
    for line in Path(f"/proc/{pid}/status").read_text().splitlines():
        if line.startswith(field + ":"):
            return int(line.split()[1])
    raise RunFailed(f"no {field} of the broker")


class LiveBroker:
    """A broker that answers. `remarks` collects what was odd without spoiling the run."""

    def __init__(self, process, port, output):
        self.process = process
        self.port = port
        self.output = output
        self.remarks = []
        self.rss_ready_kib = 0

    def wait_until_it_answers(self):
        deadline = time.monotonic() + START_S
        while not answers_connect(self.port):
            self.check_alive()
            if time.monotonic() > deadline:
                raise RunFailed(f"the broker did not answer a CONNECT within {START_S:.0f} s: {self.tail()}")
            time.sleep(0.05)
        self.rss_ready_kib = status_kib(self.process.pid, "VmRSS")

    def check_alive(self, failure=None):
        """What else went wrong is only a consequence when the broker has ended."""
        if self.process.poll() is not None:
            status = self.process.returncode
            raise RunFailed(f"the broker ended with status {status} during the run: {self.tail()}") from failure

    def tail(self):
        """What it printed of an error, or last of all, without the directories of this machine."""
        lines = self.output.read_text(encoding="utf-8", errors="replace").splitlines()
        telling = [line for line in lines if "Error" in line] or lines
        return re.sub(r"/[^\s:]*/", "", " / ".join(telling[-3:]))[-300:] or "it printed nothing"


@contextlib.contextmanager
def running(broker, scenario):
    """A freshly started broker in a network and a directory of its own, ended afterwards whatever happens."""
    isolated = enter_fresh_network()
    port = HOST_PORT if isolated or not broker.chooses_port else unused_port()
    if answers_connect(port):
        raise RunFailed(f"another broker listens on port {port}")
    with tempfile.TemporaryDirectory(prefix="zeb-compare.") as directory:
        output = Path(directory) / "output.txt"
        with output.open("wb") as stream:
            process = start(broker.launch(directory, port, scenario), directory, stream, subprocess.STDOUT)
        live = LiveBroker(process, port, output)
        try:
            live.wait_until_it_answers()
            yield live
            live.check_alive()
        except (RunFailed, OSError) as failure:
            live.check_alive(failure)
            raise
        finally:
            remark = end(process, STOP_S)
            if remark:
                live.remarks.append(f"the broker {remark}")


def run_tool(command, directory, seconds):
    """Run a measuring program to its end. Returns its status and its two outputs; raises when it takes too long."""
    process = start(command, directory, subprocess.PIPE, subprocess.PIPE)
    try:
        out, err = process.communicate(timeout=seconds)
    except subprocess.TimeoutExpired:
        raise RunFailed(f"{Path(command[0]).name} did not end within {seconds:.0f} s") from None
    finally:
        if process.poll() is None:
            process.kill()
            process.communicate()
    return process.returncode, out.decode("utf-8", "replace"), err.decode("utf-8", "replace")
