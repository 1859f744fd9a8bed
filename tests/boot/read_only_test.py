"""A root that is read-only, on which /var is made anew at boot; the image has the link /Library."""
import pathlib

from machine import MANAGED, TELVO, MachineTest, ctl, report, run, until, write


class ReadOnly(MachineTest):
    def test_everything_works(self):
        self.assertIn("ro", run("findmnt", "--noheadings", "--output", "OPTIONS", "/").strip().split(","))
        self.assertEqual(run("findmnt", "--noheadings", "--output", "FSTYPE", "/var").strip(), "tmpfs")
        self.sample("--hang", "12", "--how", "lock")
        self.assertEqual(report(self.filed())["metadata"]["verdict"]["cause"], "lock")
        write(TELVO, QuorvelEnableMemoryLogging=True, QuorvelMemoryLoggingInterval=3)
        until(lambda: list(pathlib.Path("/Library/Logs/Faultkeep").glob("*.ips")), "a memory report")
        ctl("prefs", "set", "QuorvelEnableMemoryLogging", "false")
        self.expect(False)
        write(MANAGED, **{"QVProfile.QuorvelEnabled": True})
        self.expect(True)
