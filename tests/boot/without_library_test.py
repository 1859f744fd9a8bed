"""The same, and nobody has thought of /Library."""
import pathlib

from machine import TELVO, MachineTest, ctl, report, write


class WithoutLibrary(MachineTest):
    def test_what_is_done_there_is_missing_and_no_more(self):
        self.assertFalse(pathlib.Path("/Library").exists())
        self.sample("--hang", "12", "--how", "lock")
        self.assertEqual(report(self.filed())["metadata"]["verdict"]["cause"], "lock")
        write(TELVO, QuorvelEnabled=True, QuorvelEnableMemoryLogging=True, QuorvelMemoryLoggingInterval=3)
        self.wait_for("/Library/Logs/Faultkeep")  # in a line that says that no report can be put there
        ctl("prefs", "set", "QuorvelEnabled", "false")
        ctl("prefs", "set", "QuorvelEnableMemoryLogging", "false")
        self.expect(False)
        ctl("prefs", "set", "QuorvelEnabled", "true")
        self.expect(True)
