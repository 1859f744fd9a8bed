"""Starting, being told, ending."""
import contextlib
import os
import plistlib
import re
import signal
import socket
import subprocess
import unittest

from scratch import CACHE, DAEMON, ScratchTest
from waiting import PATIENCE, until


class Lifecycle(ScratchTest):
    def test_sigterm_tells_peers_and_leaves_only_folders(self):
        daemon = self.daemon()
        peer = self.peer(daemon)
        daemon.wait_for("IPX: Client started new connection: pid ")
        self.assertEqual(daemon.stop(), 0)
        self.assertIn("Termination imminent!", daemon.log())
        self.assertFalse(os.path.exists(daemon.socket_path))
        self.assertEqual(list(daemon.temporary.iterdir()), [])
        with contextlib.suppress(ConnectionResetError):  # the end, too, when something of ours had not been read yet
            while peer.socket.recv(4096):
                pass

    def test_a_second_instance_is_refused_and_harms_nothing(self):
        daemon = self.daemon()
        second = subprocess.run([DAEMON], env=daemon.environment(), capture_output=True, text=True, timeout=PATIENCE)
        self.assertNotEqual(second.returncode, 0)
        self.assertNotEqual(second.stderr.strip(), "")
        self.assertTrue(daemon.alive())

    def test_a_socket_left_by_a_killed_daemon_is_no_hindrance(self):
        daemon = self.daemon()
        daemon.process.kill()
        daemon.process.wait()
        self.assertTrue(os.path.exists(daemon.socket_path))
        daemon.log_path.unlink()
        daemon.start()
        self.assertTrue(daemon.alive())

    def test_closed_standard_descriptors_are_nobody_elses(self):
        daemon = self.daemon(start=False)
        process = subprocess.Popen(["sh", "-c", 'exec "$0" <&- >&- 2>&-', DAEMON], env=daemon.environment())
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        until(lambda: os.path.exists(daemon.socket_path), "the socket")
        for descriptor in range(3):
            self.assertEqual(os.readlink(f"/proc/{process.pid}/fd/{descriptor}"), "/dev/null")
        process.terminate()
        self.assertEqual(process.wait(PATIENCE), 0)

    def test_every_source_off_ends_it_with_status_0_at_start_and_later(self):
        daemon = self.daemon(start=False)
        daemon.write_preferences(QuorvelEnabled=False, QuorvelSlowActKelvanesEnabled=True)
        first = subprocess.run([DAEMON], env=daemon.environment(), capture_output=True, text=True, timeout=PATIENCE)
        self.assertEqual(first.returncode, 0)
        self.assertIn("quorveld is exiting. All sources turned off", first.stderr)

        daemon.write_preferences(QuorvelEnabled=True)
        daemon.start()
        daemon.write_preferences(QuorvelEnabled=False)
        daemon.post("com.corvix.telvo.tasking_changed")
        self.assertEqual(daemon.process.wait(PATIENCE), 0)
        self.assertIn("quorveld is exiting. All sources turned off", daemon.log())
        self.assertFalse(os.path.exists(daemon.socket_path))

    def test_notifications_and_the_managed_file_take_effect(self):
        daemon = self.daemon()
        managed = daemon.root / "Library/Managed Preferences/mobile/.GlobalPreferences.plist"
        managed.parent.mkdir(parents=True)
        managed.write_bytes(plistlib.dumps({"QVProfile.QuorvelDailyLogLimit": 7}))
        daemon.post("com.corvix.Pravenet.profileListChanged")
        daemon.wait_for("Max Daily Short Log Limit: 25 -> 7")
        daemon.post("com.corvix.quorvel.pref_changed")
        daemon.wait_for("QVActivationStats: Activation Logging preferences changed!")
        daemon.post("com.corvix.drovik.hid.displayStatus", 1)
        daemon.wait_for("Display state changed 0 -> 1,  time: ")

    def test_an_internal_build_writes_its_defaults_once(self):
        daemon = self.daemon(start=False)
        daemon.preferences_path().unlink()
        environment = {**daemon.environment(), "QUORVELD_INTERNAL_BUILD": "1"}
        daemon.environment = lambda: environment
        daemon.start()
        daemon.wait_for("checkPreferences: Internal install, force enabled.")
        written = plistlib.loads(daemon.preferences_path().read_bytes())
        self.assertEqual(written, {"QuorvelEnabled": True, "QuorvelInternalSettingCreated": True,
                                   "QuorvelInternalSettingsVersion": 2, "QuorvelEnableKelvane": True,
                                   "QuorvelEnableMemoryLogging": True})

    def test_a_file_in_a_folders_place_gives_way(self):
        daemon = self.daemon(start=False)
        (daemon.root / CACHE).mkdir(parents=True)
        daemon.temporary.write_text("in the way")
        daemon.start()
        self.assertTrue(daemon.temporary.is_dir())

    def test_systemd_hands_over_the_socket_and_hears_of_both_ends(self):
        daemon = self.daemon(start=False)
        os.makedirs(os.path.dirname(daemon.socket_path))
        listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        listener.bind(daemon.socket_path)
        self.addCleanup(listener.close)
        listener.listen(16)
        notify_path = str(daemon.root / "notify")
        notify = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        notify.bind(notify_path)
        self.addCleanup(notify.close)
        notify.settimeout(PATIENCE)
        peer = socket.socket(socket.AF_UNIX)
        self.addCleanup(peer.close)
        peer.connect(daemon.socket_path)  # waits for the daemon that is yet to start

        def activate():
            os.dup2(listener.fileno(), 3)
            os.set_inheritable(3, True)
            os.environ["LISTEN_PID"] = str(os.getpid())
            os.environ["LISTEN_FDS"] = "1"
            os.environ["NOTIFY_SOCKET"] = notify_path
            os.environ["QUORVELD_ROOT"] = str(daemon.root)
            os.environ["QUORVELD_LOG"] = "debug"
            os.execv(DAEMON, [DAEMON])

        # preexec_fn's environment changes don't reach an exec by Popen: the exec happens here instead.
        with open(daemon.log_path, "ab") as log:
            daemon.process = subprocess.Popen(["/bin/true"], stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                                              close_fds=False, preexec_fn=activate)
        self.assertIn(b"READY=1", notify.recv(4096))
        daemon.wait_for("IPX: Client started new connection: pid ")
        self.assertEqual(daemon.stop(), 0)
        self.assertIn(b"STOPPING=1", notify.recv(4096))
        self.assertTrue(os.path.exists(daemon.socket_path), "the socket is systemd's: it stays")

    def test_sighup_has_it_read_its_preferences_again_whenever_it_comes(self):
        daemon = self.daemon(start=False)
        notify_path = str(daemon.root / "notify")
        notify = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        notify.bind(notify_path)
        self.addCleanup(notify.close)
        notify.settimeout(PATIENCE)
        environment = {**daemon.environment(), "NOTIFY_SOCKET": notify_path}
        with open(daemon.log_path, "ab") as log:
            daemon.process = subprocess.Popen([DAEMON], env=environment, stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        status = f"/proc/{daemon.process.pid}/status"
        until(lambda: int(re.search(r"SigBlk:\t(\w+)", open(status).read())[1], 16) & 1 << signal.SIGHUP - 1,
              "the daemon's first steps")
        daemon.process.send_signal(signal.SIGHUP)  # it isn't up yet
        daemon.wait_for("refreshPreferences: Hang Tracing Enabled", count=2)
        self.assertIn(b"READY=1", notify.recv(4096))
        self.assertRegex(notify.recv(4096), rb"^RELOADING=1\nMONOTONIC_USEC=\d+$")
        self.assertEqual(notify.recv(4096), b"READY=1")

        daemon.write_preferences(QuorvelEnabled=True, QuorvelDailyLogLimit=7)
        daemon.process.send_signal(signal.SIGHUP)
        daemon.wait_for("Max Daily Short Log Limit: 25 -> 7")
        self.assertIn(b"RELOADING=1", notify.recv(4096))
        self.assertEqual(notify.recv(4096), b"READY=1")
        daemon.write_preferences(QuorvelEnabled=False)
        daemon.process.send_signal(signal.SIGHUP)
        self.assertEqual(daemon.process.wait(PATIENCE), 0)
        self.assertIn(b"RELOADING=1", notify.recv(4096))
        self.assertIn(b"STOPPING=1", notify.recv(4096))
        notify.setblocking(False)
        self.assertRaises(BlockingIOError, notify.recv, 4096)  # not READY=1: systemd would wait for it on

    def test_sigusr1_logs_the_state(self):
        daemon = self.daemon()
        daemon.process.send_signal(signal.SIGUSR1)
        daemon.wait_for("Status: hang tracing on")


if __name__ == "__main__":
    unittest.main()
