"""The places at which the broker looks for a client by its identifier, unless it looks them up exactly.

Of the live clients on one place only the one that connected last is found, and the others get nothing."""

import itertools
import time

SLOTS = 11000


def slot(client_id):
    value = 0
    for byte in client_id.encode():
        value = (value * 31 + (byte if byte < 128 else byte - 256)) & 0xFFFFFFFF
    return value % SLOTS


def generated_names():
    """What clients without an identifier may be called within the next hour: the second, or a number not far on."""
    now = int(time.time())
    return ["auto_%d" % number for number in range(now - 60, now + 3600)]


def names_apart(prefix, count, others=()):
    """Names that share a place with none of the others, no generated name and none of each other."""
    taken = {slot(name) for name in itertools.chain(others, generated_names())}
    names = []
    for number in itertools.count(1):
        name = "%s%d" % (prefix, number)
        if slot(name) not in taken:
            taken.add(slot(name))
            names.append(name)
        if len(names) == count:
            return names
