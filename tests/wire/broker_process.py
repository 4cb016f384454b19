"""The host program as a child process: started, watched and ended by the tests."""

import os
import signal
import subprocess
import threading
import time

READY = "zeb_mqtt_host: ready on 0.0.0.0:1883"
EVENT = "zeb_mqtt_host: event "
DEADLINE_S = 60.0


def host_program():
    return os.environ["ZEB_HOST"]


def all_options_on():
    """Whether this run of the tests is the one with every option of the library on."""
    return os.environ.get("ZEB_OPTIONS") == "on"


class Broker:
    """Runs with every option of the library off unless this run of the tests, or `modern`, says otherwise."""

    def __init__(self, directory, *options, modern=False):
        if not modern and not all_options_on():
            options = ("--classic", *options)
        self.stderr_path = os.path.join(str(directory), "stderr.txt")
        self.lines = []
        self.changed = threading.Condition()
        with open(self.stderr_path, "wb") as stderr:
            self.process = subprocess.Popen([host_program(), *options], cwd=str(directory), stderr=stderr,
                                            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()
        self.wait_line(lambda line: line == READY, "the ready line")

    def _read(self):
        for line in self.process.stdout:
            with self.changed:
                self.lines.append(line.decode("utf-8", "backslashreplace").rstrip("\n"))
                self.changed.notify_all()
        with self.changed:
            self.lines.append(None)  # the end of the output
            self.changed.notify_all()

    def stderr(self):
        with open(self.stderr_path, "rb") as stream:
            return stream.read().decode("utf-8", "backslashreplace")

    def output(self):
        """The lines on stdout so far."""
        with self.changed:
            return [line for line in self.lines if line is not None]

    def wait_line(self, wanted, what, count=1):
        """Wait until `count` lines satisfy the condition and return them."""
        deadline = time.monotonic() + DEADLINE_S
        with self.changed:
            while True:
                found = [line for line in self.lines if line is not None and wanted(line)]
                if len(found) >= count:
                    return found
                left = deadline - time.monotonic()
                ended = self.lines and self.lines[-1] is None
                assert left > 0 and not ended, "waited for %s\nstdout: %s\nstderr: %s" % (
                    what, self.lines[-20:], self.stderr())
                self.changed.wait(left)

    def wait_events(self, kind, count=1):
        """The first `count` events of a kind as their JSON texts (the host must run with --print-events)."""
        start = EVENT + kind + " "
        found = self.wait_line(lambda line: line.startswith(start), "%d %s events" % (count, kind), count)
        return [line[len(start):] for line in found]

    def resident_kib(self):
        with open("/proc/%d/status" % self.process.pid) as stream:
            return next(int(line.split()[1]) for line in stream if line.startswith("VmRSS:"))

    def stop(self, number=signal.SIGTERM):
        self.process.send_signal(number)
        self.check_end()

    def check_end(self):
        try:
            status = self.process.wait(DEADLINE_S)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            raise AssertionError("the broker did not end in time")
        self.reader.join(DEADLINE_S)
        assert status == 0 and self.stderr() == "", "exit status: expected 0, actual %d\nstderr: %s" % (
            status, self.stderr())

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
