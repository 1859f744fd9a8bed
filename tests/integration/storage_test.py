"""Disks that are full, folders that are gone, files that are broken."""
import os
import shutil
import subprocess
import time
import unittest

from dbus_peer import Fd, Int64
from scratch import CACHE, Region, ScratchTest, TICKS_PER_SECOND, ticks
from waiting import PATIENCE


class Storage(ScratchTest):
    def hang(self, daemon, name="Saving"):
        """Has the daemon record a long hang of this process, with a report wanted."""
        region = Region()
        peer = self.peer(daemon)
        peer.send(command=1, shmem=Fd(region.fd), bundle_id="com.example.raw", name=name)
        end = ticks()
        peer.send(command=3, name=name, startTime=Int64(end - 3 * TICKS_PER_SECOND), endTime=Int64(end),
                  threadID=Int64(os.getpid()), saveReport=True)
        daemon.wait_for(f"Hang detected 3.00s ({name})")
        return peer

    def test_without_the_trace_library_hangs_are_still_logged_and_counted(self):
        daemon = self.daemon(kelvane=False)
        self.hang(daemon)
        daemon.wait_for("libkelvane.so is not present.")
        daemon.wait_for("Tried to save kelvane, but kelvane support is not present on this device!")
        self.assertEqual(daemon.reports(), [])

    def test_a_file_that_is_no_library_is_as_good_as_none_and_the_reason_is_told(self):
        daemon = self.daemon(kelvane=False, start=False)
        (daemon.root / "usr/lib").mkdir(parents=True)
        (daemon.root / "usr/lib/libkelvane.so").write_bytes(b"no library at all")
        daemon.start()
        self.hang(daemon)
        daemon.wait_for("Trace library not loaded: ")
        daemon.wait_for("libkelvane.so: file too short")
        daemon.wait_for("Tried to save kelvane, but kelvane support is not present on this device!")

    def test_a_missing_spool_keeps_no_temporary_file(self):
        daemon = self.daemon()
        shutil.rmtree(daemon.spool)
        self.hang(daemon)
        daemon.wait_for("Unable to move kelvane to final path: ")
        self.assertEqual(list(daemon.temporary.iterdir()), [])
        self.assertTrue(daemon.alive())

    def test_a_missing_temporary_folder_costs_the_report_only(self):
        daemon = self.daemon()
        shutil.rmtree(daemon.temporary)
        self.hang(daemon)
        daemon.wait_for("Could not create file - won't take a kelvane: ")
        self.assertEqual(daemon.reports(), [])
        self.assertTrue(daemon.alive())

    def test_a_link_in_the_temporary_folder_is_not_followed(self):
        daemon = self.daemon()
        precious = daemon.root / "precious"
        precious.write_text("keep me")
        shutil.rmtree(daemon.temporary)
        os.symlink(daemon.root, daemon.temporary)  # the folder itself may be one; names in it may not
        for second in range(120):
            # Whatever second the report is named after, its name is taken.
            name = time.strftime("%Y-%m-%d-%H%M%S", time.localtime(time.time() + second))
            executable = os.path.basename(os.path.realpath("/proc/self/exe"))
            os.symlink(precious, daemon.temporary / f"Saving-{executable}-{name}.kelvane")
        self.hang(daemon)
        daemon.wait_for("Could not create file - won't take a kelvane: ")
        self.assertEqual(precious.read_text(), "keep me")

    def test_a_full_disk_leaves_no_half_report(self):
        # A user namespace would let anybody mount, but not the daemon in it look at this process.
        prefix = ["unshare", "--mount"]
        if subprocess.run([*prefix, "mount", "-t", "tmpfs", "none", "/mnt"], capture_output=True).returncode != 0:
            self.skipTest("no small file system can be mounted here (needs root)")
        daemon = self.daemon(start=False)
        cache = daemon.root / CACHE
        cache.mkdir(parents=True)
        # 8 pages: folders fit, a report doesn't.
        daemon.prefix = [*prefix, "sh", "-c", 'mount -t tmpfs -o size=32k none "$0" && exec "$@"', str(cache)]
        daemon.start()
        inside = f"/proc/{daemon.process.pid}/root{cache}"
        with open(inside + "/tmp/filler", "wb", buffering=0) as filler:
            try:
                while True:
                    filler.write(bytes(4096))
            except OSError:
                pass
            self.hang(daemon)
            daemon.wait_for(".kelvane No space left on device")
            filler.truncate(filler.tell() - 4096)  # more than a twentieth, less than a report
        self.hang(daemon)
        daemon.wait_for("Unable to save kelvane data to file.")
        self.assertEqual(os.listdir(inside + "/tmp"), ["filler"])
        self.assertEqual(os.listdir(inside + "/spool"), [])
        self.assertTrue(daemon.alive())

if __name__ == "__main__":
    unittest.main()
