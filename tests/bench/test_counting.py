"""The load program against a broker of which is known what it did to every message."""

import pytest

import load_program
from fake_broker import FakeBroker, number_of
from mqtt_wire import packet

COUNTED = 64  # what load_program.publish() publishes in its measured time at a rate of 320
SENT = 80
WARMUP = SENT - COUNTED


@pytest.fixture
def fake():
    """Run fake brokers that treat messages as a function of number, first byte and body says."""
    running = []

    def start(treat, **options):
        def forward(first, body):
            return treat(number_of(body[-64:]), first, body)

        running.append(FakeBroker(forward, **options))

    yield start
    for broker in running:
        broker.close()


def publish(*arguments):
    result = load_program.publish("--rate", 320, "--drain", "0.2", *arguments)
    assert result["published"] == COUNTED
    assert result["delivered"] + result["lost"] == result["expected"]
    return result


def test_missing_messages_are_lost(fake):
    dropped = {0, WARMUP, WARMUP + 5, SENT - 1}
    fake(lambda number, first, body: b"" if number in dropped else packet(first, body))
    result = publish("--subscribers", 2)
    assert (result["expected"], result["lost"], result["duplicates"]) == (2 * COUNTED, 2 * 3, 0)


def test_repeated_messages_are_duplicates_and_not_delivered_twice(fake):
    fake(lambda number, first, body: packet(first, body) * (2 if number % 10 == 0 else 1))
    result = publish()
    assert (result["delivered"], result["lost"], result["duplicates"]) == (COUNTED, 0, SENT // 10)


def test_messages_out_of_order_are_delivered_once(fake):
    held = []

    def in_reversed_fours(number, first, body):
        held.insert(0, packet(first, body))
        if number % 4 != 3:
            return b""
        out = b"".join(held) + held[-1]
        held.clear()
        return out

    fake(in_reversed_fours)
    result = publish()
    assert (result["delivered"], result["lost"], result["duplicates"]) == (COUNTED, 0, SENT // 4)


def test_repetition_of_what_never_came_is_delivered(fake):
    fake(lambda number, first, body: packet(first | 8, body))
    result = publish()
    assert (result["delivered"], result["redelivered"], result["duplicates"]) == (COUNTED, SENT, 0)


def test_messages_of_others_are_foreign(fake):
    def with_others(number, first, body):
        changed = body[:-49] + b"\x77" + body[-48:]  # a number that nobody has sent
        cut = body[:-1]
        unmarked = body[:-64] + b"\x00" + body[-63:]
        return b"".join(packet(first, other) for other in (changed, cut, unmarked, body))

    fake(with_others)
    result = publish()
    assert (result["delivered"], result["foreign"], result["duplicates"]) == (COUNTED, 3 * SENT, 0)


@pytest.mark.parametrize("garbage", ["30 ff ff ff ff 01", "30 01 00", "30 02 00 05", "32 04 00 01 61 00"])
def test_malformed_packets_end_the_run(fake, garbage):
    fake(lambda number, first, body: bytes.fromhex(garbage))
    status, result, _ = load_program.finish(load_program.start("publish", "--rate", 100, "--seconds", 1))
    assert status == 1 and "subscriber" in result["error"]


def test_refused_subscription_is_an_error(fake):
    fake(lambda number, first, body: b"", suback_code=0x80)
    status, result, _ = load_program.finish(load_program.start("publish", "--seconds", 1))
    assert status == 1 and "SUBSCRIBE refused" in result["error"]
