"""Real programs started through `quorvelctl launch`, and what the daemon says that they cost."""
import json
import os
import signal
import socket
import subprocess
import tempfile
import time
import unittest

from scratch import CTL, ScratchTest
from waiting import PATIENCE, until

TICK_MS = 1000 / os.sysconf("SC_CLK_TCK")
BURN = "i=0; while [ $i -lt {} ]; do i=$((i+1)); done"


class Launches(ScratchTest):
    def recording(self, **preferences):
        """A daemon that records launches."""
        daemon = self.daemon(start=False, **preferences)
        daemon.write_preferences("com.corvix.quorvel", QuorvelEnableAppActivationLogging=True)
        return daemon.start()

    def start(self, daemon, *arguments, **options):
        process = subprocess.Popen([CTL, "launch", *arguments], env=daemon.environment(), stdin=subprocess.PIPE,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, **options)
        self.addCleanup(process.communicate)
        self.addCleanup(process.kill)
        return process

    def launch(self, daemon, *arguments):
        process = self.start(daemon, *arguments)
        output, errors = process.communicate(timeout=PATIENCE)
        return process.returncode, output, errors

    def activations(self, daemon):
        command = [CTL, "activations", "--all", "--json"]
        return json.loads(subprocess.run(command, env=daemon.environment(), check=True, stdout=subprocess.PIPE).stdout)

    def recorded(self, daemon, count):
        """The launches on record, once there are `count`: the daemon writes of one when its command has long ended."""
        until(lambda: len(self.activations(daemon)) >= count, f"{count} launches on record")
        return self.activations(daemon)

    def held(self, daemon, bundle, script):
        """The shell `script`, launched, which runs once the daemon has looked at the system as it was before."""
        looks = daemon.log().count("ipxStartLatencyInMs")
        process = self.start(daemon, bundle, "--", "sh", "-c", "read -r go; " + script)
        daemon.wait_for("ipxStartLatencyInMs", looks + 1)
        process.stdin.write("go\n")
        process.stdin.flush()
        return process

    def cpu_of(self, daemon, bundle, script):
        """CPU in ms that the daemon reports of `script`'s own process, and what the kernel charged for the whole run."""
        before = len(self.activations(daemon))
        process = self.held(daemon, bundle, script)
        _, status, usage = os.wait4(process.pid, 0)
        process.returncode = os.waitstatus_to_exitcode(status)
        errors = process.stderr.read()
        self.assertEqual(process.returncode, 0, errors)
        if "was not up within a minute" in errors:
            self.skipTest("the machine is too busy: a launch of a second's work took more than a minute")
        activation = self.recorded(daemon, before + 1)[-1]
        self.assertEqual(activation["bundleID"], bundle)
        own = next(cost for cost in activation["processes"] if cost["pid"] == activation["pid"])
        self.assertEqual(own["life"], "throughout")
        return own["cpuMs"], (usage.ru_utime + usage.ru_stime) * 1000

    def test_the_reported_cpu_is_what_the_kernel_charged(self):
        daemon = self.recording()
        _, overhead = self.cpu_of(daemon, "com.example.nothing", "exec true")  # quorvelctl's own, with a bare process
        compiler = subprocess.run(["cc", "-print-prog-name=cc1"], stdout=subprocess.PIPE, text=True).stdout.strip()
        with tempfile.TemporaryDirectory() as folder:
            source = folder + "/small.c"
            with open(source, "w") as file:
                for i in range(600):
                    file.write(f"int f{i}(int x) {{ for (int j = 0; j < x; ++j) x += j * {i} % (x + 1); return x; }}\n")
            programs = {"com.example.shell": BURN.format(800_000)}
            if os.path.isabs(compiler):
                programs["com.example.compiler"] = f"exec {compiler} -quiet -O2 {source} -o {folder}/small.s"
            for bundle, script in programs.items():
                with self.subTest(bundle):
                    reported, charged = self.cpu_of(daemon, bundle, script)
                    charged -= overhead
                    self.assertGreater(charged, 10 * TICK_MS)
                    # Procfs counts whole ticks at either end; quorvelctl's own share differs a little from run to run.
                    self.assertAlmostEqual(reported, charged, delta=2 * TICK_MS + overhead)
            if len(programs) == 1:
                self.skipTest("no cc here whose compiler proper could be launched")

    def test_ready_ends_the_launch_and_shows_what_children_spent(self):
        daemon = self.recording()
        # The child's own figures come from its shell, before it says that the application is up.
        script = f"({BURN.format(300_000)}; times; systemd-notify --ready; read -r end) 2>&1"
        process = self.held(daemon, "com.example.ready", script + "; exit 5")
        (activation,) = self.recorded(daemon, 1)
        self.assertIsNone(process.poll())
        self.assertEqual((activation["bundleID"], activation["type"], activation["result"]),
                         ("com.example.ready", "launch", 0))
        output, _ = process.communicate("end\n", timeout=PATIENCE)
        self.assertEqual(process.returncode, 5)
        minutes = [part.split("m") for part in output.split()[:2]]  # of `times`: user and system, as 0m0.310000s
        own = sum(float(m) * 60_000 + float(s.rstrip("s")) * 1000 for m, s in minutes)
        child = max((cost for cost in activation["processes"] if cost["life"] == "born" and cost["name"] == "sh"),
                    key=lambda cost: cost["cpuMs"])
        self.assertGreater(own, 10 * TICK_MS)
        self.assertAlmostEqual(child["cpuMs"], own, delta=3 * TICK_MS)

    def test_the_command_is_the_one_that_answers(self):
        daemon = self.recording()
        self.assertEqual(self.launch(daemon, "a", "--", "sh", "-c", "[ \"$1\" = '[x,y]' ] && exit 3", "sh", "[x,y]")[0], 3)
        self.assertEqual(self.launch(daemon, "a", "--", "sh", "-c", "kill -KILL $$")[0], 137)
        self.assertEqual(self.launch(daemon, "--resume", "a", "--", "/nonsense/none")[0], 127)
        self.assertEqual(self.launch(daemon, "a", "--", "/etc/passwd")[0], 126)
        self.assertEqual([(one["type"], one["result"]) for one in self.recorded(daemon, 4)],
                         [("launch", 3), ("launch", 137), ("resume", 127), ("launch", 126)])
        for number in (signal.SIGTERM, signal.SIGINT):
            process = self.start(daemon, "a", "--", "sh", "-c", "trap 'exit 9' TERM INT; echo up; while :; do sleep 0.1; done")
            self.assertEqual(process.stdout.readline(), "up\n")
            process.send_signal(number)
            self.assertEqual(process.wait(PATIENCE), 9)
        # A stranger's READY=1 ends nothing.
        process = self.start(daemon, "a", "--", "sh", "-c", "echo $NOTIFY_SOCKET; read -r end; exit 6")
        address = process.stdout.readline().strip()
        subprocess.run(["systemd-notify", "--ready"], env={**os.environ, "NOTIFY_SOCKET": address}, check=True)
        process.communicate("end\n", timeout=PATIENCE)
        self.assertEqual(self.recorded(daemon, 7)[-1]["result"], 6)

    def test_what_the_command_says_of_itself_reaches_who_started_it(self):
        daemon = self.recording()
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
            manager.bind(str(daemon.root / "manager"))
            manager.settimeout(PATIENCE)
            environment = {**daemon.environment(), "NOTIFY_SOCKET": str(daemon.root / "manager")}
            script = "systemd-notify --status=rising; echo $NOTIFY_SOCKET; cat"
            process = subprocess.Popen([CTL, "launch", "a", "--", "sh", "-c", script], env=environment, text=True,
                                       stdin=subprocess.PIPE, stdout=subprocess.PIPE)
            self.addCleanup(process.kill)
            self.assertEqual(manager.recv(100), b"STATUS=rising")
            self.assertNotIn(str(daemon.root), process.communicate(timeout=PATIENCE)[0])

    def test_what_is_not_recorded_is_said_and_not_waited_for(self):
        daemon = self.recording(QuorvelAppActivationLoggingMaxActivationCount=1)
        self.assertEqual(self.launch(daemon, "a", "--", "true"), (0, "", ""))
        launches = [self.start(daemon, "a", "--", "true") for _ in range(5)]
        for process in launches:
            self.assertEqual(process.communicate(timeout=PATIENCE)[1],
                             "quorvelctl: the launch is not recorded: the day's maximum of 1 is reached\n")
        self.assertEqual(len(self.activations(daemon)), 1)

    def test_children_that_came_and_went_are_told_by_their_parent(self):
        daemon = self.recording()
        self.launch(daemon, "com.example.make", "--", "sh", "-c", f"sh -c '{BURN.format(400_000)}'; true")
        (activation,) = self.recorded(daemon, 1)
        (shell,) = [more for more in activation["more"] if more["pid"] == activation["pid"]]
        self.assertGreater(shell["childCpuMs"], 10 * TICK_MS)

    def test_without_a_daemon_the_command_runs_all_the_same(self):
        status, output, errors = self.launch(self.daemon(start=False), "a", "--", "sh", "-c", "echo ran; exit 4")
        self.assertEqual((status, output), (4, "ran\n"))
        self.assertEqual(errors, "quorvelctl: no daemon to announce the launch to: No such file or directory\n")

    def test_a_slow_launch_leaves_a_report(self):
        daemon = self.recording(QuorvelSlowActKelvanesEnabled=True, QuorvelSlowActLaunchKelvaneThreshold=600)
        start = time.monotonic()
        self.assertEqual(self.launch(daemon, "com.example.quick", "--", "true")[0], 0)
        was_quick = time.monotonic() - start < 0.6  # or else the machine was busy
        self.assertEqual(self.launch(daemon, "com.example.slow", "--", "sleep", "0.8")[0], 0)
        reports = lambda app: [report for report in daemon.reports() if app in report]
        (name,) = until(lambda: reports("com.example.slow"), "the slow launch's report")
        if was_quick:
            self.assertEqual(reports("com.example.quick"), [])
        header = json.loads((daemon.spool / name).read_text())["metadata"]
        self.assertEqual((header["ServiceName"], header["ProcessPath"], header["PID"]), ("Launch", "com.example.slow", 0))
        self.assertGreaterEqual((header["EndTime"] - header["StartTime"]) / 24_000, 790)
        self.assertEqual(self.activations(daemon), [])  # traces are made instead of records


if __name__ == "__main__":
    unittest.main()
