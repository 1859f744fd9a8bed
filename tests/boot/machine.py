"""The machine that the tests run on, and what they want to know of the daemon there."""
import json
import os
import pathlib
import plistlib
import re
import subprocess
import time
import unittest

# Seconds for what must happen at all. Emulated, anything takes its time.
PATIENCE = 60

SERVICE = "quorveld.service"
UNITS = ("quorveld.service", "quorveld.path", "quorveld-telvo.path", "quorveld-quorvel.path", "quorveld-managed.path",
         "quorveld-preferences.service", "quorveld.socket")
PREFERENCES = pathlib.Path("/var/mobile/Library/Preferences")
TELVO = PREFERENCES / "com.corvix.telvo.plist"
QUORVEL = PREFERENCES / "com.corvix.quorvel.plist"
MANAGED = pathlib.Path("/Library/Managed Preferences/mobile/.GlobalPreferences.plist")
SPOOL = pathlib.Path("/var/root/Library/Caches/quorveld/spool")
USER = "someone"


def run(*command, check=True, **options):
    done = subprocess.run([str(word) for word in command], capture_output=True, text=True, timeout=300, **options)
    if check and done.returncode != 0:
        raise AssertionError(f"{command} ended with {done.returncode}:\n{done.stdout}{done.stderr}")
    return done.stdout


def ctl(*words):
    return run("quorvelctl", *words)


def until(condition, what, patience=PATIENCE):
    """Waits for `condition()` to be true; an AssertionError that names `what` when it never is."""
    end = time.monotonic() + patience
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > end:
            raise AssertionError(f"not within {patience} s: {what}\n{journal('-n', '40')}")
        time.sleep(0.1)


def journal(*words):
    return run("journalctl", "--no-pager", "-o", "short-precise", *words, check=False)


def show(unit, *properties):
    """The values of a unit's properties, in alphabetical order of their names."""
    lines = run("systemctl", "show", *(f"--property={name}" for name in sorted(properties)), unit).splitlines()
    return [line.split("=", 1)[1] for line in sorted(lines)]


def running():
    return show(SERVICE, "ActiveState", "SubState") == ["active", "running"]


def main_pid():
    return int(show(SERVICE, "MainPID")[0])


def write(path, **values):
    """As most programs do: beside, and then in the old one's place."""
    path.parent.mkdir(parents=True, exist_ok=True)
    new = path.with_name(path.name + ".new")
    new.write_bytes(plistlib.dumps(values))
    os.rename(new, path)


def reports():
    return sorted(path.name for path in SPOOL.iterdir()) if SPOOL.exists() else []


def report(name):
    return json.loads((SPOOL / name).read_text())


class MachineTest(unittest.TestCase):
    """Begins each test with hang tracking and traces on, and nothing else, in a machine on which no unit has failed."""

    def setUp(self):
        for path in (QUORVEL, MANAGED):
            path.unlink(missing_ok=True)
        write(TELVO, QuorvelEnabled=True, QuorvelEnableKelvane=True)
        self.expect(True)
        run("systemctl", "reload", SERVICE)
        until(lambda: "reload" not in show(SERVICE, "ActiveState")[0], "the end of the reload")
        for name in reports():
            (SPOOL / name).unlink()
        self.since = time.time()

    def tearDown(self):
        # Also when the test has failed: the next one is another.
        failed = [unit for unit in UNITS if show(unit, "ActiveState") == ["failed"]]
        run("systemctl", "reset-failed")
        self.assertEqual(failed, [], "units have failed")

    def expect(self, on):
        """The daemon comes to run, or not to, and it stays at that."""
        until(lambda: running() == on, f"running: {on}")
        time.sleep(1)  # it may have been started once more, to see that everything is off
        until(lambda: running() == on, f"running: {on}, for good")

    def lines(self, pattern, unit=SERVICE):
        """What the daemon has logged since the test began."""
        text = journal("-u", unit, f"--since=@{self.since:.6f}")
        return [line for line in text.splitlines() if re.search(pattern, line)]

    def wait_for(self, pattern, count=1):
        return until(lambda: len(self.lines(pattern)) >= count and self.lines(pattern), f"{count} × {pattern}")

    def user(self, *command, **options):
        """A program of an ordinary user, which ends with the test."""
        process = subprocess.Popen(["setpriv", f"--reuid={USER}", f"--regid={USER}", "--init-groups", *map(str, command)],
                                   stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                                   cwd=f"/home/{USER}", **options)
        self.addCleanup(process.wait)
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.kill)
        return process

    def sample(self, *options):
        """The sample application, once it is watched."""
        before = len(self.lines("now watching hangs for quorvel-sample"))
        process = self.user("quorvel-sample", *options)
        self.wait_for("now watching hangs for quorvel-sample", count=before + 1)
        return process

    def filed(self):
        """The name of the first report in the spool."""
        return until(reports, "a report in the spool")[0]
