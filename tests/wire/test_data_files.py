"""Hostile files in the data directory.

Whatever lies there, the broker touches nothing else, serves on and ends cleanly."""

import os
import struct
import time

import pytest

from data_dir_host import CONNACK_PRESENT, DATA, KINDS, Host, cannot_write, lay_bait, snapshot
from mqtt_wire import CONNACK

SPARSE_BYTES = 1 << 30
LARGEST_KIB = 256 * 1024  # the broker's memory, whatever the size of a file that it meets
RECORD = struct.Struct("<257s2048s3xII4xqI4x")  # topic, payload, length, QoS, time, expiry


@pytest.fixture
def host(start_broker, tmp_path):
    host = Host(start_broker, tmp_path)
    yield host
    host.close()


# Files that somebody else has left


def put_sparse(path, bait):
    with open(path, "wb") as stream:
        stream.truncate(SPARSE_BYTES)


def put_bytes(content):
    def put(path, bait):
        with open(path, "wb") as stream:
            stream.write(content)

    return put


JUNK = bytes(range(255, 0, -1)) * 300
# What lies under the name; whether it is opened, which makes a stored session of it; and what becomes of it at the
# start where an interrupted write would lie, which is complete when it begins with a byte.
HOSTILE = {
    "fifo": (lambda path, bait: os.mkfifo(path), False, "removed"),
    "directory": (lambda path, bait: os.mkdir(path), False, "left"),
    "symlink": (lambda path, bait: os.symlink(bait, path), False, "removed"),
    "dangling_symlink": (lambda path, bait: os.symlink(bait + ".missing", path), False, "removed"),
    "sparse_gigabyte": (put_sparse, True, "removed"),
    "empty": (put_bytes(b""), True, "removed"),
    "junk": (put_bytes(JUNK), True, "renamed"),
    "nothing_closed": (put_bytes(b'{"subs":[{"topic":"' + b"x" * 5000), True, "renamed"),
    "nested_openings": (put_bytes(b'{"msgs":[' + b'{"msgid":1,"qos":1,"topic":"t","payload":"' * 200), True, "renamed"),
}
every_hostile_file = pytest.mark.parametrize("what", HOSTILE)


def check_client(host, kind, replaceable):
    """A client whose file of this kind is hostile. Whatever is no directory gives way to a file of ours."""
    failing = "[persist] 重命名失败: %s/%s/%s.json" % (DATA, kind, kind)
    filters = ["own/" + kind]
    if kind == "subscription" and not replaceable:
        host.expect_log("ERROR", failing, lambda: host.visit(kind, *filters))
    else:
        assert host.filters(kind) == filters
    if kind == "message" and not replaceable:
        host.expect_log("ERROR", failing, lambda: host.publish(filters[0], b"missed"))
    elif host.has_file("subscription", kind):
        host.publish(filters[0], b"missed")
        assert host.missed(kind)[-1] == (filters[0], b"missed")
    assert not os.path.lexists(str(host.data / kind / (kind + ".json.tmp")))


@every_hostile_file
def test_hostile_file_of_a_client(host, what):
    put, opened, _ = HOSTILE[what]
    bait = lay_bait(host)
    for kind in KINDS:
        put(str(host.data / kind / (kind + ".json")), bait)
    outside = snapshot(host.tree, [str(host.data)])
    host.start()
    for kind in KINDS:
        host.visit(kind, "own/" + kind, answer=CONNACK_PRESENT if opened else CONNACK)
        check_client(host, kind, what != "directory")
    host.publish("bait/x", b"nobody")
    for kind in KINDS:
        assert not host.has_file("message", kind) or ("bait/x", b"nobody") not in host.missed(kind)
    host.check_service()
    if os.environ["ZEB_SANITIZED"] == "0":
        assert host.broker.resident_kib() < LARGEST_KIB
    host.stop()
    assert snapshot(host.tree, [str(host.data)]) == outside


@every_hostile_file
def test_hostile_temporary_file(host, what):
    put, _, outcome = HOSTILE[what]
    bait = lay_bait(host)
    for kind in KINDS:
        put(str(host.data / kind / "alone.json.tmp"), bait)
        put(str(host.data / kind / "p.json.tmp"), bait)
        (host.data / kind / "p.json").write_text('{"subs":[{"topic":"t","qos":1}]}')
    outside = snapshot(host.tree, [str(host.data)])
    host.start()
    unsettled = [line for line in host.complaints() if "cannot settle an interrupted write" in line[1]]
    assert len(unsettled) == (2 * len(KINDS) if outcome == "left" else 0), unsettled
    for kind in KINDS:
        expected = {"removed": ["p.json"], "renamed": ["alone.json", "p.json"],
                    "left": ["alone.json.tmp", "p.json", "p.json.tmp"]}[outcome]
        assert sorted(os.listdir(str(host.data / kind))) == expected
        assert (host.data / kind / "p.json").read_text() == '{"subs":[{"topic":"t","qos":1}]}'
    host.visit("p", answer=CONNACK_PRESENT)
    host.check_service()
    host.stop()
    assert snapshot(host.tree, [str(host.data)]) == outside


@pytest.mark.parametrize("what", ["fifo", "symlink", "dangling_symlink", "junk", "directory"])
def test_what_lies_in_the_way_of_a_temporary_file_is_never_written_to(host, what):
    bait = lay_bait(host)
    host.start()
    for kind in ("subscription", "message"):
        HOSTILE[what][0](str(host.data / kind / "p.json.tmp"), bait)
    outside = snapshot(host.tree, [str(host.data)])
    if what == "directory":
        host.expect_log("ERROR", cannot_write(DATA + "/subscription/p.json"), lambda: host.visit("p", "t"))
        assert not host.has_file("subscription", "p")
    else:
        host.visit("p", "t", answer=CONNACK)
        host.publish("t", b"missed")
        assert host.filters("p") == ["t"] and host.missed("p") == [("t", b"missed")]
        assert os.listdir(str(host.data / "subscription")) == os.listdir(str(host.data / "message")) == ["p.json"]
    host.check_service()
    host.stop()
    assert snapshot(host.tree, [str(host.data)]) == outside


@every_hostile_file
def test_hostile_retained_file(host, what):
    put, opened, _ = HOSTILE[what]
    bait = lay_bait(host)
    put(str(host.data / "retain.dat"), bait)
    outside = snapshot(host.tree, [str(host.data)])
    host.start()
    assert host.complaints() == ([] if opened else [("WARN", "[persist] no retain file")])
    assert host.retained("#") == []
    if opened:
        host.publish("r", b"kept", retain=1)
    else:
        host.expect_log("ERROR", "[persist] retain save failed", lambda: host.publish("r", b"kept", retain=1))
    host.check_service()
    host.stop()
    assert snapshot(host.tree, [str(host.data)]) == outside
    host.start()
    assert host.retained("#") == ([("r", b"kept")] if opened else [])
    host.stop()


def retained_record(topic, payload, length=None, qos=1):
    return RECORD.pack(topic, payload, len(payload) if length is None else length, qos, int(time.time()), 0)


def test_damaged_retained_records_are_dropped_and_the_others_delivered(host):
    lay_bait(host)
    records = [
        retained_record(b"first", b"one"),
        retained_record(b"", b"no topic"),
        retained_record(b"t" * 257, b"topic without an end"),
        retained_record(b"long", b"too long", 2049),
        retained_record(b"huge", b"far too long", 0xFFFFFFFF),
        retained_record(b"qos", b"level 3", qos=3),
        retained_record(b"last", b"two"),
    ]
    (host.data / "retain.dat").write_bytes(struct.pack("<I", len(records)) + b"".join(records))
    host.start()
    assert host.complaints() == [("WARN", "[persist] damaged retained records dropped: 5")]
    assert host.retained("#") == [("first", b"one"), ("last", b"two")]
    host.check_service()
    host.stop()


@pytest.mark.parametrize("count, records", [(0, 1), (1001, 1001), (2, 1), (0xFFFFFFFF, 1)])
def test_a_retained_file_whose_count_is_wrong_is_ignored_as_a_whole(host, count, records):
    lay_bait(host)
    content = b"".join(retained_record(b"t/%d" % number, b"hello") for number in range(records))
    (host.data / "retain.dat").write_bytes(struct.pack("<I", count) + content)
    host.start()
    assert host.retained("#") == []
    host.publish("r", b"kept", retain=1)
    host.stop()
    host.start()
    assert host.retained("#") == [("r", b"kept")]
    host.stop()
