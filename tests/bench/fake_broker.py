"""A broker that misbehaves on purpose: what it does to each message, the load program has to find out."""

import socket
import struct
import threading

import mqtt_wire

STAMP_BYTES = 24
CONNECT, PUBLISH, SUBSCRIBE = 1, 3, 8


def number_of(payload):
    """The sequence number in a message of the load program."""
    return struct.unpack_from("=Q", payload, 8)[0]


class FakeBroker:
    """Hands each PUBLISH to `forward`, which returns the packets that every subscriber gets for it."""

    def __init__(self, forward, suback_code=0):
        self.forward = forward
        self.suback_code = suback_code
        self.lock = threading.Lock()
        self.subscribers = []
        self.listener = socket.create_server((mqtt_wire.HOST, mqtt_wire.PORT))
        threading.Thread(target=self._accept, daemon=True).start()

    def close(self):
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()

    def _accept(self):
        while True:
            try:
                sock, _ = self.listener.accept()
            except OSError:
                return
            threading.Thread(target=self._serve, args=(sock,), daemon=True).start()

    def _serve(self, sock):
        with sock, sock.makefile("rb") as stream:
            try:
                while self._handle(sock, *read_packet(stream)):
                    pass
            except (OSError, EOFError):
                pass
            with self.lock:
                if sock in self.subscribers:
                    self.subscribers.remove(sock)

    def _handle(self, sock, first, body):
        kind = first >> 4
        if kind == CONNECT:
            sock.sendall(mqtt_wire.CONNACK)
        elif kind == SUBSCRIBE:
            with self.lock:
                self.subscribers.append(sock)
            sock.sendall(mqtt_wire.packet(0x90, body[:2] + bytes([self.suback_code])))
        elif kind == PUBLISH:
            out = self.forward(first, body)
            with self.lock:
                for subscriber in self.subscribers:
                    subscriber.sendall(out)
        return kind != 14


def read_packet(stream):
    def exactly(count):
        data = stream.read(count)
        if len(data) < count:
            raise EOFError
        return data

    first = exactly(1)[0]
    size, shift = 0, 0
    while True:
        byte = exactly(1)[0]
        size |= (byte & 0x7F) << shift
        shift += 7
        if byte < 0x80:
            return first, exactly(size)
