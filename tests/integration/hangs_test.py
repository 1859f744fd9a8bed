"""A real application that really blocks, and what the daemon makes of it."""
import json
import os
import re
import signal
import unittest

from scratch import ScratchTest, until


class SampleApplication(ScratchTest):
    def test_a_blocked_main_loop_becomes_a_report_in_the_spool(self):
        daemon = self.daemon(QuorvelHangTimeoutDuration=1000.0)
        sample = daemon.sample("--hang", "9")
        self.addCleanup(sample.communicate)
        self.addCleanup(sample.kill)
        daemon.wait_for("quorvel-sample: Hang detected", 15)
        daemon.wait_for("Moving kelvane to spool", 30)
        (name,) = daemon.reports()
        self.assertRegex(name, r"^MainThread-quorvel-sample-\d{4}-\d\d-\d\d-\d{6}\.kelvane$")
        report = json.loads((daemon.spool / name).read_text())
        text = json.dumps(report["metadata"])
        self.assertIn("MainThread-quorvel-sample: timeout", text)
        self.assertIn(os.path.realpath(sample.args[0]), text)
        self.assertEqual(list(daemon.temporary.iterdir()), [])
        self.assertEqual(sample.wait(20), 0)
        daemon.wait_for(f"Client disconnected: {sample.pid}")
        # The counters reach the file within a second.
        counters = daemon.root / "var/lib/quorveld/quorveld.prom"
        until(lambda: counters.exists() and re.search(
            r'quorveld_distribution_ms_count\{key="com\.corvix\.quorvel\.MainThread\.com\.corvix\.quorvel\.sample"\} 1\n',
            counters.read_text()), 5, "the hang's duration in the counters")

    def test_an_application_that_does_not_block_leaves_nothing(self):
        daemon = self.daemon(QuorvelHangTimeoutDuration=1000.0)
        sample = daemon.sample()
        daemon.wait_for("Initialization complete now watching hangs for quorvel-sample")
        with self.assertRaises(AssertionError):
            daemon.wait_for("Hang detected", 7)
        sample.send_signal(signal.SIGINT)
        sample.communicate(timeout=20)
        self.assertEqual(daemon.reports(), [])

    def test_short_hangs_spend_the_process_credit(self):
        # Four reports, and a fifth when the first hang check, which always gives a credit back, comes in between.
        daemon = self.daemon(QuorvelLongHangDurationThreshold=60000.0)
        sample = daemon.sample("--hang", "0.3", "--times", "7", "--report")
        self.addCleanup(sample.communicate)
        self.addCleanup(sample.kill)
        daemon.wait_for("quorvel-sample is out of credits. Not saving a report!", 40)
        self.assertIn("quorvel-sample Log credits: 1 -> 0", daemon.log())
        self.assertIn(len(daemon.reports()), (4, 5))
        counters = daemon.root / "var/lib/quorveld/quorveld.prom"
        until(lambda: re.search(r'QVLogsMissedDueToProcessLimit\.quorvel-sample"\} [1-3]\n', counters.read_text()), 5,
              "the refusal's count")

    def test_a_killed_application_is_watched_no_longer(self):
        daemon = self.daemon(QuorvelHangTimeoutDuration=1000.0)
        sample = daemon.sample("--hang", "60")
        daemon.wait_for("Initialization complete now watching hangs for quorvel-sample")
        sample.kill()
        sample.communicate()
        daemon.wait_for(f"Client disconnected: {sample.pid}")
        with self.assertRaises(AssertionError):
            daemon.wait_for("Hang detected", 7)


if __name__ == "__main__":
    unittest.main()
