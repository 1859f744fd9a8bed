"""Launchers and launched processes that mean harm: storms of begins, and names that no output may stumble over."""
import os
import pathlib
import re
import signal
import time
import unittest

from dbus_peer import Int64
from launcher import LOGGING, NO_PROCESS, Busy, activation, begin
from scratch import ScratchTest
from waiting import until

SANITIZED = os.environ.get("QV_TEST_SANITIZED")
MEMORY = 32 << 20  # kMaxActivationBytes
STORM = 5000


def resident_bytes(daemon):
    status = pathlib.Path(f"/proc/{daemon.process.pid}/status").read_text()
    return int(re.search(r"VmRSS:\s+(\d+) kB", status)[1]) * 1024


class HostileLaunchers(ScratchTest):
    def logging_daemon(self):
        daemon = self.daemon(start=False)
        daemon.write_preferences(**LOGGING)
        return daemon.start()

    def test_hostile_names_keep_the_power_log_readable_and_the_log_to_its_lines(self):
        daemon = self.logging_daemon()
        peer = self.peer(daemon)
        names = [b'"},{"a":"b', b"\x01\n\r\t\x1b[2J\x7f", b"\xff\xfe\xc3(\xed\xa0\x80", b"%s%n\\u0000"]
        bundle = 'a"b\n2026-01-01 forged\x1b[2J\u2028ü'

        def run():
            for name in names:
                busy = Busy(name)
                self.addCleanup(busy.close)

        event = activation(daemon, peer, NO_PROCESS, bundle, meanwhile=run)
        self.assertEqual(event["activationData"]["BundleID"], bundle)
        told = {process["ProcessName"] for process in event["processData"].values()}
        for name in names:
            self.assertIn(name.decode(errors="replace"), told)
        raw = daemon.log_path.read_bytes().decode()  # whole UTF-8
        for line in raw.removesuffix("\n").split("\n"):
            self.assertRegex(line, r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} (default|info|debug) [^\x00-\x1f\x7f]*$")

    def test_a_storm_of_begins_stays_small_and_every_timeout_fires(self):
        daemon = self.logging_daemon()
        peer = self.peer(daemon)
        activation(daemon, peer, NO_PROCESS, "com.example.first")
        before = resident_bytes(daemon)

        def refused():  # a busy machine may be so slow that the first ones are over meanwhile, and the log drops lines of a storm
            for number in range(STORM):
                begin(peer, NO_PROCESS + number, "com.example.storm")
            return "QVActivationStats: Too many activations at once, ignoring the begin of " in daemon.log()

        until(refused, "too many at once")

        def calm():
            peer.send(command=6, name=Int64(1), startTime=Int64(1))  # anew each time: the log drops lines of a storm
            return "QVFenceTracking: Fence begin" in daemon.log()

        until(calm, "the storm's end")
        if not SANITIZED:
            # The snapshots, and what the messages took on their way through.
            self.assertLess(resident_bytes(daemon) - before, MEMORY + (8 << 20))

        def over():
            daemon.process.send_signal(signal.SIGUSR1)
            time.sleep(0.5)
            return re.search(r"Status: 0 activations in flight, 0 KB of snapshots, \d+ reported today, 0 timeouts", daemon.log())

        until(over, "the last timeout")
        if not SANITIZED:
            self.assertLess(resident_bytes(daemon) - before, 8 << 20, "memory that a burst took is given back")
        activation(daemon, peer, NO_PROCESS, "com.example.after")


if __name__ == "__main__":
    unittest.main()
