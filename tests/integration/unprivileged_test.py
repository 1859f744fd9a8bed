"""Lesser machines: no root, no BPF, no tracefs, a /proc that hides. What is readable is used; what is missing is said once."""
import os
import subprocess
import unittest

from launcher import LOGGING, Busy, activation
from scratch import ScratchTest

NOBODY = 65534
AS_NOBODY = ["setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups", "--no-new-privs"]

NO_BPF = "Process table: read through procfs, about 40 times slower than BPF ("
NO_IO = "Process table: /proc/PID/io of others can't be read without CAP_SYS_PTRACE, their disk I/O counts as 0"
NO_TRACEFS = "Signposts are not in the kernel's trace, only in the log: trace_marker can't be opened: "
HIDDEN = "Process table: /proc hides the processes of others (hidepid), snapshots are without them"


class Unprivileged(ScratchTest):
    def unprivileged_daemon(self, prefix=()):
        daemon = self.daemon(start=False)
        if os.getuid() == 0:
            daemon.copy_programs()
            for folder, _, files in os.walk(daemon.root):
                for path in [folder, *(os.path.join(folder, name) for name in files)]:
                    os.chown(path, NOBODY, NOBODY)
            prefix = [*prefix, *AS_NOBODY]
        daemon.prefix = list(prefix)
        return daemon.start()

    def looks(self, daemon):
        """Two activations, with the preferences read anew in between; the processes that they tell of."""
        self.assertNotIn("Process table:", daemon.log())
        daemon.write_preferences(**LOGGING)
        daemon.post("com.corvix.quorvel.pref_changed")
        daemon.wait_for("Process table: read through")  # ahead of any launch
        peer = self.peer(daemon)
        first = activation(daemon, peer, os.getpid(), "com.example.viewer")
        daemon.post("com.corvix.quorvel.pref_changed")
        daemon.wait_for("App Activation Logging Enabled", count=2)
        busy = Busy(b"quorvel-busy")
        self.addCleanup(busy.close)
        second = activation(daemon, peer, os.getpid(), "com.example.mail")
        self.assertEqual(second["activationData"]["BundleID"], "com.example.mail")
        self.assertGreater(second["vmData"]["2"]["FreeQueue"], 0)
        names = {process["ProcessName"]
                 for event in (first, second) for process in event["processData"].values()}
        return names, busy

    def test_an_activation_is_measured_and_what_is_missing_is_said_once(self):
        daemon = self.unprivileged_daemon()
        names, _ = self.looks(daemon)
        self.assertIn("quorveld", names)
        self.assertIn("quorvel-busy", names)
        for line in (NO_BPF, NO_IO, NO_TRACEFS):
            self.assertEqual(daemon.log().count(line), 1, line)
        self.assertNotIn(HIDDEN, daemon.log())

    def test_processes_that_proc_hides_are_left_out_and_that_is_said_once(self):
        mount = ["unshare", "--mount", "sh", "-c", 'mount -t proc -o hidepid=2 proc /proc && exec "$@"', "sh"]
        if os.getuid() != 0 or subprocess.run([*mount, "true"], capture_output=True).returncode != 0:
            self.skipTest("/proc can't be mounted with hidepid here (needs root)")
        daemon = self.unprivileged_daemon(mount)
        names, _ = self.looks(daemon)
        self.assertIn("quorveld", names)
        self.assertNotIn("quorvel-busy", names)  # root's
        for line in (NO_BPF, NO_TRACEFS, HIDDEN):
            self.assertEqual(daemon.log().count(line), 1, line)


if __name__ == "__main__":
    unittest.main()
