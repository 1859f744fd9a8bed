"""A launch that waits for a lock of somebody else's: its report says whose, by the flight recorder, and claims no more without it."""
import json
import pathlib
import subprocess
import sys
import time
import unittest

from recorder import RecorderTest
from scratch import CTL
from waiting import PATIENCE, until

HOLDER = """
import fcntl, pathlib, sys, time
file = open(sys.argv[1], "w")
fcntl.flock(file, fcntl.LOCK_EX)
print("held", flush=True)
while not pathlib.Path(sys.argv[2]).exists():
    time.sleep(0.05)
fcntl.flock(file, fcntl.LOCK_UN)
sys.stdin.read()
"""


class SlowLaunches(RecorderTest):
    def setUp(self):
        self.scratch = self.daemon(start=False)
        self.scratch.write_preferences("com.corvix.quorvel", QuorvelEnableAppActivationLogging=True)
        self.scratch.write_preferences(QuorvelEnabled=True, QuorvelEnableKelvane=True, QuorvelSlowActKelvanesEnabled=True,
                                       QuorvelSlowActLaunchKelvaneThreshold=1000)
        self.scratch.start()
        self.lock = self.scratch.root / "lock"

    def waits(self, pid):
        """Whether a child of the process waits for a lock on a file."""
        waiting = [line.split() for line in pathlib.Path("/proc/locks").read_text().splitlines() if "->" in line]
        for words in waiting:
            try:
                stat = pathlib.Path(f"/proc/{words[5]}/stat").read_text(errors="replace")
            except OSError:
                continue  # gone meanwhile
            if int(stat.rpartition(")")[2].split()[1]) == pid:
                return True
        return False

    def report_of_a_launch_behind_the_lock(self, go):
        launcher = subprocess.Popen([CTL, "launch", "com.example.viewer", "--", "flock", str(self.lock), "true"],
                                    env=self.scratch.environment())
        self.addCleanup(launcher.wait, PATIENCE)
        until(lambda: self.waits(launcher.pid) or launcher.poll() is not None, "a launch that waits for the lock")
        self.assertIsNone(launcher.poll())
        time.sleep(2)
        go.touch()
        self.assertEqual(launcher.wait(PATIENCE), 0)
        (name,) = self.scratch.filed()
        metadata = json.loads((self.scratch.spool / name).read_text())["metadata"]
        shown = subprocess.run([CTL, "reports", "show", name], env=self.scratch.environment(), check=True, text=True,
                               capture_output=True).stdout
        self.assertIn("Its phases\n", shown)
        return metadata

    def metadata(self):
        go = self.scratch.root / "go"
        holder = subprocess.Popen([sys.executable, "-c", HOLDER, str(self.lock), str(go)], stdin=subprocess.PIPE,
                                  stdout=subprocess.PIPE, text=True)
        self.addCleanup(holder.communicate)
        holder.stdout.readline()
        return self.report_of_a_launch_behind_the_lock(go), holder.pid

    def test_the_one_who_kept_it_is_named(self):
        self.start_recorder(self.scratch)
        metadata, holder = self.metadata()
        verdict, launch = metadata["verdict"], metadata["launch"]
        print(verdict["sentence"])
        self.skip_if_overrun(metadata)
        self.assertEqual(metadata["PID"], 0)
        told = sum(share["durationMs"] for share in launch["path"])
        marks = [phase["to"] for phase in launch["phases"]]
        if told < 0.8 * verdict["evidence"]["windowMs"] or "fork" not in marks:
            self.skipTest(f"the kernel recorded only {told:.0f} ms of what the launch waited for, and {marks}")
        self.assertNotEqual(verdict["cause"], "own-cpu")
        self.assertEqual(verdict["chain"][-1]["pid"], holder, verdict)
        self.assertEqual(marks, ["fork", "exec", "end"])
        self.assertEqual(launch["processes"][0]["pid"], launch["pid"])
        self.assertEqual(launch["phases"][-1]["mostly"]["pid"], holder)

    def test_without_a_recording_it_is_not_its_own_computing(self):
        metadata, _ = self.metadata()
        verdict = metadata["verdict"]
        self.assertEqual(verdict["cause"], "unknown")
        self.assertIn("Nothing of the launch is recorded: ", verdict["sentence"])
        self.assertFalse(metadata["launch"]["recorded"])


if __name__ == "__main__":
    unittest.main()
