"""Four kinds of hangs of a real application, recorded by the real flight recorder: each report says which it was."""
import contextlib
import json
import os
import pathlib
import subprocess
import unittest

from recorder import RecorderTest
from waiting import schedule

CHECK_IMPORT = pathlib.Path(__file__).parents[2] / "scripts/check-import"


def children(pid):
    """The processes whose parent this is."""
    found = []
    for stat in pathlib.Path("/proc").glob("[0-9]*/stat"):
        try:
            if int(stat.read_text(errors="replace").rpartition(")")[2].split()[1]) == pid:
                found.append(int(stat.parent.name))
        except OSError:
            pass  # gone meanwhile
    return found


def kept_back(report):
    """Milliseconds for which nobody knows what the hung thread did since it left its CPU to a thread whose own leaving the kernel
    didn't record: whom that CPU ran meanwhile is known just as little. Some kernels record nothing in the context of some threads."""
    pid = report["metadata"]["PID"]
    spans = [event for event in report["traceEvents"] if event["ph"] == "X"]
    unknown = []
    for span in spans:
        if span["cat"] == "state" and span["tid"] == 4194306 and span["name"] == "unknown":
            if unknown and span["ts"] - unknown[-1][1] < 1:
                unknown[-1][1] = span["ts"] + span["dur"]
            else:
                unknown.append([span["ts"], span["ts"] + span["dur"]])
    runs = [span for span in spans if span["cat"] == "cpu"]
    total = 0
    for begin, end in unknown:
        left = {run["tid"] for run in runs if run["args"]["tid"] == pid and abs(run["ts"] + run["dur"] - begin) < 1}
        seen = sum(max(0, min(run["ts"] + run["dur"], end) - max(run["ts"], begin)) for run in runs if run["tid"] in left)
        if left and seen < 0.1 * (end - begin):
            total += end - begin
    return total / 1000


class Verdicts(RecorderTest):
    def setUp(self):
        self.scratch = self.daemon(QuorvelHangTimeoutDuration=1000.0)
        self.start_recorder(self.scratch)
        # As after days: what it read before and dropped since is a hole, longer than any report may be.
        for cpu in range(os.cpu_count()):
            with open(self.scratch.root / f"run/kelvane/cpu{cpu}", "ab") as kept:
                kept.truncate(1 << 30)

    def report_of(self, how):
        """The report of a hang that was still on when it was made."""
        sample = self.scratch.sample("--hang", "600", "--how", how)
        self.addCleanup(sample.communicate)
        self.addCleanup(sample.kill)
        if how == "spin":
            os.setpriority(os.PRIO_PROCESS, sample.pid, -15)  # or else a busy machine starves it
        if how in ("spin", "starve"):
            with contextlib.suppress(OSError):  # where sessions share the CPUs, most of one for this: it, or its hogs
                pathlib.Path(f"/proc/{sample.pid}/autogroup").write_text("-15")
        self.scratch.wait_for("Moving kelvane to spool")
        # What the kernel counted of the thread, which has hung for nearly all of its life.
        self.ran, self.waited = schedule(sample.pid)
        self.hogs = [schedule(pid)[0] for pid in children(sample.pid)]
        (name,) = self.scratch.filed()
        report = json.loads((self.scratch.spool / name).read_text())
        verdict = report["metadata"]["verdict"]
        print(f"{how}: {verdict['sentence']} The kernel counted {self.ran:.1f} s on the CPU, {self.waited:.1f} s ready for it.")
        evidence = verdict["evidence"]
        if evidence["coveredMs"] < 0.9 * evidence["windowMs"]:
            self.skip_if_overrun(report["metadata"])
            self.fail(f"{evidence} {report['metadata']['leftOut']}")
        self.assertEqual(evidence["source"], "recorder", report["metadata"]["leftOut"])
        self.assertAlmostEqual(sum(verdict["spent"].values()), evidence["windowMs"], delta=1)
        return report, verdict

    def test_a_busy_loop(self):
        report, verdict = self.report_of("spin")
        spent = verdict["spent"]
        awake = spent["runningMs"] + spent["runnableMs"]
        self.assertGreater(awake + kept_back(report), 0.9 * verdict["evidence"]["windowMs"], verdict)
        if awake < 0.5 * verdict["evidence"]["windowMs"]:
            self.skipTest(f"of most of the hang the kernel kept back whom the CPU ran: {verdict['sentence']}")
        self.assertAlmostEqual(spent["runningMs"] / awake, self.ran / (self.ran + self.waited), delta=0.1)
        if spent["runningMs"] < spent["runnableMs"]:
            self.assertEqual(verdict["cause"], "starved", verdict)
            self.skipTest(f"others had the CPU for {self.waited:.1f} s, and the verdict says so: {verdict['sentence']}")
        self.assertEqual(verdict["cause"], "own-cpu", verdict)
        self.assertIn("quorvel-sample", verdict["sentence"])
        # Besides, what a viewer draws: the CPUs, with this thread on one of them, and the thread's states.
        pid = report["metadata"]["PID"]
        drawn = [event for event in report["traceEvents"] if event["ph"] == "X"]
        self.assertTrue(any(event["cat"] == "cpu" and event["args"]["tid"] == pid for event in drawn))
        self.assertTrue(any(event["cat"] == "state" and event["tid"] == 4194306 for event in drawn))

    def test_a_lock_that_another_thread_holds(self):
        report, verdict = self.report_of("lock")
        self.assertEqual(verdict["cause"], "lock", verdict)
        self.assertIn(verdict["chain"][1]["tid"], [thread["tid"] for thread in report["threads"][1:]])
        self.assertEqual(verdict["waits"][0]["state"], "sleeping")
        (name,) = self.scratch.filed()
        imported = subprocess.run([CHECK_IMPORT, self.scratch.spool / name], capture_output=True, text=True)
        if imported.returncode == 77:
            self.skipTest(f"the verdict is right; speedscope: {imported.stdout.strip()}")
        self.assertEqual(imported.returncode, 0, imported.stderr)
        self.assertIn("quorvel-sample states (tid 4194306)", imported.stdout)
        self.assertIn("CPU 0 (tid 0)", imported.stdout)

    def test_the_disk(self):
        _, verdict = self.report_of("disk")
        if verdict["disk"]["requests"] == 0:
            self.skipTest("files here are on no block device")
        if 1000 * self.waited > 0.3 * verdict["evidence"]["windowMs"]:
            self.skipTest(f"with its data there, it waited for a CPU that others had, {self.waited:.1f} s in all")
        self.assertEqual(verdict["cause"], "disk", verdict)
        self.assertGreater(verdict["disk"]["readBytes"], 1 << 20)

    def test_starved_by_others(self):
        _, verdict = self.report_of("starve")
        self.assertEqual(verdict["cause"], "starved", verdict)
        if sum(self.hogs) < 0.6 * self.waited:
            self.skipTest(f"it waited for {self.waited:.1f} s, of which its hogs had the CPU for {sum(self.hogs):.1f} s only")
        self.assertIn("'hog'", verdict["sentence"])
        self.assertIn("hog", [thread.get("process") for thread in verdict["busiest"]])


if __name__ == "__main__":
    unittest.main()
