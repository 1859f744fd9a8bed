"""A real application that really blocks, and what the daemon makes of it."""
import json
import os
import pathlib
import re
import signal
import subprocess
import sys
import time
import unittest

from scratch import ScratchTest
from waiting import PATIENCE, until


class SampleApplication(ScratchTest):
    def check_twice(self, daemon):
        """Returns when the daemon has looked for hangs twice."""
        metronome = self.metronome(daemon)
        for _ in range(2):
            metronome.check()
        daemon.wait_for("(Metronome)", count=2)

    def test_a_blocked_main_loop_becomes_a_report_in_the_spool(self):
        daemon = self.daemon(QuorvelHangTimeoutDuration=1000.0)
        sample = daemon.sample("--hang", "9")
        self.addCleanup(sample.communicate)
        self.addCleanup(sample.kill)
        daemon.wait_for("quorvel-sample: Hang detected")
        daemon.wait_for("Moving kelvane to spool")
        (name,) = daemon.filed()
        self.assertRegex(name, r"^MainThread-quorvel-sample-\d{4}-\d\d-\d\d-\d{6}\.kelvane$")
        report = json.loads((daemon.spool / name).read_text())
        text = json.dumps(report["metadata"])
        self.assertIn("MainThread-quorvel-sample: timeout", text)
        self.assertIn(os.path.realpath(sample.args[0]), text)
        self.assertEqual(list(daemon.temporary.iterdir()), [])
        self.assertEqual(sample.wait(PATIENCE), 0)
        daemon.wait_for(f"Client disconnected: {sample.pid}")
        # The counters reach the file within a second.
        counters = daemon.root / "var/lib/quorveld/quorveld.prom"
        until(lambda: counters.exists() and re.search(
            r'quorveld_duration_seconds_count\{key="com\.corvix\.quorvel\.MainThread\.com\.corvix\.quorvel\.sample"'
            r',hang="MainThread",bundle="com\.corvix\.quorvel\.sample",process="quorvel-sample"\} 1\n',
            counters.read_text()), "the hang's duration in the counters")

    def test_an_application_in_python_needs_no_library(self):
        daemon = self.daemon(QuorvelHangTimeoutDuration=1000.0)
        source = pathlib.Path(__file__).parents[2] / "client/sample/watched.py"
        watched = subprocess.Popen([sys.executable, source, "8", "10000"], env=daemon.environment())
        self.addCleanup(watched.wait)
        self.addCleanup(watched.kill)
        daemon.wait_for(": Hang detected")
        (name,) = daemon.filed()
        self.assertRegex(name, r"^PythonTurn-python")
        # Tracking goes off and on again, and the daemon forgets whom it watched.
        self.assertEqual(daemon.log().count("| watched.py"), 1)
        for enabled in (False, True):
            daemon.write_preferences(QuorvelEnabled=enabled, QuorvelEnableMemoryLogging=True, QuorvelHangTimeoutDuration=1000.0)
            daemon.process.send_signal(signal.SIGHUP)
            daemon.wait_for(f"Hang Tracing {'Enabled' if enabled else 'Disabled'}", count=2 if enabled else 1)
        daemon.wait_for("| watched.py", count=2)
        self.assertIsNone(watched.poll())
        watched.kill()
        daemon.wait_for(f"Client disconnected: {watched.pid}")

    def test_an_application_that_does_not_block_leaves_nothing(self):
        daemon = self.daemon(QuorvelHangTimeoutDuration=1000.0)
        sample = daemon.sample()
        daemon.wait_for("Initialization complete now watching hangs for quorvel-sample")
        self.check_twice(daemon)
        sample.send_signal(signal.SIGINT)
        sample.communicate(timeout=PATIENCE)
        self.assertEqual(daemon.lines("quorvel-sample.*Hang detected"), [])
        self.assertEqual(daemon.reports(), [])

    def test_short_hangs_spend_the_process_credit(self):
        # Four reports, and a fifth when the first hang check, which always gives a credit back, comes in between.
        daemon = self.daemon(QuorvelLongHangDurationThreshold=60000.0)
        began = time.monotonic()
        sample = daemon.sample("--hang", "0.3", "--times", "7", "--report")
        self.addCleanup(sample.communicate)
        self.addCleanup(sample.kill)
        self.assertEqual(sample.wait(PATIENCE), 0)
        daemon.wait_for(f"Client disconnected: {sample.pid}")
        if (took := time.monotonic() - began) > 9:  # two more hang checks
            self.skipTest(f"the seven hangs took {took:.0f} s here, in which credits came back")
        refused = daemon.log().count("quorvel-sample is out of credits. Not saving a report!")
        self.assertGreaterEqual(refused, 2)
        self.assertIn("quorvel-sample Log credits: 1 -> 0", daemon.log())
        self.assertIn(len(daemon.reports()), (4, 5))
        counters = daemon.root / "var/lib/quorveld/quorveld.prom"
        until(lambda: f'QVLogsMissedDueToProcessLimit.quorvel-sample",process="quorvel-sample"}} {refused}\n' in counters.read_text(),
              "the refusals' count")

    def test_a_killed_application_is_watched_no_longer(self):
        daemon = self.daemon(QuorvelHangTimeoutDuration=1000.0)
        sample = daemon.sample("--hang", "60")
        daemon.wait_for("Initialization complete now watching hangs for quorvel-sample")
        sample.kill()
        sample.communicate()
        daemon.wait_for(f"Client disconnected: {sample.pid}")
        self.check_twice(daemon)
        self.assertEqual(daemon.lines("quorvel-sample.*Hang detected"), [])


if __name__ == "__main__":
    unittest.main()
