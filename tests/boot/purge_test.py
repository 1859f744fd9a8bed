"""The packages go from a machine that uses them."""
import pathlib
import unittest

from machine import PREFERENCES, SPOOL, SERVICE, TELVO, main_pid, run, running, show, until, write


class Purge(unittest.TestCase):
    def test_nothing_of_it_runs_or_lies_about(self):
        write(TELVO, QuorvelEnabled=True)
        until(running, "the daemon")
        run("systemctl", "enable", "--now", "kelvane-recorder.service")
        run("systemctl", "enable", "quorveld.socket")
        run("systemctl", "stop", SERVICE)
        run("systemctl", "start", "quorveld.socket", SERVICE)
        pid = main_pid()
        run("dpkg", "--install", *pathlib.Path("/packages").iterdir())
        until(running, "the daemon, after the upgrade")
        self.assertNotEqual(main_pid(), pid)
        run("dpkg", "--remove", "quorveld", "libkelvane", "libquorvel1")
        self.assertFalse(running())
        self.assertTrue(SPOOL.is_dir())
        run("dpkg", "--purge", "quorveld", "libkelvane", "libquorvel1")
        self.assertEqual(show(SERVICE, "LoadState"), ["not-found"])
        units = run("systemctl", "list-units", "--all", "--plain", "--no-legend", "quorveld*", "kelvane*").splitlines()
        self.assertEqual([unit for unit in units if "not-found" not in unit], [])
        for gone in ("/run/quorveld", "/run/kelvane", "/var/lib/quorveld", "/var/log/quorveld", SPOOL.parent,
                     "/sys/kernel/tracing/instances/kelvane"):
            self.assertFalse(pathlib.Path(gone).exists(), gone)
        self.assertTrue((PREFERENCES / "com.corvix.telvo.plist").exists())
