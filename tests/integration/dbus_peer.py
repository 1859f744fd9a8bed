"""A D-Bus peer of quorveld on the plain socket: enough of the protocol to send a{sv} messages with descriptors.

Written from the description of D-Bus, with nothing of the project's own client, so that both ends can't share a mistake.
"""
import os
import socket
import struct

from waiting import PATIENCE


class Int64(int):
    signature = "x"


class Uint64(int):
    signature = "t"


class Fd(int):
    """A descriptor to pass along."""
    signature = "h"


def _signature(value):
    if isinstance(value, bool):
        return "b"
    return "s" if isinstance(value, str) else value.signature


class _Writer:
    def __init__(self):
        self.bytes = bytearray()
        self.fds = []

    def align(self, to):
        self.bytes += bytes(-len(self.bytes) % to)

    def pack(self, form, size, value):
        self.align(size)
        self.bytes += struct.pack("<" + form, value)

    def text(self, text):
        raw = text.encode() if isinstance(text, str) else text
        self.pack("I", 4, len(raw))
        self.bytes += raw + b"\0"

    def variant(self, signature, value):
        self.bytes += bytes([len(signature)]) + signature.encode() + b"\0"
        if signature == "x":
            self.pack("q", 8, value)
        elif signature == "t":
            self.pack("Q", 8, value)
        elif signature == "b":
            self.pack("I", 4, int(value))
        elif signature == "u":
            self.pack("I", 4, value)
        elif signature in "so":
            self.text(value)
        elif signature == "g":
            self.bytes += bytes([len(value)]) + value.encode() + b"\0"
        elif signature == "h":
            self.pack("I", 4, len(self.fds))
            self.fds.append(int(value))

    def dictionary(self, values):
        """a{sv}."""
        self.pack("I", 4, 0)
        length_at = len(self.bytes) - 4
        self.align(8)
        start = len(self.bytes)
        for key, value in values.items():
            self.align(8)
            self.text(key)
            self.variant(_signature(value), value)
        struct.pack_into("<I", self.bytes, length_at, len(self.bytes) - start)


def call(serial, member, values=None, interface="com.corvix.quorveld", path="/com/corvix/quorveld"):
    """The bytes of a method call that wants no reply, and its descriptors."""
    body = _Writer()
    if values is not None:
        body.dictionary(values)
    fields = [(1, "o", path), (2, "s", interface), (3, "s", member)]
    if values is not None:
        fields.append((8, "g", "a{sv}"))
    if body.fds:
        fields.append((9, "u", len(body.fds)))
    header = _Writer()
    header.bytes += struct.pack("<cBBBIII", b"l", 1, 1, 1, len(body.bytes), serial, 0)
    for code, signature, value in fields:
        header.align(8)
        header.bytes += bytes([code])
        header.variant(signature, value)
    struct.pack_into("<I", header.bytes, 12, len(header.bytes) - 16)
    header.align(8)
    return bytes(header.bytes + body.bytes), body.fds


class Peer:
    """One connection, authenticated and introduced; `send` sends one message."""

    def __init__(self, path, hello=True):
        self.serial = 1
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.socket.settimeout(PATIENCE)
        self.socket.connect(path)
        uid = str(os.getuid()).encode().hex()
        self.socket.sendall(b"\0AUTH EXTERNAL " + uid.encode() + b"\r\n")
        self._expect(b"OK")
        self.socket.sendall(b"NEGOTIATE_UNIX_FD\r\n")
        self._expect(b"AGREE_UNIX_FD")
        self.socket.sendall(b"BEGIN\r\n")
        if hello:
            self.raw(*call(1, "Hello", interface="org.freedesktop.DBus", path="/org/freedesktop/DBus"))

    def _expect(self, word):
        line = b""
        while not line.endswith(b"\r\n"):
            byte = self.socket.recv(1)
            if not byte:
                raise ConnectionError("closed during authentication")
            line += byte
        if not line.startswith(word):
            raise ConnectionError(f"expected {word!r}, got {line!r}")

    def raw(self, data, fds=()):
        if fds:
            sent = socket.send_fds(self.socket, [data], list(fds))
            data = data[sent:]
        self.socket.sendall(data)

    def send(self, **values):
        """Keys with '-' in them are written with '_'; "command" is taken as int64."""
        self.serial += 1
        named = {key.replace("_", "-"): value for key, value in values.items()}
        named["command"] = Int64(named["command"])
        self.raw(*call(self.serial, "Message", named))

    def close(self):
        self.socket.close()
