"""What an update of a retained message costs in bytes written to files."""

import socket
import time
from pathlib import Path

from processes import RunFailed

KEPT = 900
UPDATES = 100
PAYLOAD = bytes([0xFF]) * 64
QUIET_S = 1.0
SETTLE_S = 30.0


def publish(peer, packet_id, topic):
    """A retained QoS 1 message, and its acknowledgement."""
    body = len(topic).to_bytes(2, "big") + topic + packet_id.to_bytes(2, "big") + PAYLOAD
    peer.sendall(bytes([0x33, len(body)]) + body)
    answer = b""
    while len(answer) < 4:
        more = peer.recv(4 - len(answer))
        if not more:
            raise RunFailed("the broker closed the connection of a publisher")
        answer += more
    if answer != b"\x40\x02" + packet_id.to_bytes(2, "big"):
        raise RunFailed(f"not the acknowledgement of a retained message: {answer.hex()}")


def io_counters(pid):
    lines = Path(f"/proc/{pid}/io").read_text().splitlines()
    return {name: int(value) for name, value in (line.split(": ") for line in lines)}


def settled(pid):
    """The counters once nothing has been written for a while: a broker may write behind."""
    deadline = time.monotonic() + SETTLE_S
    last = io_counters(pid)
    quiet_since = time.monotonic()
    while time.monotonic() < deadline:
        time.sleep(0.1)
        now = io_counters(pid)
        if now["wchar"] != last["wchar"]:
            quiet_since = time.monotonic()
        elif time.monotonic() - quiet_since >= QUIET_S:
            return now
        last = now
    raise RunFailed(f"the broker still wrote {SETTLE_S:.0f} s after the last retained message")


def measure(live):
    """Fill the store nearly to its limit, then change some of what is there."""
    connect = b"\x10\x14\x00\x04MQTT\x04\x02\x00\x00\x00\x08retainer"
    with socket.create_connection(("127.0.0.1", live.port), timeout=20) as peer:
        peer.sendall(connect)
        if peer.recv(4) != b"\x20\x02\x00\x00":
            raise RunFailed("the broker refused a publisher")
        for i in range(KEPT):
            publish(peer, i + 1, b"retained/%d" % i)
        before = settled(live.process.pid)
        for i in range(UPDATES):
            publish(peer, i + 1, b"retained/%d" % (i * (KEPT // UPDATES)))
        after = settled(live.process.pid)
        peer.sendall(b"\xe0\x00")
    # send() to a socket is not among these counters, so what is left went to files.
    return {"written_kib_per_update": (after["wchar"] - before["wchar"]) / UPDATES / 1024,
            "device_kib_per_update": (after["write_bytes"] - before["write_bytes"]) / UPDATES / 1024}
