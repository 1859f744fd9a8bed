"""The flight recorder from a shell, and a launch whose marks it holds."""
import json
import subprocess
import time
import unittest

from recorder import RECORDER, RecorderTest
from scratch import CTL
from waiting import PATIENCE, until


class Recorder(RecorderTest):
    def setUp(self):
        if not RECORDER:
            self.skipTest("the flight recorder's control was not built")
        self.daemon_ = self.daemon(start=False)
        self.daemon_.write_preferences("com.corvix.quorvel", QuorvelEnableAppActivationLogging=True)
        environment = {**self.daemon_.environment(), "QUORVELD_INTERNAL_BUILD": "1"}  # others have no signposts
        self.daemon_.environment = lambda: environment

    def test_a_launch_is_marked_in_a_dump(self):
        idle = self.recorder(self.daemon_, "status", "--json")
        self.assertEqual((idle.returncode, json.loads(idle.stdout)["running"]), (3, False))
        self.assertEqual(self.recorder(self.daemon_, "stop").returncode, 0)
        before = time.monotonic()
        self.start_recorder(self.daemon_)
        self.assertEqual(self.recorder(self.daemon_, "start").returncode, 0)

        daemon = self.daemon_.start()
        path = daemon.root / "dump"

        def marked():
            """Launches something, and tells whether a dump of the last minutes shows both ends of a launch."""
            subprocess.run([CTL, "launch", "com.example.viewer", "--", "true"], env=daemon.environment(), check=True,
                           capture_output=True, timeout=PATIENCE)
            result = self.recorder(daemon, "dump", "--from", "-600", str(path))
            self.assertEqual(result.returncode, 0, result.stderr)
            report = json.loads(path.read_text())
            return sum(event.get("cat") == "signpost" for event in report["traceEvents"]) >= 2
        try:
            until(marked, "the marks of a launch's begin and end")
        except AssertionError:
            self.skip_if_overrun(json.loads(path.read_text())["metadata"])
            raise

        self.dumps_in_namespaces(path)

        nowhere = self.recorder(self.daemon_, "dump", str(daemon.root / "no/such/folder/dump"))
        self.assertEqual(nowhere.returncode, 1)
        self.assertIn("No such file or directory", nowhere.stderr)

        status = json.loads(self.recorder(self.daemon_, "status", "--json").stdout)
        self.assertTrue(status["running"])
        self.assertGreater(status["coveredSeconds"], 0)
        self.assertGreaterEqual(status["bufferKbPerCpu"], 16384)
        if status["coveredSeconds"] >= time.monotonic() - before:  # back to the start
            self.assertEqual(status["eventsLost"], 0)
        self.assertEqual(self.recorder(self.daemon_, "stop").returncode, 0)
        self.assertEqual(self.recorder(self.daemon_, "status").returncode, 3)

    def dumps_in_namespaces(self, path):
        """Times are told by the clock of a time namespace; whose threads they were can't be told in a PID namespace."""
        def dump(*unshare):
            namespaces = subprocess.run([*unshare, "true"], capture_output=True)
            if namespaces.returncode != 0:
                return print("can't be tried here:", *unshare, namespaces.stderr.decode().strip())
            result = subprocess.run([*unshare, RECORDER, "dump", "--from", "-600", str(path)],
                                    env=self.daemon_.environment(), capture_output=True, text=True, timeout=PATIENCE)
            self.assertEqual(result.returncode, 0, result.stderr)
            return json.loads(path.read_text())

        def marked(report):
            """The newest mark: what is newest is read first."""
            marks = [event["ts"] for event in report["traceEvents"] if event.get("cat") == "signpost"]
            if not marks:
                self.skip_if_overrun(report["metadata"])
            return max(marks)
        here = dump("env")
        shifted = dump("unshare", "--time", "--fork", "--monotonic", "1000")
        if shifted:  # from the kernel's clock, as this process may itself be
            own = next(line.split() for line in open("/proc/self/timens_offsets") if line.startswith("monotonic"))
            self.assertAlmostEqual(marked(shifted) - marked(here), (1000 - int(own[1])) * 1e6 - int(own[2]) / 1e3, delta=1)
        elsewhere = dump("unshare", "--pid", "--fork", "--mount-proc")
        if elsewhere:
            self.assertIn("it records the thread ids of the initial PID namespace, this process is in another",
                          [omission["why"] for omission in elsewhere["metadata"]["leftOut"]])
            self.assertNotIn("cpu", [event.get("cat") for event in elsewhere["traceEvents"]])

    def test_wrong_usage_and_failures_say_so(self):
        for wrong in ([], ["record"], ["start", "--buffer-kb", "1"], ["dump"], ["dump", "--from", "soon", "x"]):
            self.assertEqual(self.recorder(self.daemon_, *wrong).returncode, 2, wrong)
        early = self.recorder(self.daemon_, "dump", "--from", "-1", "--to", "-2", str(self.daemon_.root / "dump"))
        self.assertEqual(early.returncode, 1)
        self.assertIn("--from is later than --to", early.stderr)
        idle = self.recorder(self.daemon_, "dump", str(self.daemon_.root / "dump"))
        self.assertEqual(idle.returncode, 1)
        self.assertIn("not running", idle.stderr)
        self.assertFalse((self.daemon_.root / "dump").exists())

    def test_a_kernel_that_is_locked_down_is_given_as_the_reason(self):
        """As such a kernel looks: tracefs is there, and has no files."""
        locked = ("mount -t tmpfs none /sys/kernel/tracing && mount -t tmpfs none /sys/kernel/security && "
                  "echo 'none integrity [confidentiality]' >/sys/kernel/security/lockdown")
        if subprocess.run(["unshare", "--mount", "sh", "-c", locked], capture_output=True).returncode != 0:
            self.skipTest("no mounts of its own are permitted here")
        started = subprocess.run(["unshare", "--mount", "sh", "-c", f'{locked} && exec "$0" start', RECORDER],
                                 env=self.daemon_.environment(), capture_output=True, text=True, timeout=PATIENCE)
        self.assertEqual(started.returncode, 1)
        self.assertIn("the kernel is locked down for confidentiality", started.stderr)


if __name__ == "__main__":
    unittest.main()
