"""The eight commands, from stock D-Bus tools and from a peer written for the test."""
import os
import struct
import subprocess
import unittest

from dbus_peer import Fd, Int64, Uint64
from launcher import NO_PROCESS
from scratch import Region, ScratchTest, TICKS_PER_SECOND, ticks
from waiting import PATIENCE


class StockTools(ScratchTest):
    def busctl(self, daemon, *arguments):
        count = str(len(arguments) // 3)
        subprocess.run(["busctl", f"--address=unix:path={daemon.socket_path}", "--expect-reply=no", "call",
                        "com.corvix.quorveld", "/com/corvix/quorveld", "com.corvix.quorveld", "Message", "a{sv}", count,
                        *arguments], check=True, timeout=PATIENCE)

    def gdbus(self, daemon, dictionary):
        subprocess.run(["gdbus", "emit", "--address", f"unix:path={daemon.socket_path}", "--object-path",
                        "/com/corvix/quorveld", "--signal", "com.corvix.quorveld.Message", dictionary],
                       check=True, timeout=PATIENCE)

    def test_busctl_drives_commands_2_to_8(self):
        daemon = self.daemon()
        self.busctl(daemon, "command", "x", "2")
        self.busctl(daemon, "command", "x", "3", "startTime", "x", "1", "endTime", "x", "2", "name", "s", "Busy",
                    "saveReport", "b", "true")
        daemon.wait_for("Got hang detected message for a pid we're not monitoring: ")
        self.busctl(daemon, "command", "x", "4", "pid", "x", str(NO_PROCESS), "bundle-id", "s", "com.example.viewer",
                    "startTime", "t", "7", "app-activation-state", "x", "1", "app-activation-type", "x", "1")
        daemon.wait_for(f"QVActivationStats: ActivationBegin Command: Pid:{NO_PROCESS} BundleID:com.example.viewer StartTime:7 "
                        "IPXStartTime:0 Foreground:1 ActivationType:1")
        daemon.wait_for(f"QVActivationStats: com.example.viewer[{NO_PROCESS}] activation begin (launch)")
        self.busctl(daemon, "command", "x", "5", "pid", "x", str(NO_PROCESS), "bundle-id", "s", "com.example.viewer",
                    "endTime", "t", "9", "app-activation-result", "x", "3")
        daemon.wait_for(f"QVActivationStats: ActivationEnd Command: Pid:{NO_PROCESS} BundleID:com.example.viewer EndTime:9 "
                        "Foreground:0 ActivationResult:3")
        self.busctl(daemon, "command", "x", "6", "name", "x", "5", "startTime", "x", "100")
        daemon.wait_for("QVFenceTracking: Fence begin")
        self.busctl(daemon, "command", "x", "7", "name", "x", "6", "endTime", "x", "200")
        daemon.wait_for("QVFenceTracking: Fence end, failed to find corresponding fence(6)")
        self.busctl(daemon, "command", "x", "8", "startTime", "x", "100", "endTime", "x", "200")
        daemon.wait_for("Got Fence Blown message but can't find processForHangs")

    def test_gdbus_drives_commands_2_to_8(self):
        daemon = self.daemon()
        self.gdbus(daemon, "{'command': <int64 2>}")
        self.gdbus(daemon, "{'command': <int64 3>, 'startTime': <int64 1>, 'endTime': <int64 2>, 'saveReport': <false>}")
        daemon.wait_for("Got hang detected message for a pid we're not monitoring: ")
        self.gdbus(daemon, f"{{'command': <int64 4>, 'pid': <int64 {NO_PROCESS}>, 'bundle-id': <'com.example.mail'>}}")
        daemon.wait_for(f"QVActivationStats: com.example.mail[{NO_PROCESS}] activation begin (resume)")
        self.gdbus(daemon, f"{{'command': <int64 5>, 'pid': <int64 {NO_PROCESS}>, 'bundle-id': <'com.example.mail'>}}")
        daemon.wait_for(f"QVActivationStats: com.example.mail[{NO_PROCESS}] activation end")
        self.gdbus(daemon, "{'command': <int64 6>, 'name': <int64 5>, 'startTime': <int64 1>}")
        daemon.wait_for("QVFenceTracking: Fence begin")
        self.gdbus(daemon, "{'command': <int64 7>, 'name': <int64 8>, 'endTime': <int64 1>}")
        daemon.wait_for("QVFenceTracking: Fence end, failed to find corresponding fence(8)")
        self.gdbus(daemon, "{'command': <int64 8>}")
        daemon.wait_for("QVFenceTracking: Fence blown")


class RawPeer(ScratchTest):
    def test_a_peer_registers_reports_a_hang_and_leaves(self):
        daemon = self.daemon()
        region = Region().seal()
        peer = self.peer(daemon)
        peer.send(command=1, shmem=Fd(region.fd), bundle_id="com.example.raw", name="raw peer")
        daemon.wait_for(f"({os.getpid()}) | raw peer")
        end = ticks()
        peer.send(command=3, name="Slow/../query", startTime=Int64(end - 3 * TICKS_PER_SECOND), endTime=Int64(end),
                  threadID=Int64(os.getpid()), saveReport=True)
        daemon.wait_for("Hang detected 3.00s (Slow/../query)")
        daemon.wait_for("Moving kelvane to spool")
        (report,) = daemon.filed()
        self.assertTrue(report.startswith("Slow_.._query-"), report)
        peer.close()
        daemon.wait_for(f"Client disconnected: {os.getpid()}")

    def test_a_hang_over_an_open_fence_becomes_a_fence_hang(self):
        daemon = self.daemon()
        region = Region().seal()
        peer = self.peer(daemon)
        peer.send(command=1, shmem=Fd(region.fd), bundle_id="com.example.raw", name="raw")
        end = ticks()
        start = end - 3 * TICKS_PER_SECOND
        peer.send(command=6, name=Int64(1), startTime=Int64(start))
        peer.send(command=3, name="Drawing", startTime=Int64(start), endTime=Int64(end), saveReport=True)
        daemon.wait_for("Hang detected 4.00s (Fence-hang)")  # half a second wider each way
        peer.send(command=8, startTime=Int64(start), endTime=Int64(end))
        daemon.wait_for("Fence-hang, but waiting for FenceHangCapture - not saving another report!")
        daemon.wait_for("Moving kelvane to spool")
        self.assertEqual(len(daemon.filed()), 1)

    def test_malformed_messages_are_named_and_dropped(self):
        daemon = self.daemon()
        peer = self.peer(daemon)
        for command in (0, 9, -1):
            peer.send(command=command)
        daemon.wait_for("Don't know how to handle ", count=3)
        peer.send(command=1)
        daemon.wait_for("Didn't get shmem from no longer watching ")
        peer.send(command=1, shmem="text")
        daemon.wait_for("Didn't get shmem from no longer watching ", count=2)
        peer.send(command=5, pid=Uint64(4), bundle_id=Int64(5))
        daemon.wait_for("ActivationEnd Command: Pid:0 BundleID:(null)")
        daemon.wait_for("Failed to get bundleID for app activation end command, ignoring this")
        self.assertTrue(daemon.alive())

    def test_a_region_that_could_be_shrunk_or_read_wrongly_is_refused(self):
        daemon = self.daemon()
        peer = self.peer(daemon)
        peer.send(command=1, shmem=Fd(Region(sealable=False).fd), name="unsealable")
        daemon.wait_for("Something wrong w/shmem")
        with open(daemon.root / "file", "w+b") as file:
            file.truncate(Region.LENGTH)
            peer.send(command=1, shmem=Fd(file.fileno()), name="file")
            daemon.wait_for("Something wrong w/shmem", count=2)
        read_only = os.open(f"/proc/self/fd/{Region().fd}", os.O_RDONLY)
        peer.send(command=1, shmem=Fd(read_only), name="read-only")
        daemon.wait_for("Something wrong w/shmem", count=3)
        peer.send(command=1, shmem=Fd(Region(length=7207).fd), name="short")
        daemon.wait_for("Shared memory region smaller than expected: 7207 < 7208")
        peer.send(command=1, shmem=Fd(Region(version=5).fd), name="new")
        daemon.wait_for("Client is not vending the current protocol version: 5")

        accepted = Region()
        peer.send(command=1, shmem=Fd(accepted.fd), bundle_id="com.example.raw", name="sealed by the daemon")
        daemon.wait_for("| sealed by the daemon")
        with self.assertRaises(PermissionError):
            os.ftruncate(accepted.fd, 0)

    def test_a_hostile_region_yields_one_hang_and_no_harm(self):
        daemon = self.daemon(QuorvelHangTimeoutDuration=1000.0)
        region = Region()
        region.begin(19, b"\xff" * 64, seconds_ago=30, wants_kelvane=False)  # no NUL, no UTF-8
        struct.pack_into("<I", region.map, 4, 0xFFFFFFFF)
        peer = self.peer(daemon)
        peer.send(command=1, shmem=Fd(region.fd), bundle_id="com.example.raw", name="hostile")
        daemon.wait_for("Hang detected 3")
        self.assertEqual(region.start_time(19), 0xFFFFFFFFFFFFFFFF)
        self.assertTrue(daemon.alive())


if __name__ == "__main__":
    unittest.main()
