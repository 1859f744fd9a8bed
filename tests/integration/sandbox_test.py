"""The packaged units: what they are allowed is as little as is said, and is enough."""
import json
import os
import pathlib
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import unittest

import hostile_peers_test
from dbus_peer import Fd, Peer
from scratch import Region, ScratchTest
from waiting import until

PACKAGING = pathlib.Path(__file__).parents[2] / "packaging"
NOBODY = 65534


class Exposure(unittest.TestCase):
    # What is left is in the units, each hole with its reason.
    MOST = {"quorveld.service": 1.5, "kelvane-recorder.service": 1.0}

    def test_what_systemd_finds_open_in_the_units_is_no_more_than_it_was(self):
        if not shutil.which("systemd-analyze"):
            self.skipTest("systemd-analyze is not installed")
        folder = tempfile.mkdtemp(prefix="quorveld-test-")
        self.addCleanup(shutil.rmtree, folder)
        for name, most in self.MOST.items():
            unit = pathlib.Path(folder, name)
            unit.write_text((PACKAGING / f"{name}.in").read_text().replace("@sbindir@", "/usr/sbin"))
            found = subprocess.run(["systemd-analyze", "security", "--offline=true", "--no-pager", unit], capture_output=True, text=True)
            level = re.search(r"exposure level for .*: ([0-9.]+)", found.stdout)
            self.assertIsNotNone(level, found.stderr)
            self.assertLessEqual(float(level.group(1)), most, found.stdout)
            self.assertNotIn("ignoring", found.stderr)


class Walled(ScratchTest):
    def wall(self, daemon):
        """Puts the unit's walls around a daemon that is to be started."""
        wrapper = [sys.executable, "-B", str(pathlib.Path(__file__).with_name("sandbox.py")), str(PACKAGING / "quorveld.service.in")]
        tried = subprocess.run([*wrapper, "/bin/true"], capture_output=True, text=True) if os.getuid() == 0 else None
        if not tried or tried.returncode != 0:
            self.skipTest(f"the walls can't be put up here: {tried.stderr.splitlines()[-1] if tried else 'needs root'}")
        # The build may lie in a home, which is hidden.
        daemon.copy_programs()
        daemon.root.chmod(0o755)
        daemon.prefix = wrapper
        return daemon


class WalledFromPeers(Walled):
    """What peers do to the daemon, they do to it behind its walls."""

    def daemon(self, start=True, **options):
        daemon = self.wall(super().daemon(start=False, **options))
        return daemon.start() if start else daemon


class HeldUp(WalledFromPeers, hostile_peers_test.HeldUp):
    pass


class Frozen(WalledFromPeers, hostile_peers_test.Frozen):
    pass


class Users(WalledFromPeers, hostile_peers_test.Users):
    pass


class Sandbox(Walled):
    def sandboxed(self, **preferences):
        return self.wall(self.daemon(start=False, QuorvelHangTimeoutDuration=1000.0, **preferences)).start()

    def nobody(self, act):
        """Another user's process in which `act` runs until the test ends; its pid."""
        pid = os.fork()
        if pid == 0:
            try:
                os.setresgid(NOBODY, NOBODY, NOBODY)
                os.setresuid(NOBODY, NOBODY, NOBODY)
                act()
            finally:
                os._exit(1)
        self.addCleanup(os.waitpid, pid, 0)
        self.addCleanup(os.kill, pid, 9)
        return pid

    def test_another_users_hang_gets_its_stack_and_who_it_waits_for(self):
        daemon = self.sandboxed()
        shared = daemon.root / "shared"
        shared.mkdir()
        shared.chmod(0o777)
        path = str(shared / "answerer")

        def answer():
            listener = socket.socket(socket.AF_UNIX)
            listener.bind(path)
            listener.listen()
            listener.accept()[0].recv(1)

        def ask():
            region = Region()
            peer = Peer(daemon.socket_path)
            peer.send(command=1, shmem=Fd(region.fd), bundle_id="com.example.asker", name="asker")
            until(region.sealed, "the region's adoption")
            other = socket.socket(socket.AF_UNIX)
            other.connect(path)
            region.begin(0, "MainThread", seconds_ago=2)
            other.recv(1)

        answerer = self.nobody(answer)
        until(lambda: os.path.exists(path), "the answerer's socket")
        asker = self.nobody(ask)
        report = json.loads((daemon.spool / daemon.filed()[0]).read_text())
        metadata = report["metadata"]
        self.assertEqual(metadata["PID"], asker)
        self.assertGreaterEqual(metadata["capture"]["stacks"], 1, metadata.get("leftOut"))
        verdict = metadata["verdict"]
        self.assertEqual((verdict["cause"], verdict.get("chain", [{}])[-1].get("pid")), ("deadlock", answerer),
                         (verdict, metadata.get("leftOut")))
        self.assertNotIn("kernel stack", json.dumps(metadata["leftOut"]))

    def test_launches_are_measured_by_bpf_as_outside(self):
        daemon = self.sandboxed()
        daemon.write_preferences(domain="com.corvix.quorvel", QuorvelEnableAppActivationLogging=True)
        daemon.post("com.corvix.quorvel.pref_changed")
        daemon.wait_for("Process table: read through")
        if not self.outside_reads_through_bpf():
            self.skipTest("no BPF on this machine")
        self.assertNotIn("about 40 times slower", daemon.log())
        self.assertNotIn("hidepid", daemon.log())

    def outside_reads_through_bpf(self):
        daemon = self.daemon(start=False)
        daemon.write_preferences(domain="com.corvix.quorvel", QuorvelEnableAppActivationLogging=True)
        daemon.start()
        daemon.wait_for("Process table: read through")
        return "about 40 times slower" not in daemon.log()


if __name__ == "__main__":
    unittest.main()
