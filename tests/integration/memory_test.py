"""Memory reports of the running machine, held against /proc, and what becomes of them when something is refused."""
import collections
import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import time
import unittest

from scratch import CACHE, CTL, ScratchTest
from waiting import PATIENCE, until

PAGE = os.sysconf("SC_PAGE_SIZE")
LOGS = "Library/Logs/Faultkeep"
HELD_BYTES = 64 << 20
MIB = 1 << 20


def pairs(text):
    """The lines of a file of /proc as key to number; what has none is left out."""
    found = {}
    for line in text.splitlines():
        words = line.replace(":", " ").split()
        if len(words) > 1 and words[1].lstrip("-").isdigit():
            found[words[0]] = int(words[1])
    return found


def processes():
    """(pid, start) of each process with memory of its own to (name, oom_score_adj, bytes)."""
    found = {}
    for folder in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            status = pairs((folder / "status").read_text(errors="replace"))
            if "RssAnon" not in status:
                continue
            start = (folder / "stat").read_text(errors="replace").rpartition(")")[2].split()[19]
            name = os.path.basename(os.readlink(folder / "exe").removesuffix(" (deleted)"))
            adjustment = int((folder / "oom_score_adj").read_text())
            found[folder.name, start] = name, adjustment, (status["RssAnon"] + status["VmSwap"] + status.get("HugetlbPages", 0)) * 1024
        except OSError:
            pass  # gone meanwhile
    return found


def zones():
    """Name to pages of each slab cache."""
    found = {}
    for line in pathlib.Path("/proc/slabinfo").read_text().splitlines()[2:]:
        words = line.split()
        found[words[0]] = int(words[5]) * int(words[-2])
    return found


class Look:
    """The machine at one moment, as /proc tells it."""

    def __init__(self):
        self.processes = processes()
        self.zones = zones()
        self.vmstat = pairs(pathlib.Path("/proc/vmstat").read_text())
        self.meminfo = pairs(pathlib.Path("/proc/meminfo").read_text())


class Report:
    """A memory report, parsed by nothing but its documentation."""

    def __init__(self, path):
        text = path.read_text()
        decoder = json.JSONDecoder(object_pairs_hook=self.object)
        self.first, end = decoder.raw_decode(text)
        self.header, end = decoder.raw_decode(text, end + 1)
        self.body, end = decoder.raw_decode(text, end + 1)
        assert text[end:] == "\n", text[end:]

    @staticmethod
    def object(members):
        assert len(dict(members)) == len(members), members
        return dict(members)


class Memory(ScratchTest):
    def setUp(self):
        if not os.access("/proc/slabinfo", os.R_OK):
            self.skipTest("/proc/slabinfo can't be read (needs root): no report can be made")

    def logging(self, **options):
        daemon = self.daemon(start=False, kelvane=False, QuorvelEnableMemoryLogging=True,
                             QuorvelMemoryLoggingInterval=1, **options)
        daemon.logs = daemon.root / LOGS
        return daemon

    def next_report(self, daemon):
        """A report that was begun after this call."""
        known = set(daemon.logs.iterdir())
        new = lambda: sorted(set(daemon.logs.iterdir()) - known)
        return until(lambda: len(new()) > 1 and new()[1], "two more reports")

    def ctl(self, daemon, *arguments):
        return subprocess.run([CTL, "--root", daemon.root, "memory", *map(str, arguments)], check=True,
                              capture_output=True, text=True).stdout

    def holder(self, daemon):
        """A process of an awkward name that holds memory and is a favourite of the OOM killer."""
        name = 'say "hi" \\ h\u00e4lt'
        program = daemon.root / name
        shutil.copy(os.path.realpath(sys.executable), program)
        code = (f"import sys; held = b'x' * {HELD_BYTES}; open('/proc/self/oom_score_adj', 'w').write('777'); "
                "print('held', flush=True); sys.stdin.read()")
        child = subprocess.Popen([program, "-c", code], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.addCleanup(child.communicate)
        self.assertEqual(child.stdout.readline(), "held\n")
        return name

    # --- against /proc -------------------------------------------------------------------------------------------------

    def check_processes(self, before, after, body):
        """Each process that lived through is listed: the report's entries are matched one by one."""
        reported = collections.defaultdict(list)
        for entry in body["Processes"]:
            self.assertEqual(entry["Dirty"], "-")
            reported[entry["ProcessName"], entry["Priority"]].append(entry["Footprint"] * PAGE)
        expected = collections.defaultdict(list)
        for key, (name, adjustment, size) in before.processes.items():
            later = after.processes.get(key)
            if later and later[:2] == (name, adjustment):
                # The kernel's counts lag by a batch of pages for each CPU. Of one that is just growing or shrinking
                # all that is certain is that it is listed.
                low, high = sorted((size, later[2]))
                steady = high - low <= 2 * MIB
                expected[name, adjustment].append((high + 4 * MIB, low - 4 * MIB) if steady else (1 << 60, 0))
        # Of those that may be forks of one process, a size may be a share.
        for bounds in expected.values():
            if len(bounds) > 1:
                bounds[:] = [(high, 0) for high, _ in bounds]
        self.assertTrue(expected)
        for who, bounds in expected.items():
            free = sorted(reported[who])
            for high, low in sorted(bounds):
                match = next((size for size in free if size >= low), None)
                self.assertTrue(match is not None and match <= high, f"{who}: {low} to {high} not in {free}")
                free.remove(match)

    def check_counters(self, before, after, body):
        vm = body["VM"]
        for key, source in (("faults", "pgfault"), ("reactivations", "pgactivate"), ("swapins", "pswpin"),
                            ("swapouts", "pswpout")):
            self.assertLessEqual(before.vmstat[source], vm[key], key)
            self.assertLessEqual(vm[key], after.vmstat[source], key)
        self.assertEqual(vm["page_size"], PAGE)
        file_pages = lambda look: look.vmstat["nr_file_pages"] - look.vmstat["nr_shmem"]
        for key, pages in (("free_count", lambda look: look.meminfo["MemFree"] * 1024 // PAGE),
                           ("internal_page_count", lambda look: look.vmstat["nr_anon_pages"] + look.vmstat["nr_shmem"]),
                           ("external_page_count", file_pages)):
            low, high = sorted((pages(before), pages(after)))
            slack = high // 10 + 512 * MIB // PAGE  # what other programs may take and give back meanwhile
            self.assertTrue(low - slack <= vm[key] <= high + slack, f"{key}: {vm[key]} not in {low} to {high}")

    def check_kernel(self, before, after, body):
        reported = {entry["Name"]: entry["Pages"] for entry in body["Zones"]}
        lasting = before.zones.keys() & after.zones.keys()
        self.assertEqual(lasting - reported.keys(), set())
        still = 0
        for name in lasting:
            low, high = sorted((before.zones[name], after.zones[name]))
            slack = high // 4 + 16 * MIB // PAGE
            self.assertTrue(low - slack <= reported[name] <= high + slack, f"{name}: {reported[name]}, {low} to {high}")
            still += reported[name] in (low, high)
        self.assertGreater(still, len(lasting) // 2)
        wired = dict(pair for entry in body["Wired"] for pair in entry.items())
        self.assertAlmostEqual(wired["VM_KERN_COUNT_MANAGED"] * PAGE, before.meminfo["MemTotal"] * 1024, delta=MIB)

    def check_show(self, daemon, path, body):
        shown = json.loads(self.ctl(daemon, "show", path.name, "--json"))
        sizes = [process["footprintBytes"] for process in shown["processes"]]
        self.assertEqual(sizes, sorted((entry["Footprint"] * PAGE for entry in body["Processes"]), reverse=True))
        self.assertEqual(len(shown["zones"]), len(body["Zones"]))
        self.assertEqual(len(shown["uses"]) + len(shown["consumers"]) + len(shown["totals"]), len(body["Wired"]))
        account = shown["account"]
        self.assertEqual(sum(part["bytes"] for part in account["parts"]) + account["unaccountedBytes"],
                         account["totalBytes"])
        # One reading after the other: what others take or give back meanwhile is in the difference too.
        self.assertLess(abs(account["unaccountedBytes"]), account["totalBytes"] / 100 + 256 * MIB)
        self.assertIn("more, ", self.ctl(daemon, "show"))
        self.assertNotIn("more, ", self.ctl(daemon, "show", "--all"))

    def test_a_report_of_this_machine_agrees_with_proc(self):
        daemon = self.logging()
        (daemon.root / "etc").mkdir()
        (daemon.root / "etc/os-release").write_text('NAME="Orvane OS"\nVERSION_ID=7\nBUILD_ID="8\\"9"\n')
        daemon.start()
        daemon.wait_for("Memory snapshot not kept: /Library/Logs/Faultkeep//memory-snapshot-")
        daemon.logs.mkdir(parents=True)  # its absence costs no more than a report
        older = self.next_report(daemon)
        name = self.holder(daemon)
        before = Look()
        path = self.next_report(daemon)
        after = Look()

        report = Report(path)
        self.assertEqual(report.first, {"bug_type": "152", "os_version": 'Orvos 7 (8"9)'})
        self.assertEqual(path.name, f"memory-snapshot-{report.header['Timestamp']}.ips")
        self.assertEqual(list(report.header.values()),
                         [os.uname().machine, report.header["Timestamp"], 'Orvos 7 (8"9)'])
        self.assertEqual(list(report.body), ["VM", "Processes", "Zones", "Wired"])
        self.assertEqual(path.stat().st_mode & 0o777, 0o644)
        self.check_processes(before, after, report.body)
        self.check_counters(before, after, report.body)
        self.check_kernel(before, after, report.body)
        self.check_show(daemon, path, report.body)

        diff = json.loads(self.ctl(daemon, "diff", older.name, path, "--json"))
        change, = (entry for entry in diff["processes"] if entry["name"] == name)
        self.assertEqual((change["oldCount"], change["newCount"]), (0, 1))
        self.assertTrue(HELD_BYTES <= change["changeBytes"] <= HELD_BYTES + 32 * MIB, change)
        held, = (entry for entry in report.body["Processes"] if entry["ProcessName"] == name)
        self.assertEqual(held["Priority"], 777)
        self.ctl(daemon, "diff", older.name)

    def test_a_full_disk_gets_no_report_and_another_disk_keeps_a_whole_one(self):
        prefix = ["unshare", "--mount"]
        if subprocess.run([*prefix, "mount", "-t", "tmpfs", "none", "/mnt"], capture_output=True).returncode != 0:
            self.skipTest("no small file system can be mounted here (needs root)")
        daemon = self.logging()
        daemon.logs.mkdir(parents=True)
        cache = daemon.root / CACHE
        cache.mkdir(parents=True)
        fill = 'mount -t tmpfs -o size=8m none "$0" && head -c 9m /dev/zero >"$0/filler" 2>/dev/null; exec "$@"'
        daemon.prefix = [*prefix, "sh", "-c", fill, str(cache)]
        daemon.start()
        daemon.wait_for(".ips No space left on device")
        inside = pathlib.Path(f"/proc/{daemon.process.pid}/root{cache}")
        self.assertEqual(list(daemon.logs.iterdir()), [])
        self.assertEqual(list(inside.glob("*.ips")), [])
        (inside / "filler").unlink()
        until(lambda: list(daemon.logs.glob("*.ips")), "a report on the other file system")
        self.assertEqual(list(Report(next(daemon.logs.glob("*.ips"))).body)[0], "VM")

    def test_the_work_queue_is_not_held_up(self):
        daemon = self.logging()
        daemon.logs.mkdir(parents=True)
        for number in range(1000):  # what there is to look at when room is made
            (daemon.logs / f"memory-snapshot-2026-01-01-10{number:04}.ips").touch()
        daemon.start()
        main = pathlib.Path(f"/proc/{daemon.process.pid}/task/{daemon.process.pid}/schedstat")
        ran = lambda: (len(list(daemon.logs.iterdir())), int(main.read_text().split()[0]) / 1e6)
        self.next_report(daemon)
        reports, began_ms = ran()
        until(lambda: ran()[0] >= reports + 3, "three more reports")
        more, ended_ms = ran()
        self.assertLess((ended_ms - began_ms) / (more - reports), 2, "ms of its thread for each report")

    def stopped_in_the_middle(self):
        """A daemon that SIGSTOP has met with a report under way, and that report's working file."""
        daemon = self.logging()
        daemon.logs.mkdir(parents=True)
        daemon.start()
        end = time.monotonic() + PATIENCE
        while True:
            working = next((daemon.root / CACHE).glob("memory-snapshot-*"), None)
            if working:
                daemon.process.send_signal(signal.SIGSTOP)
                os.waitid(os.P_PID, daemon.process.pid, os.WSTOPPED | os.WNOWAIT)
                if working.exists():
                    return daemon, working
                daemon.process.send_signal(signal.SIGCONT)
            self.assertLess(time.monotonic(), end, "no report was met in the middle")

    def test_an_end_in_the_middle_waits_for_the_report(self):
        daemon, working = self.stopped_in_the_middle()
        daemon.process.send_signal(signal.SIGTERM)
        daemon.process.send_signal(signal.SIGCONT)
        self.assertEqual(daemon.process.wait(PATIENCE), 0)
        Report(daemon.logs / working.name)
        self.assertEqual(list((daemon.root / CACHE).glob("memory-snapshot-*")), [])

    def test_a_kill_in_the_middle_leaves_nothing_under_a_reports_name(self):
        daemon, working = self.stopped_in_the_middle()
        finished = set(daemon.logs.iterdir())
        daemon.process.kill()
        daemon.process.wait()
        self.assertEqual(set(daemon.logs.iterdir()), finished)
        self.assertNotIn(daemon.logs / working.name, finished)
        for path in finished:
            Report(path)
        daemon.start()
        Report(self.next_report(daemon))

    def test_processes_that_vanish_meanwhile_spoil_no_report(self):
        daemon = self.logging()
        daemon.logs.mkdir(parents=True)
        daemon.start()
        for _ in range(3):
            churn = subprocess.Popen(["sh", "-c", "while :; do sleep 0 & sleep 0; done"])
            self.addCleanup(churn.wait)
            self.addCleanup(churn.kill)
        for _ in range(3):
            self.assertGreater(len(Report(self.next_report(daemon)).body["Processes"]), 4)
        self.assertNotIn("not kept", daemon.log())


class Refused(ScratchTest):
    def test_without_permission_no_report_is_kept_and_one_line_says_why(self):
        prefix = []
        if os.getuid() == 0:
            prefix = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]
        elif os.access("/proc/slabinfo", os.R_OK):
            self.skipTest("/proc/slabinfo is refused to nobody here")
        daemon = self.daemon(start=False, kelvane=False, prefix=prefix, QuorvelEnableMemoryLogging=True,
                             QuorvelMemoryLoggingInterval=1)
        logs = daemon.root / LOGS
        logs.mkdir(parents=True)
        if prefix:
            daemon.copy_programs()
            subprocess.run(["chown", "-R", "65534:65534", daemon.root], check=True)
        daemon.start()
        daemon.wait_for("No memory snapshot without /proc/slabinfo: Permission denied")
        time.sleep(2.5)  # a few more are tried, and not mentioned again
        self.assertTrue(daemon.alive())
        self.assertEqual(daemon.stop(), 0)
        self.assertEqual(len(daemon.lines("No memory snapshot")), 1, daemon.log())
        self.assertEqual([path for path in daemon.root.rglob("memory-snapshot-*")], [])


if __name__ == "__main__":
    unittest.main()
