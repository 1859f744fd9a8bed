"""A launch that waits for a lock of somebody else's: its report says whose, by the flight recorder, and where it was, by samples."""
import json
import os
import pathlib
import signal
import subprocess
import sys
import time
import unittest

from recorder import RecorderTest
from scratch import CTL
from waiting import PATIENCE, until

LAUNCHED = os.environ.get("QV_TEST_LAUNCHED", "")

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

    def holder(self):
        """Who holds the lock, and the file whose making has him let go."""
        go = self.scratch.root / "go"
        holder = subprocess.Popen([sys.executable, "-c", HOLDER, str(self.lock), str(go)], stdin=subprocess.PIPE,
                                  stdout=subprocess.PIPE, text=True)
        self.addCleanup(holder.communicate)
        holder.stdout.readline()
        return holder.pid, go

    def report_of(self, *command):
        """The metadata of the report of a launch that waits for the lock for two seconds, what is shown of it, and the holder."""
        holder, go = self.holder()
        launcher = subprocess.Popen([CTL, "launch", "com.example.viewer", "--", *command], env=self.scratch.environment(),
                                    start_new_session=True)
        self.addCleanup(launcher.wait, PATIENCE)
        self.addCleanup(lambda: launcher.poll() is None and os.killpg(launcher.pid, signal.SIGKILL))
        until(lambda: self.waits(launcher.pid) or launcher.poll() is not None, "a launch that waits for the lock")
        self.assertIsNone(launcher.poll())
        time.sleep(2)
        go.touch()
        (name,) = self.scratch.filed()
        metadata = json.loads((self.scratch.spool / name).read_text())["metadata"]
        shown = subprocess.run([CTL, "reports", "show", name], env=self.scratch.environment(), check=True, text=True,
                               capture_output=True).stdout
        self.assertIn("Its phases\n", shown)
        print(metadata["verdict"]["sentence"])
        return metadata, shown, holder

    def report_of_flock(self):
        return self.report_of("flock", str(self.lock), "true")

    def skip_unless_sampled(self):
        refusals = self.scratch.lines("Threads of pending operations are not sampled: ")
        if refusals:
            self.skipTest(refusals[0])

    def test_the_one_who_kept_it_is_named(self):
        self.start_recorder(self.scratch)
        metadata, _, holder = self.report_of_flock()
        verdict, launch = metadata["verdict"], metadata["launch"]
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

    def test_without_a_recording_samples_tell_what_it_waited_in(self):
        """It has waited since before it was sampled, and has ended when its report is made."""
        metadata, _, _ = self.report_of_flock()
        verdict, launch = metadata["verdict"], metadata["launch"]
        self.assertFalse(launch["recorded"])
        self.assertNotEqual(verdict["cause"], "own-cpu")
        self.skip_unless_sampled()
        self.assertEqual(verdict["evidence"]["source"], "samples", verdict)
        self.assertEqual(verdict["cause"], "sleeping", verdict)
        self.assertRegex(verdict["sentence"], r"flock \(thread \d+\) slept for .* \(\w*lock\w*\)")
        self.assertEqual(launch["path"][0]["doing"], "sleeping")

    def where_it_was(self, metadata, shown):
        """Its phases are there by name, whatever share of a busy machine it had."""
        self.skip_unless_sampled()
        self.assertRegex(shown, r"on the CPU, in parse_index\(long\) +launched \(")
        self.assertRegex(shown, r"asleep, in open_store\(char const\*\) +launched \(" if not metadata["launch"]["recorded"]
                         else r"WAITED +IN\n")
        self.assertRegex(shown, r"(?m)^\d+ %.* parse_index\(long\)  from main")
        self.assertRegex(shown, r"(?m)^\d+ %.* flock \(\w*lock\w*\)  from open_store\(char const\*\), main")
        spent = {key: sum(place[key] for place in metadata["sampled"]["places"]) for key in ("onCpuMs", "waitedMs")}
        self.assertGreater(spent["waitedMs"], 1500)  # two seconds, and the holder may look again a little earlier
        self.assertGreater(spent["onCpuMs"], 300)  # 1500, some of which were before it was sampled
        self.assertLess(metadata["sampled"]["notSeen"]["waitedMs"], 0.1 * metadata["sampled"]["durationMs"])

    def test_where_it_computed_and_waited_is_told_by_name(self):
        metadata, shown, _ = self.report_of(LAUNCHED, "1500", str(self.lock))
        self.where_it_was(metadata, shown)
        self.assertIn("Going by samples of ", metadata["verdict"]["sentence"])
        self.assertNotIn("user stacks of samples", [one["what"] for one in metadata["leftOut"]])

    def test_recorded_states_have_the_functions_of_the_samples(self):
        self.start_recorder(self.scratch)
        metadata, shown, _ = self.report_of(LAUNCHED, "1500", str(self.lock))
        self.skip_if_overrun(metadata)
        self.assertTrue(metadata["launch"]["recorded"])
        self.where_it_was(metadata, shown)

    def test_of_a_process_that_has_ended_what_it_computed_in_is_said_to_be_unknown(self):
        metadata, _, _ = self.report_of(LAUNCHED, "1500", str(self.lock), "last")
        self.skip_unless_sampled()
        self.assertIn("user stacks of samples", [one["what"] for one in metadata["leftOut"]])
        self.assertGreater(metadata["sampled"]["notSeen"]["onCpuMs"], 300)
        self.assertIn("Going by samples of ", metadata["verdict"]["sentence"])


if __name__ == "__main__":
    unittest.main()
