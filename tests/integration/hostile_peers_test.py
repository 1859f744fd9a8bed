"""Peers that mean harm, and the 5-second check that must come all the same."""
import contextlib
import os
import resource
import socket
import threading
import time
import unittest

from dbus_peer import Fd, Int64, call
from scratch import Region, ScratchTest
from waiting import PATIENCE, schedule, until

SANITIZED = os.environ.get("QV_TEST_SANITIZED")


class Garbage(ScratchTest):
    def test_bytes_that_are_no_dbus_end_their_own_connection_only(self):
        daemon = self.daemon()
        before = [b"\0AUTH EXTERNAL zz\r\n" * 3, b"\xff" * 70000, b"\0AUTH ANONYMOUS\r\nBEGIN\r\n", b"\0" + b"A" * 200000, b""]
        for bytes_ in before:
            connection = socket.socket(socket.AF_UNIX)
            connection.connect(daemon.socket_path)
            connection.settimeout(PATIENCE)
            try:
                connection.sendall(bytes_)
            except OSError:
                pass
            connection.close()
        message, _ = call(7, "Message", {"command": Int64(6)})
        huge = bytearray(message)
        huge[4:8] = b"\xff\xff\xff\x07"  # a body of 128 MB
        for bytes_ in (b"\xff" * 4096, bytes(huge), message[:-5], bytes(4096), message.replace(b"a{sv}", b"a{sx}")):
            peer = self.peer(daemon)
            peer.raw(bytes_)
            peer.close()
        self.assertTrue(daemon.alive())

    def test_other_members_and_bodies_are_no_dictionary(self):
        daemon = self.daemon()
        peer = self.peer(daemon)
        peer.raw(*call(2, "Message"))
        daemon.wait_for("We got a non-dictionary event: ")
        peer.send(command=6, name=Int64(1))
        daemon.wait_for("QVFenceTracking: Fence begin")  # the peer stays connected

    def test_descriptors_that_come_with_messages_do_not_pile_up(self):
        daemon = self.daemon()
        peer = self.peer(daemon)
        peer.send(command=6, name=Int64(1))
        daemon.wait_for("QVFenceTracking: Fence begin")
        folder = f"/proc/{daemon.process.pid}/fd"
        before = len(os.listdir(folder))
        region = Region()
        for _ in range(200):
            peer.send(command=1, shmem=Fd(region.fd), name="again")
        daemon.wait_for("was already being watched.", 199)
        self.assertLessEqual(len(os.listdir(folder)), before)


class Punctuality(ScratchTest):
    def checks_stay_on_time(self, daemon, count):
        metronome = self.metronome(daemon)
        # The work queue, where the checks are, is the first thread. What others have of the CPUs delays it, and this test.
        clock = lambda: time.monotonic() - schedule(daemon.process.pid)[1] - schedule("thread-self")[1]
        metronome.check()
        gaps = []
        for _ in range(count):
            last = clock()
            metronome.check()
            gaps.append(clock() - last)
        # Every 5 seconds with a leeway of 1; half a second is the test's own.
        self.assertLess(max(gaps), 5 + 1 + 0.5, gaps)

    def pour(self, daemon, stop):
        """Sends messages as fast as they are taken, until `stop` is set."""
        peer = self.peer(daemon)
        messages = call(9, "Message", {"command": Int64(7), "name": Int64(99), "endTime": Int64(1)})[0] * 50

        def run():
            with contextlib.suppress(OSError):  # the daemon may throw a flooder out
                while not stop.is_set():
                    peer.raw(messages)

        thread = threading.Thread(target=run)
        thread.start()
        return thread

    def test_neither_a_thousand_peers_nor_silent_ones_nor_a_flood_delay_a_check(self):
        soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
        if hard < 2100:
            self.skipTest(f"only {hard} descriptors are allowed here, a thousand peers need 2100")
        resource.setrlimit(resource.RLIMIT_NOFILE, (max(soft, 2100), hard))
        daemon = self.daemon()
        for number in range(1000):
            self.peer(daemon).send(command=6, name=Int64(number), startTime=Int64(1))
        for _ in range(10):
            silent = socket.socket(socket.AF_UNIX)
            self.addCleanup(silent.close)
            silent.connect(daemon.socket_path)
        # Not counted in the log: it takes a thousand lines a second and no more.
        until(lambda: len(os.listdir(f"/proc/{daemon.process.pid}/fd")) > 1010, "all connections")
        stop = threading.Event()
        flood = self.pour(daemon, stop)
        try:
            self.checks_stay_on_time(daemon, 3)
        finally:
            stop.set()
            flood.join(PATIENCE)
        with open(f"/proc/{daemon.process.pid}/status") as status:
            resident = next(int(line.split()[1]) for line in status if line.startswith("VmRSS"))
        if not SANITIZED:  # a sanitizer's own memory says nothing of the daemon's
            self.assertLess(resident, 40_000, "kB: a flood must not be stored")
        self.assertTrue(daemon.alive())


if __name__ == "__main__":
    unittest.main()
