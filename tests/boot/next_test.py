"""The next boot of the same machine: what was set before holds from the start."""
import time

from machine import MANAGED, QUORVEL, TELVO, MachineTest, running, show, until, write


class NextBoot(MachineTest):
    def setUp(self):  # nothing is set here
        self.since = time.time() - time.clock_gettime(time.CLOCK_BOOTTIME)

    def test_it_runs_as_the_preferences_said_before_the_boot(self):
        until(running, "the daemon")
        self.assertEqual(len(self.lines("Started quorveld.service|Started .*[Hh]ang tracking")), 1)
        self.assertEqual(show("kelvane-recorder.service", "ActiveState"), ["active"])

    def test_it_still_follows_changes(self):
        QUORVEL.unlink(missing_ok=True)
        write(TELVO, QuorvelEnabled=False)
        self.expect(False)
        write(MANAGED, **{"QVProfile.QuorvelEnabled": True})
        self.expect(True)
        MANAGED.unlink()
        self.expect(False)
        write(TELVO, QuorvelEnabled=True)
        self.expect(True)
