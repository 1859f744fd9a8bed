"""Property lists as other tools write them, read and written by the daemon and by quorvelctl; and slips in them."""
import datetime
import json
import plistlib
import subprocess
import unittest

from scratch import CTL, DAEMON, ScratchTest
from waiting import PATIENCE

CHANGED = "com.corvix.telvo.tasking_changed"
# Of every kind of value, at the borders between the sizes that a binary list has for them.
KEPT = {
    "integers": [0, 255, 256, 65535, 65536, 2**32 - 1, 2**32, 2**63 - 1, 2**63, 2**64 - 1, -1, -2**63],
    "reals": [0.1, -2.5, 1e300, float("inf")],
    "texts": ["", "a<b> & \"c\"", "größer", "日本 😀", "two\nlines", "x" * 300],
    "data": bytes(range(256)),
    "dates": [datetime.datetime(1, 1, 1), datetime.datetime(2000, 12, 31, 23, 59, 59), datetime.datetime(9999, 12, 31)],
    "nested": {"größe": {"": [[], {}, [True, False]]}},
    "many": {f"key {n}": [n] * (n % 20) for n in range(300)},
}


class Preferences(ScratchTest):
    def ctl(self, daemon, *arguments, status=0):
        done = subprocess.run([CTL, "--root", str(daemon.root), *arguments], capture_output=True, text=True, timeout=PATIENCE)
        self.assertEqual(done.returncode, status, done.stderr)
        return done.stdout + done.stderr

    def refresh(self, daemon):
        """Returns when the daemon has read its preferences anew."""
        last = "refreshPreferences: App Activation Logging "
        before = daemon.log().count(last)
        daemon.post(CHANGED)
        daemon.wait_for(last, before + 1)

    def test_lists_of_every_form_are_read_and_nothing_is_lost_when_they_are_written(self):
        daemon = self.daemon()
        path = daemon.preferences_path()
        forms = ["binary", "UTF-8", "UTF-16", "UTF-16LE", "UTF-16BE", "UTF-32", "GB18030"]
        for limit, form in enumerate(forms, 100):
            with self.subTest(form):
                values = {**KEPT, "QuorvelEnabled": True, "QuorvelEnableKelvane": True, "QuorvelDailyLogLimit": limit}
                text = plistlib.dumps(values, fmt=plistlib.FMT_XML).decode().replace("UTF-8", form, 1)
                path.write_bytes(plistlib.dumps(values, fmt=plistlib.FMT_BINARY) if form == "binary" else text.encode(form))
                daemon.post(CHANGED)
                daemon.wait_for(f"refreshPreferences: QuorvelDailyLogLimit = {limit}\n")
                listed = {entry["key"]: entry["value"] for entry in json.loads(self.ctl(daemon, "--json", "prefs", "list"))}
                self.assertEqual((listed["QuorvelEnabled"], listed["QuorvelDailyLogLimit"]), (True, limit))
                self.ctl(daemon, "prefs", "set", "QuorvelDailyLogLimit", str(1000 + limit))
                daemon.wait_for(f"refreshPreferences: QuorvelDailyLogLimit = {1000 + limit}\n")
                self.assertTrue(path.read_bytes().startswith(b'<?xml version="1.0" encoding="UTF-8"?>'))
                self.assertEqual(plistlib.loads(path.read_bytes()), {**values, "QuorvelDailyLogLimit": 1000 + limit})
        self.assertEqual(daemon.lines("is ignored|Unusable"), [])

    def test_an_internal_build_adds_to_a_binary_list(self):
        daemon = self.daemon(start=False)
        daemon.preferences_path().write_bytes(plistlib.dumps(KEPT, fmt=plistlib.FMT_BINARY))
        environment = {**daemon.environment(), "QUORVELD_INTERNAL_BUILD": "1"}
        daemon.environment = lambda: environment
        daemon.start()
        written = plistlib.loads(daemon.preferences_path().read_bytes())
        self.assertEqual(written, {**KEPT, "QuorvelEnabled": True, "QuorvelInternalSettingCreated": True,
                                   "QuorvelInternalSettingsVersion": 2, "QuorvelEnableKelvane": True,
                                   "QuorvelEnableMemoryLogging": True})

    def test_a_slip_in_a_running_daemons_list_changes_nothing(self):
        daemon = self.daemon()
        path = daemon.preferences_path()
        managed = daemon.root / "Library/Managed Preferences/mobile/.GlobalPreferences.plist"
        managed.parent.mkdir(parents=True)
        managed.write_bytes(plistlib.dumps({"QVProfile.QuorvelEnabled": True}, fmt=plistlib.FMT_BINARY))
        self.refresh(daemon)

        good = path.read_bytes()
        broken = b'<?xml version="1.0"?>\n<plist version="1.0"><dict>\n<key>QuorvelEnabled</key><tru'
        managed.write_bytes(managed.read_bytes()[:-1])
        path.write_bytes(broken)
        for _ in range(3):
            self.refresh(daemon)
        kept = "its last good values stay in force"
        self.assertEqual(len(daemon.lines(rf"com\.corvix\.telvo\.plist: line 3: .*; {kept}$")), 1, daemon.log())
        self.assertEqual(len(daemon.lines(r"\.GlobalPreferences\.plist: byte \d+: .*; it counts as empty$")), 1, daemon.log())
        self.assertEqual(path.read_bytes(), broken)
        self.assertTrue(daemon.alive())
        self.assertIn("line 3", self.ctl(daemon, "prefs", "set", "QuorvelEnabled", "true", status=1))

        path.write_bytes(good)
        managed.write_bytes(plistlib.dumps({"QVProfile.QuorvelEnabled": True}, fmt=plistlib.FMT_BINARY))
        daemon.write_preferences(QuorvelEnabled=False)
        self.refresh(daemon)
        self.assertTrue(daemon.alive())
        managed.unlink()  # a file that is gone is empty, and with it the last source
        daemon.post(CHANGED)
        self.assertEqual(daemon.process.wait(PATIENCE), 0)

    def test_a_list_that_is_broken_at_start_is_an_empty_one(self):
        daemon = self.daemon(start=False)
        daemon.preferences_path().write_bytes(b"bplist00 and no more")
        done = subprocess.run([DAEMON], env=daemon.environment(), capture_output=True, text=True, timeout=PATIENCE)
        self.assertEqual(done.returncode, 0)
        self.assertIn("com.corvix.telvo.plist: byte 20: the trailer is missing; it counts as empty", done.stderr)
        self.assertIn("quorveld is exiting. All sources turned off", done.stderr)
        self.assertEqual(daemon.preferences_path().read_bytes(), b"bplist00 and no more")

    def test_what_is_ignored_is_said_once(self):
        daemon = self.daemon()
        daemon.write_preferences(QuorvelEnabled=True, QuorvelDailyLogLimit=[], QuorvelReportPeriod=2**31,
                                 QuorvelHangTimeoutDuration=float("nan"), QuorvelEnableHUD=datetime.datetime(2026, 1, 1))
        for _ in range(3):
            self.refresh(daemon)
        for key, what in {"DailyLogLimit": "a whole number .*, found an array", "ReportPeriod": "a number, .*, found 2147483648",
                          "HangTimeoutDuration": "a number, found nan", "EnableHUD": "true or false, found a date"}.items():
            line = rf"refreshPreferences: Quorvel{key} in com\.corvix\.telvo is ignored: expected {what}$"
            self.assertEqual(len(daemon.lines(line)), 1, daemon.log())


if __name__ == "__main__":
    unittest.main()
