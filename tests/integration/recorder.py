"""The flight recorder's control, and when a machine is too busy for it."""
import os
import subprocess

from scratch import ScratchTest
from waiting import PATIENCE

RECORDER = os.environ.get("QV_TEST_RECORDER", "")
BUSY_PERCENT = 30  # by themselves these tests hardly wait for a CPU, but for hogs of their own


class RecorderTest(ScratchTest):
    def recorder(self, daemon, *command):
        return subprocess.run([RECORDER, *command], env=daemon.environment(), capture_output=True, text=True, timeout=PATIENCE)

    def start_recorder(self, daemon):
        """A recorder with room for what else this machine does meanwhile."""
        if not RECORDER:
            self.skipTest("the flight recorder's control was not built")
        started = self.recorder(daemon, "start", "--buffer-kb", "16384")
        if started.returncode != 0:
            self.skipTest(f"no flight recorder can run here: {started.stderr.strip()}")
        self.addCleanup(self.recorder, daemon, "stop")

    def skip_if_overrun(self, metadata):
        """The recorder keeps so many events, of which a report reads as many as it can in a second; both say if not all."""
        short = [f"{one['what']}: {one['why']}" for one in metadata["leftOut"] if "flight recorder" in one["what"]
                 and one["why"] in ("reading took too long", "more than a report takes")]
        lost = metadata["verdict"]["evidence"]["eventsLost"]
        pressure = metadata["verdict"]["pressure"].get("cpu", {"some10": 0})["some10"]
        if pressure >= BUSY_PERCENT and (short or lost):
            self.skipTest(f"something waited for a CPU for {pressure} % of the last 10 s; {lost} events lost {short}")
