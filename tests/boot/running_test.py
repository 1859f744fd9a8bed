"""A machine like any: with the packages installed, and everything that may happen to it afterwards."""
import datetime
import os
import pathlib
import plistlib
import signal
import time

from machine import (MANAGED, QUORVEL, SERVICE, TELVO, MachineTest, ctl, journal, main_pid, report, run,
                     running, show, until, write)


def setUpModule():
    """As the packages leave it, the daemon is not there, since everything is off; and what notices changes is."""
    assert not any(path.exists() for path in (TELVO, QUORVEL, MANAGED))
    run("systemctl", "enable", "--now", "kelvane-recorder.service")
    until(lambda: show(SERVICE, "ActiveState", "Result") == ["inactive", "success"], "the first daemon's end")
    assert show("quorveld.path", "ActiveState", "SubState") == ["active", "waiting"]


def edit_in_place(path, text):
    path.write_text(text)


def edit_beside(path, text):
    new = path.with_name("." + path.name + ".swp")
    new.write_text(text)
    os.rename(new, path)


def edit_with_a_backup(path, text):
    """As vi does: the file is away for a moment."""
    if path.exists():
        os.rename(path, f"{path}~")
    path.write_text(text)


def copy_over(path, text):
    source = pathlib.Path("/root/source.plist")
    source.write_text(text)
    run("cp", source, path)


def move_over(path, text):
    source = pathlib.Path("/root/source.plist")
    source.write_text(text)
    run("mv", source, path)


def edit_with_vi(path, text):
    source = pathlib.Path("/root/source.plist")
    source.write_text(text)
    run("vim.tiny", "-es", "-u", "NONE", "--cmd", "set backup", "-c", "%d", "-c", f"0r {source}", "-c", "wq", path,
        check=False)
    assert path.read_text() == text, path.read_text()


WAYS = (edit_in_place, edit_beside, edit_with_a_backup, copy_over, move_over, edit_with_vi)


def text_of(key, value):
    return plistlib.dumps({key: value}).decode()


def by_prefs(on):
    ctl("prefs", "set", "QuorvelEnabled", "true" if on else "false")


def by_hand(way):
    return lambda on: way(TELVO, text_of("QuorvelEnabled", on))


def by_removal(on):
    if on:
        edit_beside(TELVO, text_of("QuorvelEnabled", True))
    else:
        TELVO.unlink()


class Changing(MachineTest):
    """Whatever the way and the speed of a change, the daemon comes to run or not, as the files say."""

    def test_every_way_of_changing_a_file_turns_it_off_and_on(self):
        for way in WAYS:
            with self.subTest(way=way.__name__):
                for on in (False, True):
                    way(TELVO, text_of("QuorvelEnabled", on))
                    self.expect(on)
        by_removal(False)
        self.expect(False)
        for way in WAYS[::2]:
            with self.subTest(way=way.__name__, file="the other"):
                way(QUORVEL, text_of("QuorvelEnableAppActivationLogging", True))
                self.expect(True)
                QUORVEL.unlink()
                self.expect(False)
        for way in WAYS[1::2]:
            with self.subTest(way=way.__name__, file="managed"):
                way(MANAGED, text_of("QVProfile.QuorvelEnabled", True))
                self.expect(True)
                MANAGED.unlink()
                self.expect(False)

    def test_on_right_after_off(self):
        took = []
        for way in (by_prefs, by_hand(edit_in_place), by_hand(edit_with_a_backup), by_removal):
            for delay in range(0, 301, 75):
                with self.subTest(delay=delay):
                    way(False)
                    time.sleep(delay / 1000)
                    way(True)
                    since = time.monotonic()
                    self.expect(True)
                    took.append(time.monotonic() - since)
        print(f"# running, for a second, after {min(took):.2f} to {max(took):.2f} s, {len(took)} times", flush=True)

    def test_off_right_after_on(self):
        by_prefs(False)
        self.expect(False)
        for way in (by_prefs, by_hand(edit_beside), by_removal):
            for delay in range(0, 301, 150):
                with self.subTest(delay=delay):
                    way(True)
                    time.sleep(delay / 1000)
                    way(False)
                    self.expect(False)

    def test_many_changes_in_a_moment(self):
        for final in (True, False, True):
            for turn in range(6):
                by_prefs(turn % 2 == 0)
                time.sleep(0.3)
            by_prefs(final)
            self.expect(final)
            for turn in range(40):
                edit_in_place(TELVO, text_of("QuorvelEnabled", turn % 2 == 0))
                time.sleep(0.013)
            edit_in_place(TELVO, text_of("QuorvelEnabled", final))
            self.expect(final)

    def test_a_running_daemon_takes_every_change_over(self):
        pid = main_pid()
        for limit, way in enumerate((*WAYS, lambda path, text: ctl("prefs", "set", "QuorvelDailyLogLimit", "1006")), 1000):
            way(TELVO, plistlib.dumps({"QuorvelEnabled": True, "QuorvelDailyLogLimit": limit}).decode())
            self.wait_for(rf"Max Daily Short Log Limit: .* -> {limit}$")
        write(MANAGED, **{"QVProfile.QuorvelDailyLogLimit": 2000})
        self.wait_for(r"Max Daily Short Log Limit: .* -> 2000$")
        self.assertEqual(main_pid(), pid)

    def test_reload_and_hup(self):
        pid = main_pid()
        run("systemctl", "stop", "quorveld.path")  # nobody but the reload tells it
        self.addCleanup(run, "systemctl", "start", "quorveld.path")
        for limit, reload in ((31, ("systemctl", "reload", SERVICE)), (32, ("systemctl", "kill", "--signal=HUP", SERVICE))):
            write(TELVO, QuorvelEnabled=True, QuorvelDailyLogLimit=limit)
            run(*reload)
            self.wait_for(rf"Max Daily Short Log Limit: .* -> {limit}$")
            until(running, "the end of the reload")
        self.assertEqual(main_pid(), pid)
        self.assertEqual(self.lines(r"-> 30$"), [])


class Clients(MachineTest):
    def test_a_restart_leaves_nobody_unwatched(self):
        self.sample()
        run("systemctl", "restart", SERVICE)
        self.wait_for("now watching hangs for quorvel-sample", count=2)

    def test_a_killed_daemon_comes_back(self):
        self.sample()
        for times in range(3):
            pid = main_pid()
            os.kill(pid, signal.SIGKILL)
            self.wait_for("now watching hangs for quorvel-sample", count=2 + times)
            self.assertNotEqual(main_pid(), pid)

    def test_the_watchdog_ends_a_daemon_that_hangs_itself(self):
        folder = pathlib.Path("/run/systemd/system/quorveld.service.d")
        folder.mkdir(parents=True)
        self.addCleanup(run, "systemctl", "daemon-reload")
        self.addCleanup(run, "rm", "-r", folder)
        (folder / "soon.conf").write_text("[Service]\nWatchdogSec=6\n")
        run("systemctl", "daemon-reload")
        run("systemctl", "restart", SERVICE)
        self.sample()
        pid = main_pid()
        os.kill(pid, signal.SIGSTOP)
        self.wait_for("Watchdog timeout")
        self.wait_for("now watching hangs for quorvel-sample", count=2)
        self.assertNotEqual(main_pid(), pid)

    def test_the_socket_with_everything_off_and_on_again(self):
        by_prefs(False)
        self.expect(False)
        run("systemctl", "enable", "--now", "quorveld.socket")
        self.addCleanup(run, "systemctl", "disable", "--now", "quorveld.socket")
        clients = [self.user("quorvel-sample") for _ in range(6)]
        time.sleep(8)
        self.assertEqual(show("quorveld.socket", "ActiveState"), ["active"])
        self.assertEqual([client.poll() for client in clients], [None] * 6)
        by_prefs(True)
        self.wait_for("now watching hangs for quorvel-sample", count=6)
        run("systemctl", "restart", SERVICE)
        self.wait_for("now watching hangs for quorvel-sample", count=12)
        # Enabled where it runs, as the README says, and taken away again.
        run("systemctl", "stop", SERVICE, "quorveld.socket")
        run("systemctl", "start", SERVICE)
        run("systemctl", "enable", "quorveld.socket")
        run("systemctl", "stop", SERVICE)
        run("systemctl", "start", "quorveld.socket", SERVICE)
        self.wait_for("now watching hangs for quorvel-sample", count=18)
        for client in clients:
            client.kill()


# A program that waits for another one's word, in a turn that the daemon watches.
WAITING = """
import ctypes, os, socket, sys
quorvel = ctypes.CDLL("libquorvel.so.1")
quorvel.qv_slot_claim.restype = ctypes.c_void_p
quorvel.qv_slot_begin.argtypes = [ctypes.c_void_p, ctypes.c_bool]
assert quorvel.qv_watch(b"com.example.asker", b"asker") == 0
turn = quorvel.qv_slot_claim(b"MainThread")
peer = socket.socket(socket.AF_UNIX)
peer.connect("/tmp/answerer")
quorvel.qv_slot_begin(turn, True)
print("asking", flush=True)
peer.recv(1)
"""
ANSWERING = """
import socket
listener = socket.socket(socket.AF_UNIX)
listener.bind("/tmp/answerer")
listener.listen()
print("listening", flush=True)
peer = listener.accept()[0]
peer.recv(1)
"""


class Reports(MachineTest):
    """Inside the units' sandbox, of programs that are not root's."""

    def test_a_hang_becomes_a_report_with_a_verdict_out_of_the_recorder(self):
        sample = self.sample("--hang", "12", "--how", "lock")
        metadata = report(self.filed())["metadata"]
        self.assertEqual(metadata["verdict"]["cause"], "lock", metadata["verdict"])
        self.assertEqual(metadata["verdict"]["evidence"]["source"], "recorder",
                         (metadata["verdict"], metadata.get("leftOut"), run("kelvanectl", "status", check=False)))
        self.assertGreater(metadata["capture"]["stacks"], 1)
        print("#", metadata["verdict"]["sentence"], flush=True)
        print("# left out:", metadata.get("leftOut"), flush=True)
        self.assertEqual(sample.wait(60), 0)
        self.assertIn("lock", run("quorvelctl", "reports", "show", self.filed()))

    def test_who_is_at_the_other_end_of_a_socket(self):
        answerer = self.user("python3", "-c", ANSWERING)
        self.assertEqual(answerer.stdout.readline().strip(), "listening")
        asker = self.user("python3", "-c", WAITING)
        self.assertEqual(asker.stdout.readline().strip(), "asking")
        metadata = report(self.filed())["metadata"]
        verdict = metadata["verdict"]
        # Each reads from the other.
        self.assertEqual((verdict["cause"], [link["pid"] for link in verdict.get("chain", [])]), ("deadlock", [asker.pid, answerer.pid]),
                         (verdict["sentence"], metadata.get("leftOut"), metadata["capture"], run("lsmod")))
        print("#", verdict["sentence"], flush=True)

    def test_only_root_reads_reports(self):
        self.sample("--hang", "12", "--how", "spin")
        name = self.filed()
        for command in (("ls", "/var/root"), ("quorvelctl", "reports", "show", name)):
            refused = self.user(*command)
            self.assertNotIn("quorvel-sample: timeout", refused.stdout.read())
            self.assertNotEqual(refused.wait(30), 0, command)

    def test_what_a_killed_dump_leaves_goes_at_the_next_boot(self):
        left = pathlib.Path("/var/root/Library/Caches/quorveld/tmp/left.kelvane")
        left.write_text("half")
        run("systemd-tmpfiles", "--remove", "/usr/lib/tmpfiles.d/quorveld.conf")
        self.assertTrue(left.exists(), "it may be of a report under way")
        run("systemd-tmpfiles", "--remove", "--boot", "/usr/lib/tmpfiles.d/quorveld.conf")
        self.assertFalse(left.exists())

    def test_a_launch_is_recorded(self):
        ctl("prefs", "set", "QuorvelEnableAppActivationLogging", "true")
        self.wait_for("App Activation Logging Enabled")
        run("quorvelctl", "launch", "com.example.worker", "--", "python3", "-c", "sum(range(3000000))")
        until(lambda: "com.example.worker" in run("quorvelctl", "activations", check=False), "the launch's record")
        self.assertIn("python3", ctl("activations"))

    def test_memory_reports_come_at_their_interval(self):
        folder = pathlib.Path("/Library/Logs/Faultkeep")
        before = set(folder.iterdir())
        write(TELVO, QuorvelEnableMemoryLogging=True, QuorvelMemoryLoggingInterval=3)
        until(lambda: len(set(folder.iterdir()) - before) >= 2, "two memory reports")
        write(TELVO, QuorvelEnabled=True)
        self.assertIn("quorveld", ctl("memory", "show"))


class Time(MachineTest):
    def test_a_suspend_is_no_hang(self):
        if "mem" not in pathlib.Path("/sys/power/state").read_text().split():
            self.skipTest("this kernel does not suspend")
        # While the devices come back the clock goes on and nobody runs: some seconds where the machine is emulated.
        ctl("prefs", "set", "QuorvelHangTimeoutDuration", "9000")
        self.addCleanup(ctl, "prefs", "set", "QuorvelHangTimeoutDuration", "5000")
        sample = self.sample("--hang", "3.5")
        time.sleep(2)
        awake_before = time.monotonic()
        before = time.clock_gettime(time.CLOCK_BOOTTIME) - awake_before
        run("rtcwake", "--mode", "mem", "--seconds", "15")
        awake = time.monotonic() - awake_before
        slept = time.clock_gettime(time.CLOCK_BOOTTIME) - time.monotonic() - before
        if slept < 5:
            self.skipTest(f"it was suspended for {slept:.1f} s only")
        if awake > 5:
            self.skipTest(f"to suspend and to come back took this machine {awake:.1f} s, which are a hang")
        self.assertEqual(sample.wait(60), 0)
        time.sleep(7)  # a check
        self.assertEqual(self.lines("Hang detected"), [])
        ctl("prefs", "set", "QuorvelHangTimeoutDuration", "5000")
        self.sample("--hang", "12", "--how", "spin")
        self.filed()

    def test_the_clock_is_set_forward_over_midnight(self):
        ctl("prefs", "set", "QuorvelEnableAppActivationLogging", "true")
        run("systemctl", "restart", SERVICE)
        self.wait_for("Setting Timer to fire at")
        pid = main_pid()
        tomorrow = datetime.date.today() + datetime.timedelta(days=1)
        self.addCleanup(setattr, self, "since", 0)
        run("date", "--set", f"{tomorrow} 00:00:30")
        text = (tomorrow + datetime.timedelta(days=1)).isoformat()
        until(lambda: [line for line in journal("-u", SERVICE, "-n", "20").splitlines() if "Setting Timer to fire at" in line][-1:]
              and text in journal("-u", SERVICE, "-n", "20"), f"a timer for {text}")
        self.assertEqual(main_pid(), pid)
        self.since = time.time() - 1
        self.sample("--hang", "12", "--how", "spin")
        self.filed()
