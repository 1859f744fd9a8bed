#!/usr/bin/env python3
"""An application that quorveld watches, without libquorvel: plain D-Bus on a socket, and a shared region. Python's standard library.

    watched.py [SECONDS [TURNS]]     works in TURNS (5) turns of 100 ms; the third one hangs for SECONDS (8)

What is sent, and how the region is laid out: docs/ipc.md.
"""
import fcntl
import mmap
import os
import socket
import struct
import sys
import threading
import time

SOCKET = os.environ.get("QUORVELD_ROOT", "") + "/run/quorveld/com.corvix.quorveld"
SLOTS, SLOT_BYTES, FIRST_SLOT = 20, 360, 8
FIRST_WAIT, LAST_WAIT = 1, 60  # seconds between tries: nobody's connecting starts a daemon every second that has nothing to do
F_ADD_SEALS, F_SEAL_SHRINK, F_SEAL_GROW = 1033, 2, 4


# --- messages: a method call with one dictionary of strings and variants, which nobody answers -------------------------------

def padded(data, to):
    return data + bytes(-len(data) % to)


def text(value):
    return struct.pack("<I", len(value.encode())) + value.encode() + b"\0"


def signature(value):
    return bytes([len(value)]) + value.encode() + b"\0"


def dictionary(values):
    """a{sv}; of each key its D-Bus type and value."""
    entries = b""  # begins at a multiple of 8, as each entry does
    for key, (kind, value) in values.items():
        entries = padded(entries, 8) + text(key) + signature(kind)
        if kind == "s":
            entries = padded(entries, 4) + text(value)
        else:
            form, size = {"x": ("<q", 8), "t": ("<Q", 8), "b": ("<I", 4), "h": ("<I", 4)}[kind]
            entries = padded(entries, size) + struct.pack(form, value)
    return struct.pack("<I", len(entries)) + bytes(4) + entries


def call(serial, path, interface, member, body=b"", descriptors=0):
    fields = [(1, "o", text(path)), (2, "s", text(interface)), (3, "s", text(member))]
    if body:
        fields += [(8, "g", signature("a{sv}")), (9, "u", struct.pack("<I", descriptors))]
    header = b""
    for code, kind, value in fields:
        header = padded(header, 8) + bytes([code]) + signature(kind)
        header = (header if kind == "g" else padded(header, 4)) + value
    no_reply = 1
    start = struct.pack("<cBBBIII", b"l", 1, no_reply, 1, len(body), serial, len(header))
    return padded(start + header, 8) + body


def read_line(connection):
    line = b""
    while not line.endswith(b"\n") and len(line) < 256:
        line += connection.recv(1) or b"\n"
    return line


def connect():
    connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    connection.settimeout(2)  # a daemon that hangs must not hang this
    connection.connect(SOCKET)
    uid = str(os.getuid()).encode().hex().encode()
    for line, answer in ((b"\0AUTH EXTERNAL " + uid, b"OK"), (b"NEGOTIATE_UNIX_FD", b"AGREE_UNIX_FD")):
        connection.sendall(line + b"\r\n")
        if not read_line(connection).startswith(answer):
            raise ConnectionError("the daemon refused " + line.decode())
    connection.sendall(b"BEGIN\r\n" + call(1, "/org/freedesktop/DBus", "org.freedesktop.DBus", "Hello"))
    connection.settimeout(None)
    return connection


# --- the shared region ---------------------------------------------------------------------------------------------------------

class Region:
    def __init__(self):
        length = FIRST_SLOT + SLOTS * SLOT_BYTES
        self.descriptor = os.memfd_create("region", os.MFD_CLOEXEC | os.MFD_ALLOW_SEALING)
        os.ftruncate(self.descriptor, length)
        fcntl.fcntl(self.descriptor, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW)
        self.bytes = mmap.mmap(self.descriptor, length)
        struct.pack_into("<II", self.bytes, 0, 4, SLOTS)
        for slot in range(SLOTS):
            self.end(slot)

    def begin(self, slot, name):
        at = FIRST_SLOT + slot * SLOT_BYTES
        ticks = time.clock_gettime_ns(time.CLOCK_MONOTONIC) * 3 // 125
        struct.pack_into("<Q", self.bytes, at, ticks)  # first, and timeoutExempt last
        self.bytes[at + 40:at + 104] = name.encode()[:63].ljust(64, b"\0")
        struct.pack_into("<Q", self.bytes, at + 32, threading.get_native_id())
        struct.pack_into("<I", self.bytes, at + 20, 1)
        struct.pack_into("<I", self.bytes, at + 16, 0)

    def end(self, slot):
        struct.pack_into("<I", self.bytes, FIRST_SLOT + slot * SLOT_BYTES + 16, 1)


class Watched:
    """This process, watched by the daemon that is there, by one that comes later, and again by one that was lost or that had
    tracking turned off meanwhile: all of these close the connection, and whoever is to be watched registers anew."""

    def __init__(self, bundle_id, name):
        self.region = Region()
        self.names = {"bundle-id": ("s", bundle_id), "name": ("s", name)}
        self.connection = None
        self.next_try = 0
        self.wait = FIRST_WAIT
        self.process()

    def process(self):
        """For the main loop, now and then. Doesn't wait, but for the handshake."""
        if self.connection and self.is_closed():
            self.connection.close()
            self.connection = None
            self.next_try = time.monotonic() + FIRST_WAIT
        if self.connection or time.monotonic() < self.next_try:
            return
        self.next_try = time.monotonic() + self.wait
        self.wait = min(2 * self.wait, LAST_WAIT)
        try:
            self.connection = connect()
            body = dictionary({"command": ("x", 1), "shmem": ("h", 0), **self.names})
            message = call(2, "/com/corvix/quorveld", "com.corvix.quorveld", "Message", body, descriptors=1)
            sent = socket.send_fds(self.connection, [message], [self.region.descriptor])
            self.connection.sendall(message[sent:])
            self.wait = FIRST_WAIT
        except OSError:  # nobody there, or no longer
            self.connection = None

    def is_closed(self):
        try:
            while self.connection.recv(512, socket.MSG_DONTWAIT):
                pass  # the answer to Hello; there is no other
            return True
        except BlockingIOError:
            return False
        except OSError:
            return True


def main():
    hang = float(sys.argv[1]) if len(sys.argv) > 1 else 8
    turns = int(sys.argv[2]) if len(sys.argv) > 2 else 5
    watched = Watched("com.example.python", "watched.py")
    for turn in range(turns):
        watched.process()
        watched.region.begin(0, "PythonTurn")
        time.sleep(hang if turn == 2 else 0.1)
        watched.region.end(0)


if __name__ == "__main__":
    main()
