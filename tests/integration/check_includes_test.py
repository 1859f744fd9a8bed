"""scripts/check-includes finds what it is there for."""
import pathlib
import subprocess
import tempfile
import unittest

SCRIPT = pathlib.Path(__file__).parents[2] / "scripts/check-includes"


class CheckIncludes(unittest.TestCase):
    def verdict(self, path, line):
        with tempfile.TemporaryDirectory() as root:
            file = pathlib.Path(root, path)
            file.parent.mkdir(parents=True)
            file.write_text(f"#pragma once\n{line}\n")
            return subprocess.run([SCRIPT, root], capture_output=True, text=True)

    def test_an_include_against_an_arrow_is_named(self):
        for path, line in [
                ("hangs/a.cpp", '#include "activation/b.h"'),
                ("perfstats/a.h", '#include "platform/linux/kernel.h"'),
                ("core/daemon.cpp", '#include "platform/linux/linux_platform.h"'),
                ("platform/linux/a.cpp", '#include "base/log.h"'),
                ("base/a.cpp", '#include "abi/messages.h"'),
                ("base/a.cpp", "#include <unistd.h>"),
                ("memsnapshot/a.cpp", "#include <pugixml.hpp>"),
                ("core/main.cpp", "#include <systemd/sd-daemon.h>"),
                ("client/a.c", "#include <systemd/sd-bus.h>"),
                ("tools/report/a.cpp", '#include "tools/page/report_html.h"'),
                ("kelvane/a.cpp", '#  include "tests/sim/world.h"'),
                ("kelvane/threads/a.h", '#include "kelvane/capture/process_capture.h"'),
                ("kelvane/verdict/a.cpp", '#include "kelvane/report/trace_events.h"'),
                ("kelvane/timeline/a.cpp", '#include "kelvane/entry.h"'),
        ]:
            with self.subTest(path=path, line=line):
                result = self.verdict(path, line)
                self.assertEqual(result.returncode, 1)
                self.assertIn(f"{path}:2: {line}", result.stdout)

    def test_an_include_along_the_arrows_passes(self):
        for path, line in [
                ("activation/a.cpp", '#include "base/log.h"'),
                ("core/main.cpp", '#include "platform/linux/linux_platform.h"'),
                ("core/main.cpp", "#include <cstdio>"),
                ("hangs/a.h", '#include "abi/hang_region.h"'),
                ("platform/linux/a.cpp", "#include <systemd/sd-bus.h>"),
                ("client/a.c", "#include <sys/socket.h>"),
                ("kelvane/report/a.cpp", '#include "kelvane/threads/frame.h"'),
                ("kelvane/a.cpp", '#include "abi/kelvane.h"'),
        ]:
            with self.subTest(path=path, line=line):
                self.assertEqual(self.verdict(path, line).returncode, 0)

    def test_a_tree_without_sources_is_no_success(self):
        with tempfile.TemporaryDirectory() as root:
            self.assertEqual(subprocess.run([SCRIPT, root], capture_output=True).returncode, 1)


if __name__ == "__main__":
    unittest.main()
