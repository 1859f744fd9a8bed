"""A machine with little memory."""
import pathlib

from machine import MachineTest, main_pid, report


class Small(MachineTest):
    def test_a_hang_is_reported(self):
        total = int(pathlib.Path("/proc/meminfo").read_text().split()[1]) // 1024
        self.assertLess(total, 256)
        self.sample("--hang", "12", "--how", "lock")
        self.assertEqual(report(self.filed())["metadata"]["verdict"]["cause"], "lock")
        status = pathlib.Path(f"/proc/{main_pid()}/status").read_text().splitlines()
        print("#", [line for line in status if line.startswith(("VmRSS", "VmHWM"))], f"of {total} MB", flush=True)
