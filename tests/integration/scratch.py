"""A private quorveld in a scratch root, and what a test wants to know of it."""
import fcntl
import mmap
import os
import pathlib
import plistlib
import re
import shutil
import signal
import struct
import subprocess
import tempfile
import time
import unittest

from dbus_peer import Fd, Int64, Peer
from waiting import PATIENCE, until

DAEMON = os.environ.get("QV_TEST_DAEMON", "")
SAMPLE = os.environ.get("QV_TEST_SAMPLE", "")
CTL = os.environ.get("QV_TEST_CTL", "")
KELVANE = os.environ.get("QV_TEST_KELVANE", "")

TICKS_PER_SECOND = 24_000_000
CACHE = "var/root/Library/Caches/quorveld"


def ticks():
    return time.clock_gettime_ns(time.CLOCK_MONOTONIC) * 3 // 125


class Scratch:
    """A root folder with a daemon in it. `close` ends the daemon, and fails when that wasn't a clean end."""

    def __init__(self, kelvane=True, prefix=(), **preferences):
        self.root = pathlib.Path(tempfile.mkdtemp(prefix="quorveld-test-"))
        self.socket_path = str(self.root / "run/quorveld/com.corvix.quorveld")
        self.spool = self.root / CACHE / "spool"
        self.temporary = self.root / CACHE / "tmp"
        self.log_path = self.root / "log"
        self.prefix = list(prefix)
        self.executable = DAEMON
        self.process = None
        if kelvane:
            (self.root / "usr/lib").mkdir(parents=True)
            shutil.copy(KELVANE, self.root / "usr/lib/libkelvane.so")
            shutil.copytree(pathlib.Path(KELVANE).parent / "quorveld", self.root / "usr/lib/quorveld")
        self.write_preferences(QuorvelEnabled=True, QuorvelEnableKelvane=True, **preferences)

    def copy_programs(self):
        """The daemon's own, below the root: nobody else may be allowed to look where the build is."""
        (self.root / "sbin").mkdir()
        self.executable = shutil.copy(DAEMON, self.root / "sbin/quorveld")
        shutil.copytree(pathlib.Path(DAEMON).parent.parent / "libexec", self.root / "libexec")

    # --- what it finds -------------------------------------------------------------------------------------------------

    def preferences_path(self, domain="com.corvix.telvo"):
        return self.root / f"var/mobile/Library/Preferences/{domain}.plist"

    def write_preferences(self, domain="com.corvix.telvo", **values):
        path = self.preferences_path(domain)
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(plistlib.dumps(values))

    def post(self, name, state=0):
        folder = self.root / "run/quorveld/notify"
        (folder / ".new").write_text(str(state))
        os.rename(folder / ".new", folder / name)

    def environment(self):
        kept = {name: value for name, value in os.environ.items() if not name.startswith("QUORVEL")}
        return {**kept, "QUORVELD_ROOT": str(self.root), "QUORVELD_LOG": "debug"}

    # --- its life ------------------------------------------------------------------------------------------------------

    def start(self):
        with open(self.log_path, "ab") as log:
            self.process = subprocess.Popen([*self.prefix, self.executable], env=self.environment(), stdin=subprocess.DEVNULL,
                                            stdout=log, stderr=log)
        # The last thing that start-up does; by then it listens.
        until(lambda: "refreshPreferences: App Activation Logging " in self.log() or self.process.poll() is not None,
              "the daemon's start")
        assert self.process.poll() is None, f"ended at start with {self.process.returncode}:\n{self.log()}"
        return self

    def stop(self):
        self.process.send_signal(signal.SIGTERM)
        return self.process.wait(PATIENCE)

    def close(self):
        try:
            if self.process and self.process.poll() is None:
                status = self.stop()
                assert status == 0, f"ended with {status}:\n{self.log()[-4000:]}"
        finally:
            if self.process and self.process.poll() is None:
                self.process.kill()
                self.process.wait()
            shutil.rmtree(self.root, ignore_errors=True)

    # --- what it left --------------------------------------------------------------------------------------------------

    def log(self):
        return self.log_path.read_text(errors="replace")

    def lines(self, pattern):
        return [line for line in self.log().splitlines() if re.search(pattern, line)]

    def wait_for(self, text, count=1):
        """Waits for `count` log lines that hold `text` as it stands."""
        def met():
            assert self.process.poll() is None, f"the daemon ended with {self.process.returncode}:\n{self.log()[-4000:]}"
            return self.log().count(text) >= count
        try:
            until(met, f"{count} × log line {text!r}")
        except AssertionError as failure:
            raise AssertionError(f"{failure}\n{self.log()[-4000:]}") from None

    def reports(self):
        return sorted(path.name for path in self.spool.iterdir() if path.is_file())

    def filed(self, count=1):
        """The reports, once there are `count`: the daemon says that it moves one before it does."""
        until(lambda: len(self.reports()) >= count, f"{count} reports in the spool")
        return self.reports()

    def sample(self, *options):
        """The sample application, in a session of its own."""
        return subprocess.Popen([SAMPLE, *options], env=self.environment(), stdout=subprocess.PIPE, text=True,
                                start_new_session=True)

    def alive(self):
        """True when the daemon takes a new peer and handles its messages."""
        before = self.log().count("QVFenceTracking: Fence begin")
        peer = Peer(self.socket_path)

        def heard():
            peer.send(command=6, name=Int64(1), startTime=Int64(1))  # anew each time: the log drops lines of a flood
            return self.log().count("QVFenceTracking: Fence begin") > before

        until(heard, "a sign of life")
        peer.close()
        return True


F_ADD_SEALS, F_GET_SEALS = 1033, 1034
F_SEAL_SHRINK, F_SEAL_GROW = 2, 4


class Region:
    """A shared hang region, as a client lays it out."""

    LENGTH = 8 + 20 * 360

    def __init__(self, length=LENGTH, version=4, slot_count=20, sealable=True):
        flags = os.MFD_CLOEXEC | (os.MFD_ALLOW_SEALING if sealable else 0)
        self.fd = os.memfd_create("region", flags)
        os.ftruncate(self.fd, length)
        self.map = mmap.mmap(self.fd, length)
        struct.pack_into("<II", self.map, 0, version, slot_count)
        for slot in range(min(slot_count, (length - 8) // 360)):
            self.exempt(slot, True)

    def seal(self):
        fcntl.fcntl(self.fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW)
        return self

    def sealed(self):
        """True once somebody has sealed its size: the daemon does so before it maps a region."""
        wanted = F_SEAL_SHRINK | F_SEAL_GROW
        return fcntl.fcntl(self.fd, F_GET_SEALS) & wanted == wanted

    def exempt(self, slot, exempt):
        struct.pack_into("<i", self.map, 8 + 360 * slot + 16, int(exempt))

    def begin(self, slot, name, seconds_ago=0.0, wants_kelvane=True):
        at = 8 + 360 * slot
        raw = name.encode() if isinstance(name, str) else name
        self.map[at + 40:at + 104] = raw[:64].ljust(64, b"\0")
        struct.pack_into("<I", self.map, at + 20, int(wants_kelvane))
        struct.pack_into("<Q", self.map, at + 32, os.getpid())
        struct.pack_into("<Q", self.map, at, ticks() - int(seconds_ago * TICKS_PER_SECOND))
        self.exempt(slot, False)

    def start_time(self, slot):
        return struct.unpack_from("<Q", self.map, 8 + 360 * slot)[0]


class Metronome:
    """A slot that has hung for ever, and does so anew after each of the daemon's checks: shows when they come."""

    REPORTED = 2**64 - 1

    def __init__(self, daemon):
        self.region = Region()
        self.peer = Peer(daemon.socket_path)
        self.peer.send(command=1, shmem=Fd(self.region.fd), bundle_id="com.example.raw", name="metronome")
        until(self.region.sealed, "the region's adoption")

    def close(self):
        self.peer.close()

    def check(self):
        """Returns when a check that began after this call has come to the slot."""
        self.region.begin(0, "Metronome", seconds_ago=30, wants_kelvane=False)
        until(lambda: self.region.start_time(0) == self.REPORTED, "a check")


class ScratchTest(unittest.TestCase):
    """Gives each test daemons that are ended, cleanly, with it."""

    def daemon(self, start=True, **options):
        scratch = Scratch(**options)
        self.addCleanup(scratch.close)
        return scratch.start() if start else scratch

    def peer(self, daemon):
        peer = Peer(daemon.socket_path)
        self.addCleanup(peer.close)
        return peer

    def metronome(self, daemon):
        metronome = Metronome(daemon)
        self.addCleanup(metronome.close)
        return metronome
