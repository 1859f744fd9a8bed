"""Memory that is taken in the ways in which programs take it is found where a reader would look: in a report's file, in
`memory show`, in `memory diff`, in `memory now`. Each way is judged by its own line: other programs of the machine move the rest."""
import json
import mmap
import os
import pathlib
import pty
import pwd
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import termios
import unittest

from scratch import CTL, ScratchTest
from waiting import until

HOLDER = pathlib.Path(__file__).parent / "memory_holder.py"
PAGE = os.sysconf("SC_PAGE_SIZE")
MIB = 1 << 20
SIZE = 96 * MIB
SLACK = 48 * MIB  # what others may take or give back meanwhile, of the same kind
LOGS = "Library/Logs/Faultkeep"
OVERCOMMIT = pathlib.Path("/proc/sys/vm/nr_overcommit_hugepages")


class Report:
    """A report as its file has it, in bytes, and as the tool tells it."""

    def __init__(self, ctl, path):
        text = path.read_text()
        body = json.loads(text[text.index("{\n\"VM\""):])
        self.path = path
        self.wired = {}
        for entry in body["Wired"]:
            for name, pages in entry.items():
                self.wired[name] = pages * PAGE
        self.zones = {zone["Name"]: zone["Pages"] * PAGE for zone in body["Zones"]}
        self.sizes = {}
        for process in body["Processes"]:
            self.sizes.setdefault(process["ProcessName"], []).append(process["Footprint"] * PAGE)
        self.files = body["VM"]["external_page_count"] * PAGE
        self.shown = json.loads(ctl("show", path, "--json"))
        self.parts = {part["name"]: part["bytes"] for part in self.shown["account"]["parts"]}
        self.unaccounted = self.shown["account"]["unaccountedBytes"]


class Ways(ScratchTest):
    @classmethod
    def setUpClass(cls):
        if not os.access("/proc/slabinfo", os.R_OK):
            raise unittest.SkipTest("/proc/slabinfo can't be read (needs root): no report can be made")
        free = int(pathlib.Path("/proc/meminfo").read_text().split("MemAvailable:")[1].split()[0]) * 1024
        if free < 2048 * MIB:
            raise unittest.SkipTest("the machine has less than 2 GB to spare")

    def setUp(self):
        self.daemon_ = self.daemon(start=False, kelvane=False, QuorvelEnableMemoryLogging=True,
                                   QuorvelMemoryLoggingInterval=1)
        self.logs = self.daemon_.root / LOGS
        self.logs.mkdir(parents=True)
        self.daemon_.start()

    def ctl(self, *arguments):
        return subprocess.run([CTL, "--root", self.daemon_.root, "memory", *map(str, arguments)], check=True,
                              capture_output=True, text=True).stdout

    def next_reports(self, count):
        """Reports that were begun after this call."""
        known = set(self.logs.iterdir())
        new = lambda: sorted(set(self.logs.iterdir()) - known)
        return [Report(self.ctl, path) for path in until(lambda: len(new()) > count and new()[1:], "more reports")]

    def hold(self, way, place="", size=SIZE):
        """A process of the program way-WAY that holds so much."""
        program = self.daemon_.root / f"way-{way}"
        shutil.copy(os.path.realpath(sys.executable), program)
        child = subprocess.Popen([program, HOLDER, way, str(size), str(place)], stdin=subprocess.PIPE,
                                 stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.addCleanup(child.communicate)
        self.assertEqual(child.stdout.readline(), "held\n", way)
        return child

    def look(self, hold):
        """A report from before and one from while `hold` has made something hold memory, and what differs."""
        before = self.next_reports(1)[-1]
        hold()
        after = self.next_reports(1)[-1]
        diff = json.loads(self.ctl("diff", before.path, after.path, "--json"))
        changes = {kind: {change["name"]: change["changeBytes"] for change in diff[kind]}
                   for kind in ("account", "processes", "zones", "uses", "consumers")}
        return before, after, changes

    def now(self):
        return json.loads(self.ctl("now", "--json"))

    def now_of(self, *children):
        pids = [child.pid for child in children]
        return [process for process in self.now()["processes"] if process["pid"] in pids]

    def check_line(self, hold, entry, part, kind, line, size=SIZE):
        """One line of the file, of the account and of the difference that is to grow by `size`."""
        before, after, changes = self.look(hold)
        self.assertGreater(after.wired.get(entry, 0) - before.wired.get(entry, 0), size - SLACK, entry)
        self.assertGreater(after.parts[part], size - SLACK)
        self.assertGreater(changes["account"].get(part, 0), size - SLACK, changes["account"])
        self.assertGreater(changes[kind].get(line, 0), size - SLACK, changes[kind])

    # --- processes -----------------------------------------------------------------------------------------------------

    def check_process(self, way):
        children = []
        _, after, changes = self.look(lambda: children.append(self.hold(way)))
        now, = self.now_of(*children)
        self.assertEqual((now["name"], now["user"]), (f"way-{way}", pwd.getpwuid(os.getuid()).pw_name))
        self.assertIn(f"memory_holder.py {way}", now["commandLine"])
        self.assertTrue(SIZE <= now["sizeBytes"] <= SIZE + 24 * MIB, now)
        held, = after.sizes[f"way-{way}"]
        self.assertTrue(SIZE <= held <= SIZE + 24 * MIB, held)
        self.assertGreaterEqual(changes["processes"][f"way-{way}"], SIZE)
        self.assertIn(f"way-{way}\n", self.ctl("show", after.path, "--all"))

    def test_malloc(self):
        self.check_process("malloc")

    def test_a_thread_that_outlives_the_main_thread(self):
        self.check_process("thread")

    def test_forks_share_what_they_hold_together_or_are_marked(self):
        _, after, changes = self.look(lambda: self.hold("fork"))
        held = after.sizes["way-fork"]
        self.assertEqual(len(held), 5)
        self.assertGreaterEqual(changes["processes"]["way-fork"], SIZE)
        now, = (group for group in json.loads(self.ctl("now", "--by", "program", "--json"))["groups"]
                if group["name"] == "way-fork")
        self.assertEqual(now["count"], 5)
        self.assertTrue(now["isUpperBound"] or now["sizeBytes"] < 2 * SIZE, now)
        rows = [line for line in self.ctl("show", after.path, "--all").splitlines() if line.endswith("  way-fork")]
        self.assertEqual(len(rows), 5)
        if sum(held) > 3 * SIZE:  # the walks didn't fit into their time
            self.assertTrue(all(row.startswith("<= ") for row in rows), rows)
            self.assertLess(sum(held), 5 * (SIZE + 24 * MIB))

    def test_huge_pages(self):
        if not re.search(r"HugePages_Free: +0\n", pathlib.Path("/proc/meminfo").read_text()):
            self.skipTest("huge pages are reserved here, which would be taken first")
        try:
            spare = int(OVERCOMMIT.read_text())
            OVERCOMMIT.write_text(str(spare + SIZE // (2 * MIB)))
        except OSError as refusal:
            self.skipTest(f"no huge pages can be had: {refusal}")
        self.addCleanup(OVERCOMMIT.write_text, str(spare))
        try:
            mmap.mmap(-1, SIZE, mmap.MAP_PRIVATE | mmap.MAP_ANONYMOUS | 0x40000).close()
        except OSError as refusal:
            self.skipTest(f"no huge pages can be had: {refusal}")
        line = "huge pages (hugetlb)"
        children = []
        self.check_line(lambda: children.append(self.hold("hugetlb")), "VM_KERN_MEMORY_101", line, "uses", line)
        self.assertGreaterEqual(self.now_of(*children)[0]["hugeBytes"], SIZE)
        self.assertGreaterEqual(self.next_reports(1)[-1].sizes["way-hugetlb"][0], SIZE)

    def test_a_pool_of_huge_pages_and_who_takes_them(self):
        pool = pathlib.Path("/proc/sys/vm/nr_hugepages")
        size = int(pathlib.Path("/proc/meminfo").read_text().split("Hugepagesize:")[1].split()[0]) * 1024
        if size > SIZE:
            self.skipTest(f"a huge page has {size} bytes here")
        before = int(pool.read_text())
        self.addCleanup(lambda: pool.write_text(str(before)))
        wanted = before + SIZE // size
        try:
            pool.write_text(str(wanted))
        except OSError as refusal:
            self.skipTest(f"no huge pages can be reserved: {refusal}")
        if int(pool.read_text()) < wanted:
            self.skipTest("the machine's memory is too fragmented to reserve huge pages")
        pool.write_text(str(before))
        line = "huge pages (hugetlb)"
        self.check_line(lambda: pool.write_text(str(wanted)), "VM_KERN_MEMORY_101", line, "uses", line)
        # What a process takes out of it is that one's, and the pool's all the same.
        children = []
        reserved, taken, _ = self.look(lambda: children.append(self.hold("hugetlb")))
        self.assertLess(abs(taken.parts[line] - reserved.parts[line]), SLACK)
        self.assertGreaterEqual(taken.sizes["way-hugetlb"][0], SIZE)
        self.assertGreaterEqual(self.now_of(*children)[0]["hugeBytes"], SIZE)

    # --- what no process has alone -------------------------------------------------------------------------------------

    def check_shared(self, *arguments):
        line = "shared memory: tmpfs, memfd, SysV, shared mappings"
        children = []
        self.check_line(lambda: children.append(self.hold(*arguments)), "VM_KERN_MEMORY_100", line, "uses", line)
        now = self.now()
        return [held for held in now["shared"] if held["bytes"] >= SIZE], children[0].pid, now

    def test_a_memfd_that_is_only_a_descriptor(self):
        shared, pid, _ = self.check_shared("memfd")
        self.assertIn(("memfd", "/memfd:quorveld test (deleted)", [pid]),
                      [(held["kind"], held["name"], held["pids"]) for held in shared])

    def test_a_file_of_a_tmpfs(self):
        if subprocess.run(["stat", "-fc", "%T", "/dev/shm"], capture_output=True, text=True).stdout != "tmpfs\n":
            self.skipTest("/dev/shm is no tmpfs")
        place = tempfile.mktemp(prefix="quorveld-test-", dir="/dev/shm")
        self.addCleanup(lambda: pathlib.Path(place).unlink(missing_ok=True))
        *_, now = self.check_shared("tmpfs", place)
        self.assertTrue([mount for mount in now["tmpfs"] if mount["usedBytes"] >= SIZE], now["tmpfs"])

    def test_a_system_v_segment(self):
        shared, *_ = self.check_shared("sysv")
        self.assertIn(("SysV", []), [(held["kind"], held["pids"]) for held in shared])

    def test_zram(self):
        control = pathlib.Path("/sys/class/zram-control")
        try:
            number = (control / "hot_add").read_text().strip()
        except OSError as refusal:
            self.skipTest(f"no zram device can be made: {refusal}")
        self.addCleanup(lambda: (control / "hot_remove").write_text(number))
        device = pathlib.Path(f"/dev/zram{number}")
        pathlib.Path(f"/sys/block/zram{number}/disksize").write_text(str(2 * SIZE))
        if not device.exists():
            self.skipTest("no device file is made for zram")
        line = "compressed swap (zram)"
        self.check_line(lambda: self.hold("zram", device), "VM_KERN_MEMORY_102", line, "uses", line)

    def disk_folder(self):
        """A folder of a file system whose pages are a disk's: a tmpfs's are shared memory, and it keeps no names."""
        for place in (os.environ["QV_TEST_BUILD"], "/var/tmp"):
            kind = subprocess.run(["stat", "-f", "-c", "%T", place], capture_output=True, text=True).stdout.strip()
            if kind not in ("", "tmpfs", "ramfs"):
                folder = pathlib.Path(tempfile.mkdtemp(dir=place, prefix="memory-ways-"))
                self.addCleanup(shutil.rmtree, folder)
                return folder
        self.skipTest("the build and /var/tmp are in memory")

    def test_a_mapped_file(self):
        children = []
        place = self.disk_folder() / "mapped"
        _, after, _ = self.look(lambda: children.append(self.hold("mapped", place)))
        self.assertGreaterEqual(self.now_of(*children)[0]["fileBytes"], SIZE)
        self.assertGreaterEqual(after.files, SIZE)
        self.assertGreaterEqual(after.parts["file cache"], SIZE)

    def test_page_tables(self):
        children = []
        self.check_line(lambda: children.append(self.hold("tables")), "VM_KERN_MEMORY_PTE", "page tables", "consumers",
                        "VM_KERN_MEMORY_PTE")
        self.assertGreaterEqual(self.now_of(*children)[0]["tableBytes"], SIZE)

    def test_names_that_the_kernel_keeps(self):
        def in_use():
            text = pathlib.Path("/proc/slabinfo").read_text()
            line = next(line for line in text.splitlines() if line.startswith("dentry "))
            return int(line.split()[1]), int(line.split()[2])

        used, all_ = in_use()
        place = self.disk_folder()
        before, after, changes = self.look(lambda: self.hold("dentries", place))
        if in_use()[0] - used < SIZE // 192 // 2:
            self.skipTest("this file system keeps no names of what is not there")
        grown = SIZE - (all_ - used) * 192  # what was free in the zone is used first
        self.assertGreater(after.zones["dentry"] - before.zones["dentry"], grown // 2)
        self.assertGreater(changes["zones"].get("dentry", 0), grown // 2)
        zones = {zone["name"]: zone["bytes"] for zone in self.now()["zones"]}
        self.assertGreater(zones["dentry"], before.zones["dentry"] + grown // 2)

    def test_pipes_are_unaccounted_for_and_now_finds_them(self):
        count = 5
        size = 200 * MIB
        before = statistics.median(report.unaccounted for report in self.next_reports(count))
        try:
            child = self.hold("pipes", size=size)
        except AssertionError:
            self.skipTest("pipes of 1 MiB aren't allowed")
        after = self.next_reports(count)
        self.assertGreater(statistics.median(report.unaccounted for report in after) - before, size // 2)
        self.assertIn({"kind": "pipe", "name": "", "bytes": size, "pids": [child.pid]}, self.now()["shared"])

    def test_growth_finds_a_leak_while_it_runs(self):
        self.hold("malloc")
        self.hold("leak", size=4 * MIB)
        self.next_reports(24)
        growth = json.loads(self.ctl("growth", "--since", "20m", "--json"))
        found = {entry["name"]: entry["bytesPerHour"] for entry in growth["growing"] if entry["kind"] == "process"}
        self.assertNotIn("way-malloc", found)
        self.assertIn("way-leak", found, growth)
        self.assertGreater(found["way-leak"], 3600 * MIB)  # a fourth: on a busy machine it gets around less
        self.assertIn("  process  way-leak\n", self.ctl("growth"))

    def test_now_fits_the_terminal(self):
        self.hold("malloc")
        for width in (80, 40):
            for options in ([], ["--by", "program"], ["--by", "user"], ["--by", "cgroup"]):
                ours, theirs = pty.openpty()
                termios.tcsetwinsize(theirs, (24, width))
                shown = subprocess.Popen([CTL, "memory", "now", "--top", "5", *options], stdout=theirs)
                os.close(theirs)
                text = b""
                try:
                    while piece := os.read(ours, 4096):
                        text += piece
                except OSError:
                    pass  # how a terminal says that nobody writes to it any more
                os.close(ours)
                self.assertEqual(shown.wait(), 0)
                lines = text.decode().split("\r\n")
                self.assertGreater(len(lines), 10)
                self.assertEqual([line for line in lines if len(line) > width], [], options)


if __name__ == "__main__":
    unittest.main()
