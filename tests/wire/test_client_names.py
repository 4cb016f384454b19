"""Identifiers, filters and topics that would be hostile as file names or in a text file.

Whatever a client sends, nothing outside its own files is created, changed, read or removed."""

import os

import pytest

from data_dir_host import BAIT, CONNACK_PRESENT, DATA, KINDS, Host, cannot_write, lay_bait, snapshot
from mqtt_wire import CONNACK, ack, connack_v5, maximum_packet_size


@pytest.fixture
def host(start_broker, tmp_path):
    host = Host(start_broker, tmp_path)
    yield host
    host.close()


LEVEL_5 = {"level": 5, "props": b"\x11\0\0\x01\x2c" + maximum_packet_size(4096)}  # expires after 300 s
# As file names these lead elsewhere.
LEADING_AWAY = [b"../evil", b"a/b", b"/evil", b"../../evil", b"../../../evil", b"../../../../evil", b"evil/", b"a/../../evil", b"./p",
                b"../message/p", b"a/b/c", b"/"]
# These are strange, but name a file in the directory.
STRANGE = [b"..", b".", b"%s%n%d%x", b'quo"te', b"two words", b" ", b"tab\tbell\x07", b"line\nfeed", b"\xff\xfe\x80",
           b"\xe4\xb8", b"*", b"-rf", b"p.json", b"p.json.tmp", b"$(touch evil)", b"back\\slash", b"~"]


def lay_baits(host):
    """Files where identifiers that are taken for paths would lead, and a client whose files must stay its own."""
    lay_bait(host)
    for folder in [host.tree, host.data, host.tree / "evil"]:
        folder.mkdir(exist_ok=True)
        (folder / "evil.json").write_text(BAIT)
    for kind in KINDS:
        (host.data / kind / "a").mkdir()
        (host.data / kind / "a" / "b.json").write_text(BAIT)
        (host.data / kind / "p.json").write_text('{"subs":[{"topic":"p","qos":1}]}')


def test_identifiers_that_lead_away_have_no_files(host):
    lay_baits(host)
    before = snapshot(host.tree)
    host.start()
    for client_id in LEADING_AWAY:
        name = client_id.decode()
        refused = cannot_write("%s/subscription/%s.json" % (DATA, name))
        host.expect_log("ERROR", refused, lambda: host.visit(client_id, "bait/#", answer=CONNACK))
        host.publish("bait/x", b"missed")
        host.visit(client_id, answer=CONNACK)  # nothing is found
        host.client(client_id).ping()  # and nothing removed
        host.close()
    host.check_service()
    host.stop()
    (host.data / "retain.dat").unlink()  # from check_service
    assert snapshot(host.tree) == before
    assert not any(name.startswith("evil") for name in os.listdir(str(host.tree.parent)) + os.listdir(str(host.tree.parent.parent)))


def test_strange_identifiers_name_files_of_their_own(host):
    lay_baits(host)
    before = snapshot(host.tree)
    host.start()
    for client_id in STRANGE:
        host.visit(client_id, "strange", answer=CONNACK)
    host.publish("strange", b"missed")
    for kind in ("subscription", "message"):
        expected = {client_id + b".json" for client_id in STRANGE} | {b"p.json", b"a"}
        assert set(os.listdir(os.fsencode(str(host.data / kind)))) == expected
    host.stop()
    host.start()
    conns = [host.client(client_id, False, CONNACK_PRESENT) for client_id in STRANGE]
    for conn in conns:
        conn.send(ack(0x40, conn.expect_publish("strange", b"missed", 1)))
    for conn in conns:
        host.leave(conn)
    for client_id in STRANGE:
        host.client(client_id).ping()  # a clean session takes the files away
    host.close()
    host.check_service()
    host.stop()
    (host.data / "retain.dat").unlink()
    assert snapshot(host.tree) == before


@pytest.mark.parametrize("length", [23, 63])
def test_the_longest_identifiers_keep_their_sessions(host, length):
    options = {"answer": CONNACK} if length == 23 else {"answer": connack_v5(4096), **LEVEL_5}
    level = 4 if length == 23 else 5
    host.start()
    conn = host.client("i" * length, False, **options)
    conn.subscribe(("t", 1), level=level)
    host.broker.kill()
    host.start()
    host.publish("t", b"\xffmissed")
    options["answer"] = options["answer"][:2] + b"\x01" + options["answer"][3:]
    conn = host.client("i" * length, False, **options)
    conn.send(ack(0x40, conn.expect_publish("t", b"\xffmissed", 1, level), 0 if level == 5 else None))
    host.stop()


def test_a_longer_level_5_identifier_is_cut_to_63_bytes(host):
    host.start()
    conn = host.client("i" * 127, False, connack_v5(4096), **LEVEL_5)
    conn.subscribe(("t", 1), level=5)
    assert os.listdir(str(host.data / "subscription")) == ["i" * 63 + ".json"]
    host.check_service()
    host.stop()


def test_file_names_that_are_no_identifiers_are_left_alone(host):
    lay_bait(host)
    names = ["n" * 127 + ".json", "n" * 128 + ".json", "n" * 250 + ".json", ".json", "..json", "x.txt", "a.json.old",
             "%s%n.json", 'quo"te.json', "line\nfeed.json"]
    for name in names:
        (host.data / "subscription" / name[-255:]).write_text('{"subs":[{"topic":"t","qos":1}]}')
    before = snapshot(host.data / "subscription")
    host.start()
    host.publish("t", b"missed")
    host.check_service()
    host.stop()
    assert snapshot(host.data / "subscription") == before


# Texts that would read back as something else

INJECTED = 'x","qos":0},{"topic":"secret/#'


def test_a_filter_cannot_smuggle_another_one_into_the_next_start(host):
    host.start("--deny-topic", "secret/")
    left_out = "[persist] not stored because it would not read back: client=p, filter=" + INJECTED
    host.expect_log("WARN", left_out, lambda: host.visit("p", "plain", INJECTED))
    assert host.filters("p") == ["plain"]
    host.stop()
    host.start()
    host.publish("secret/x", b"secret")
    host.publish("plain", b"missed")
    assert host.missed("p") == [("plain", b"missed")]
    host.stop()


def test_a_topic_cannot_smuggle_a_message_into_a_queue(host):
    host.start()
    host.visit("p", "#")
    topic = 't","payload":""},{"msgid":1,"qos":1,"topic":"forged'
    left_out = "[persist] not stored because it would not read back: client=p, topic=" + topic
    host.expect_log("WARN", left_out, lambda: host.publish(topic, b"hello"))
    host.publish("plain", b"missed")
    assert host.missed("p") == [("plain", b"missed")]
    host.stop()
