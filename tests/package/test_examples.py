"""The example programs, driven with the Mosquitto tools."""

import socket
import subprocess
import time

import pytest

from conftest import BUILD, DEADLINE_S, SOURCE

MAX_LINES = 80
EXAMPLES = ["minimal.c", "auth_acl.cpp", "events.cpp"]


class Example:
    """A running example; leaving the block presses Enter, after which it must end well."""

    def __init__(self, directory, name, *arguments):
        self.process = subprocess.Popen([str(BUILD / "examples" / name), *map(str, arguments)], cwd=directory,
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, encoding="utf-8")

    def line(self, wanted):
        """The next line that contains a text."""
        for line in self.process.stdout:
            if wanted in line:
                return line.rstrip("\n")
        raise AssertionError("the output ended before: " + wanted)

    def __enter__(self):
        return self

    def __exit__(self, kind, *_):
        if kind is not None:
            self.process.kill()
        self.process.communicate("\n", timeout=DEADLINE_S)
        assert kind is not None or self.process.returncode == 0


def tool(name, *arguments):
    """A client whose connection is at MQTT 5, which names the reason of a refusal."""
    return subprocess.run([name, "-V", "5", "-h", "127.0.0.1", *arguments], stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, encoding="utf-8", timeout=DEADLINE_S)


def publish(user, password, topic, message="hello", name=None, retain=False):
    return tool("mosquitto_pub", "-i", name or user, "-u", user, "-P", password, "-t", topic, "-m", message,
                *(["-r"] if retain else []))


@pytest.mark.parametrize("name", EXAMPLES)
def test_example_is_short(name):
    assert len((SOURCE / "examples" / name).read_text().splitlines()) < MAX_LINES


def test_readmes_show_the_minimal_example_as_it_is():
    code = (SOURCE / "examples/minimal.c").read_text()
    for name in ("README.md", "README.zh-CN.md"):
        assert "```c\n" + code + "```\n" in (SOURCE / name).read_text(), name


def test_minimal_serves_until_enter(tmp_path):
    with Example(tmp_path, "minimal") as minimal:
        minimal_ready(minimal)
        assert tool("mosquitto_pub", "-i", "a", "-t", "t", "-m", "hello").returncode == 0


def minimal_ready(minimal):
    """Its line may stay in the buffer of a pipe, so the port is asked."""
    deadline = time.monotonic() + DEADLINE_S
    while time.monotonic() < deadline and minimal.process.poll() is None:
        try:
            socket.create_connection(("127.0.0.1", 1883), DEADLINE_S).close()
            return
        except ConnectionRefusedError:
            time.sleep(0.01)
    raise AssertionError("nobody listens")


@pytest.fixture
def guarded(tmp_path):
    rules = tmp_path / "users"
    rules.write_text("alice wonder home/ home/\nbob builder - *\n")
    with Example(tmp_path, "auth_acl", rules) as example:
        assert example.line("Enter ends") == "2 users, Enter ends"
        yield example


def test_auth_acl_admits_a_user_of_the_file(guarded):
    assert publish("alice", "wonder", "home/a").returncode == 0


@pytest.mark.parametrize("user, password, name", [("alice", "wrong", None), ("mallory", "wonder", None),
                                                  ("alice", "wonder", "another")])
def test_auth_acl_refuses_wrong_passwords_strangers_and_borrowed_identifiers(guarded, user, password, name):
    refused = publish(user, password, "home/a", name=name)
    assert refused.returncode != 0 and "Bad User Name or Password" in refused.stdout


def subscribe(name, password, topic):
    """Until one message has come, or the filter is refused."""
    return tool("mosquitto_sub", "-i", name, "-u", name, "-P", password, "-t", topic, "-C", "1", "-W",
                str(DEADLINE_S), "-F", "%t %p")


def test_auth_acl_hands_on_only_what_the_publisher_may_publish(guarded):
    publish("alice", "wonder", "garden/a", "refused", retain=True)
    publish("alice", "wonder", "home/a", "allowed", retain=True)
    assert subscribe("bob", "builder", "#").stdout == "home/a allowed\n"


def test_auth_acl_refuses_a_filter_beyond_the_prefix(guarded):
    assert "All subscription requests were denied" in subscribe("alice", "wonder", "#").stdout


@pytest.mark.parametrize("arguments", [[], ["no such file"], ["/dev/null"]])
def test_auth_acl_without_rules_explains_itself(tmp_path, arguments):
    done = subprocess.run([str(BUILD / "examples/auth_acl"), *arguments], cwd=tmp_path, stderr=subprocess.PIPE)
    assert (done.returncode, done.stderr) == (2, b"usage: auth_acl FILE\n")


def test_events_prints_events_and_publishes_them_from_the_callback(tmp_path):
    with Example(tmp_path, "events") as example:
        example.line("waiting for events")
        assert tool("mosquitto_pub", "-i", "a", "-t", "t", "-m", "hello").returncode == 0
        assert example.line("connect {") == 'connect {"clientId":"a","topic":"","qos":0}'
        assert example.line("publish {") == 'publish {"clientId":"a","topic":"t","qos":0}'
        told = subprocess.run(["mosquitto_sub", "-h", "127.0.0.1", "-i", "b", "-t", "events/publish", "-C", "1", "-W",
                               str(DEADLINE_S)], stdout=subprocess.PIPE, encoding="utf-8")
        assert told.stdout == '{"clientId":"a","topic":"t","qos":0}\n'
