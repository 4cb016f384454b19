"""Reads a data directory strictly: whatever a broker would have to skip or repair is an error here."""

import collections
import json
import os
import re
import struct

Message = collections.namedtuple("Message", "msgid topic payload qos")
Retained = collections.namedtuple("Retained", "topic payload qos")

# A session file is cut after 227 characters; with the names used here the cut falls behind the will's topic.
SESSION_SIZE = 227
# Every true after its key is taken for clean_start's, so that it changes once the file has been read.
SESSION = (r'\{"client_id":"%s","clean_session":false,"clean_start":(true|false),"session_expiry_interval":0,'
           r'"session_expiry_deadline":0,"last_online":0,"will_flag":true,"will_topic":"%s","will_qos":0,"will_len":4,'
           r'"will_pay')
RECORD = struct.Struct("<257s2048s3sII4sqI4s")
RETAINED_MAX = 1000
LOG_FOOTER_SIZE = 32


class Damage(AssertionError):
    """A file that does not load."""


def need(condition, what, *details):
    if not condition:
        raise Damage("%s: %s" % (what, ", ".join(repr(detail)[:600] for detail in details)))


def names(directory, kind):
    """The clients that have a file of this kind. Nothing else may lie there while the broker serves."""
    found = os.listdir(os.path.join(directory, kind))
    need(all(name.endswith(".json") for name in found), "left over in " + kind, sorted(found))
    return {name[:-5] for name in found}


def read(directory, kind, client_id):
    with open(os.path.join(directory, kind, client_id + ".json"), "rb") as stream:
        return stream.read().decode()


def entries(directory, kind, key, client_id):
    text = read(directory, kind, client_id)
    try:
        document = json.loads(text)
    except ValueError as error:
        raise Damage("%s file of %s: %s in %r" % (kind, client_id, error, text))
    need(list(document) == [key], "keys of %s file" % kind, client_id, text)
    return document[key]


def check_session(directory, client_id, will_topic):
    text = read(directory, "session", client_id)
    wanted = SESSION % (re.escape(client_id), re.escape(will_topic))
    need(len(text) == SESSION_SIZE and re.match(wanted, text), "session file", client_id, text)


def subscriptions(directory, client_id):
    """Filter and QoS of each stored subscription."""
    found = entries(directory, "subscription", "subs", client_id)
    stored = {entry["topic"]: entry["qos"] for entry in found}
    need(len(stored) == len(found), "a filter is stored twice", client_id, found)
    return stored


def messages(directory, client_id):
    found = [Message(entry["msgid"], entry["topic"], bytes.fromhex(entry["payload"]), entry["qos"])
             for entry in entries(directory, "message", "msgs", client_id)]
    ids = [message.msgid for message in found]
    need(all(ids) and len(set(ids)) == len(ids), "identifiers of missed messages", client_id, ids)
    return found


def retained(directory):
    """Topic to message, or nothing when there is no file."""
    path = os.path.join(directory, "retain.dat")
    if not os.path.exists(path):
        return {}
    with open(path, "rb") as stream:
        data = stream.read()
    if data[:4] in (b"", b"\0\0\0\0"):  # an empty store, whose records may be on their way
        return {}
    count = struct.unpack("<I", data[:4])[0]
    need(count <= RETAINED_MAX and len(data) >= 4 + count * RECORD.size, "size of retain.dat", count, len(data))
    # A log without its footer may lie behind the records until the next change; one with it was to be completed.
    behind = data[4 + count * RECORD.size:]
    need(not behind[-LOG_FOOTER_SIZE:].startswith(b"ZEBRLOG"), "a log is left", count, len(data))
    stored = {}
    for number in range(count):
        topic, payload, gap, length, qos, gap2, _, expiry, gap3 = RECORD.unpack_from(data, 4 + number * RECORD.size)
        name, zero, _ = topic.partition(b"\0")
        need(name and zero and 1 <= length <= 2048 and qos <= 2, "retained record", number, topic, length, qos)
        need(not any(gap + gap2 + gap3) and expiry == 0, "gaps of a retained record", number, gap, gap2, gap3, expiry)
        need(name.decode() not in stored, "topic retained twice", number, name)
        stored[name.decode()] = Retained(name.decode(), payload[:length], qos)
    return stored
