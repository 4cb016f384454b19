"""A data directory that is missing, none, full or read-only.

Whatever fails there, the broker says so in its log, serves on and ends cleanly."""

import json
import os
import struct
import subprocess

import pytest

from broker_process import host_program
from data_dir_host import CONNACK_PRESENT, DATA, KINDS, Host, cannot_write, snapshot
from mqtt_wire import CONNACK, ack

RECORD = 2336  # bytes of a retained message


@pytest.fixture
def host(start_broker, tmp_path):
    host = Host(start_broker, tmp_path)
    yield host
    host.close()


# A directory that is not there, or is none


def test_a_missing_data_directory_is_made(host):
    host.start()
    assert host.complaints() == [("WARN", "[persist] no retain file")]
    assert sorted(os.listdir(str(host.data))) == sorted(KINDS)
    host.check_service()
    host.stop()


def check_without_directory(host, data):
    assert ("WARN", "[persist] 订阅目录不存在") in host.complaints()
    assert ("WARN", "[persist] no retain file") in host.complaints()
    host.expect_log("ERROR", cannot_write(data + "/subscription/p.json"), lambda: host.visit("p", "t", answer=CONNACK))
    host.expect_log("ERROR", "[persist] retain save failed", lambda: host.publish("r", b"kept", retain=1))
    assert host.retained("r") == [("r", b"kept")]
    host.check_service()
    host.stop()


def test_without_a_parent_directory_all_lives_in_memory(host):
    host.start(data="tree/no/such/data")
    check_without_directory(host, "tree/no/such/data")
    assert os.listdir(str(host.tree)) == []


def test_a_file_in_place_of_the_data_directory_stays_as_it_is(host):
    host.data.write_text("a file")
    before = snapshot(host.tree)
    host.start()
    check_without_directory(host, DATA)
    assert snapshot(host.tree) == before


@pytest.mark.parametrize("kind", ["subscription", "message"])
def test_a_file_in_place_of_a_clients_directory_costs_only_what_belongs_there(host, kind):
    host.data.mkdir()
    (host.data / kind).write_text("a file")
    host.start()
    assert (("WARN", "[persist] 订阅目录不存在") in host.complaints()) == (kind == "subscription")
    # It has a file of the other kind then, or none.
    host.visit("p", "t")
    host.expect_log("ERROR", cannot_write("%s/%s/p.json" % (DATA, kind)),
                    lambda: host.visit("p", "t") if kind == "subscription" else host.publish("t", b"missed"))
    assert (host.data / kind).read_text() == "a file"
    host.check_service()
    host.stop()


def test_a_directory_removed_while_the_broker_runs_is_back_after_a_restart(host):
    host.start()
    host.visit("p", "t")
    subprocess.run(["rm", "-r", str(host.data)], check=True)
    host.expect_log("ERROR", cannot_write(DATA + "/subscription/p.json"), lambda: host.visit("p", "t"))
    host.check_service()
    host.stop()
    host.start()
    host.visit("p", "t", answer=CONNACK)
    assert host.filters("p") == ["t"]
    host.stop()


# Disks that refuse. They are mounted where only the broker sees them.



def may_mount(unshare):
    return subprocess.run([*unshare.split(), "sh", "-c", "mount -t tmpfs tmpfs /mnt"], stdout=subprocess.DEVNULL,
                          stderr=subprocess.DEVNULL).returncode == 0


# As root, or else as the root of a user namespace. A system may forbid both, and no disk can be filled then.
UNSHARE = next(filter(may_mount, ["unshare -m", "unshare -rm"]), None)
needs_mounts = pytest.mark.skipif(UNSHARE is None, reason="left out: this system lets nobody but root mount a disk")


@pytest.fixture
def before_start(monkeypatch, tmp_path):
    """Run a shell command in the broker's own mount namespace before it starts."""

    def prepare(command):
        script = tmp_path / "host.sh"
        script.write_text("#!/bin/sh\nexec %s sh -c '%s; exec \"$@\"' host %s \"$@\"\n"
                          % (UNSHARE, command, host_program()))
        script.chmod(0o755)
        monkeypatch.setenv("ZEB_HOST", str(script))

    return prepare


def seen_by(host):
    """The data directory as the broker sees it."""
    return "/proc/%d/root%s" % (host.broker.process.pid, host.data)


def fill(path):
    with open(path, "wb", buffering=0) as stream:
        try:
            while True:
                stream.write(b"\0" * 4096)
        except OSError:
            pass


def read(*parts):
    with open(os.path.join(*parts), "rb") as stream:
        return stream.read()


@needs_mounts
def test_a_full_disk_keeps_the_old_files_and_takes_all_once_there_is_room(host, before_start):
    host.data.mkdir()
    before_start("mount -t tmpfs -o size=64k tmpfs %s" % DATA)
    host.start()
    conn = host.client("p", False)
    conn.subscribe(("a", 1))
    host.publish("r/1", b"kept", retain=1)
    data = seen_by(host)
    subscriptions, retained = read(data, "subscription/p.json"), read(data, "retain.dat")
    fill(data + "/filler")
    no_room = "[persist] write failed, the old file stays: %s/subscription/p.json, errno=28" % DATA
    host.expect_log("ERROR", no_room, lambda: conn.subscribe(("b", 1)))
    host.expect_log("ERROR", "[persist] retain save failed", lambda: host.publish("r/2", b"more", retain=1))
    assert os.listdir(data + "/subscription") == ["p.json"]
    assert read(data, "subscription/p.json") == subscriptions
    assert read(data, "retain.dat")[:4 + RECORD] == retained
    host.check_service()
    assert sorted(host.retained("r/#")) == [("r/1", b"kept"), ("r/2", b"more")]
    os.unlink(data + "/filler")
    conn.subscribe(("c", 1))
    host.publish("r/3", b"last", retain=1)
    host.leave(conn)
    stored = json.loads(read(data, "subscription/p.json"))["subs"]
    assert [entry["topic"] for entry in stored] == ["a", "b", "c"]
    assert read(data, "retain.dat")[:4] == struct.pack("<I", 3)
    assert os.path.getsize(data + "/retain.dat") == 4 + 3 * RECORD
    host.stop()


@needs_mounts
def test_a_disk_full_of_files_refuses_the_temporary_file(host, before_start):
    host.data.mkdir()
    before_start("mount -t tmpfs -o size=1m,nr_inodes=32 tmpfs %s" % DATA)
    host.start()
    conn = host.client("p", False)
    conn.subscribe(("a", 1))
    data = seen_by(host)
    with pytest.raises(OSError):
        for number in range(32):
            open(data + "/filler%d" % number, "w").close()
    host.expect_log("ERROR", cannot_write(DATA + "/subscription/p.json"), lambda: conn.subscribe(("b", 1)))
    host.expect_log("ERROR", "[persist] retain save failed", lambda: host.publish("r", b"kept", retain=1))
    assert [entry["topic"] for entry in json.loads(read(data, "subscription/p.json"))["subs"]] == ["a"]
    host.check_service()
    host.stop()


@needs_mounts
def test_a_read_only_directory_is_restored_from_and_left_as_it_is(host, before_start):
    host.start()
    host.visit("p", "t")
    host.publish("t", b"missed")
    host.publish("r", b"kept", retain=1)
    host.stop()
    before = snapshot(host.tree)
    before_start("mount --bind {0} {0} && mount -o remount,bind,ro {0}".format(DATA))
    host.start()
    assert host.complaints() == []
    assert host.retained("r") == [("r", b"kept")]
    host.expect_log("ERROR", cannot_write(DATA + "/message/p.json"), lambda: host.publish("t", b"lost"))
    conn = host.client("p", False, CONNACK_PRESENT)
    conn.send(ack(0x40, conn.expect_publish("t", b"missed", 1)))
    host.expect_log("ERROR", cannot_write(DATA + "/subscription/p.json"), lambda: conn.subscribe(("u", 1)))
    host.expect_log("ERROR", "[persist] retain save failed", lambda: host.publish("r", b"new", retain=1))
    host.leave(conn)
    host.client("p").ping()  # a clean session, whose files cannot be removed
    host.check_service()
    host.stop()
    assert snapshot(host.tree) == before


def test_files_without_permission_are_named_and_kept(host, monkeypatch, tmp_path):
    """Root reads everything unless it gives that up."""
    host.start()
    host.visit("p", "t")
    host.publish("t", b"missed")
    host.publish("r", b"kept", retain=1)
    host.stop()
    message, retained = host.data / "message/p.json", host.data / "retain.dat"
    message.chmod(0)
    retained.chmod(0)
    script = tmp_path / "host.sh"
    drop = "setpriv --bounding-set=-dac_override,-dac_read_search " if os.geteuid() == 0 else ""
    script.write_text("#!/bin/sh\nexec %s%s \"$@\"\n" % (drop, host_program()))
    script.chmod(0o755)
    monkeypatch.setenv("ZEB_HOST", str(script))
    before = snapshot(host.data / "message"), snapshot(host.data)[str(retained)]
    host.start()
    unknown = "[persist] offline messages unknown, left as they are: p"
    host.expect_log("ERROR", unknown, lambda: host.publish("t", b"lost"))
    assert ("ERROR", "[persist] cannot open: %s/message/p.json, errno=13" % DATA) in host.log()
    assert host.complaints()[0] == ("ERROR", "[persist] cannot open: %s/message/p.json, errno=13" % DATA)
    host.expect_log("ERROR", "[persist] retain save failed", lambda: host.publish("r", b"new", retain=1))
    host.check_service()
    host.stop()
    assert (snapshot(host.data / "message"), snapshot(host.data)[str(retained)]) == before
