"""What collectors get: the documented SQL on a real PostgreSQL with 100,000 lines, the rules and the dashboard in promtool's eyes,
and every metric of a running daemon in its documents."""
import json
import os
import pathlib
import random
import re
import shutil
import subprocess
import tempfile
import unittest

from scratch import ScratchTest
from waiting import until

TREE = pathlib.Path(__file__).parents[2]
INITDB = sorted(pathlib.Path("/usr/lib/postgresql").glob("*/bin/initdb"))
PROMTOOL = shutil.which("promtool")
LINES = 100_000


def line_of(number, chance):
    signature = chance.randrange(200)
    version = "kelvane 0.3.0" if number > LINES * 0.8 else "kelvane 0.2.0"
    return {"file": f"MainThread-viewer-{number}.kelvane", "writtenAt": f"2026-{1 + number * 9 // LINES:02}-{1 + number % 28:02}T10:00:00Z",
            "device": f"device-{chance.randrange(500)}", "host": "Linux, 6.1", "version": version, "kind": "hang",
            "process": "vie\twer \"x\"\\", "pid": number, "hang": "MainThread", "reason": None,
            "durationMs": chance.choice([None, 5000, 8500.5]), "cause": chance.choice([None, "lock", "disk", "cpu"]), "sentence": "ü",
            "culprit": None, "function": "read", "signature": None if number % 9 == 0 else
            f"{signature + (1000 if version.endswith('3.0') and signature < 3 else 0):016}",
            "runningMs": 1, "runnableMs": 0, "sleepingMs": 2, "uninterruptibleMs": 0}


@unittest.skipUnless(INITDB, "PostgreSQL's server is not installed")
class Database(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="quorveld-fleet-", dir="/tmp"))
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)
        # The server refuses to run as root.
        self.user = {"user": "nobody", "group": "nogroup", "extra_groups": []} if os.getuid() == 0 else {}
        if self.user:
            shutil.chown(self.folder, "nobody", "nogroup")

    def run_as_user(self, *command, **options):
        return subprocess.run([str(word) for word in command], cwd=self.folder, text=True, capture_output=True, timeout=300,
                              check=True, **self.user, **options).stdout

    def test_the_five_questions_are_answered(self):
        tools, data = INITDB[-1].parent, self.folder / "data"
        self.run_as_user(tools / "initdb", "-D", data, "-A", "trust", "-E", "UTF8", "--no-sync", "-U", "fleet")
        options = f"-c listen_addresses='' -c unix_socket_directories={self.folder} -c fsync=off"
        subprocess.run([tools / "pg_ctl", "-D", data, "-o", options, "-l", self.folder / "log", "-w", "start"], check=True,
                       cwd=self.folder, stdout=subprocess.DEVNULL, timeout=120, **self.user)
        self.addCleanup(self.run_as_user, tools / "pg_ctl", "-D", data, "-m", "immediate", "stop")
        chance = random.Random(7)
        with open(self.folder / "reports.ndjson", "w") as lines:
            lines.writelines(json.dumps(line_of(number, chance)) + "\n" for number in range(LINES))
        os.chmod(self.folder / "reports.ndjson", 0o644)

        def ask(sql):
            return self.run_as_user(tools / "psql", "-h", self.folder, "-U", "fleet", "-v", "ON_ERROR_STOP=1", "-qAt", "-f", "-",
                                    "postgres", input=sql).splitlines()

        schema, load, *questions = re.findall(r"```sql\n(.*?)```", (TREE / "docs/fleet.md").read_text(), re.DOTALL)
        self.assertEqual(len(questions), 5)
        ask(schema)
        ask(load)
        ask(load)  # twice changes nothing
        self.assertEqual(ask("SELECT count(*), count(DISTINCT process) FROM hang_reports"), [f"{LINES}|1"])
        most, new, devices, causes, weeks = (ask(question.replace("now()", "'2026-09-30'::timestamptz")) for question in questions)
        self.assertEqual((len(most), len(devices), len(causes)), (20, 20, 4))
        self.assertNotIn("", {row.split("|")[0] for row in most})
        self.assertEqual({row.split("|")[0] for row in new}, {f"{1000 + i:016}" for i in range(3)})
        self.assertAlmostEqual(sum(float(row.split("|")[2]) for row in causes), 100, delta=1)
        self.assertGreater(len(weeks), 30)


class Metrics(ScratchTest):
    def expressions(self):
        panels = json.loads((TREE / "packaging/grafana/quorveld.json").read_text())["panels"]
        self.assertEqual(len({panel["id"] for panel in panels}), len(panels))
        return [target["expr"] for panel in panels for target in panel["targets"]]

    def test_what_is_written_is_documented_and_what_is_asked_is_written(self):
        daemon = self.daemon(QuorvelHangTimeoutDuration=1000.0, QuorvelLongHangDurationThreshold=60000.0)
        sample = daemon.sample("--hang", "0.3", "--times", "7", "--report")
        sample.communicate()
        file = daemon.root / "var/lib/quorveld/quorveld.prom"
        until(lambda: file.exists() and "QVLogsMissedDueToProcessLimit.quorvel-sample" in file.read_text(), "the counters")
        text = file.read_text()
        documents = (TREE / "docs/metrics.md").read_text()
        families = re.findall(r"^# TYPE (\S+)", text, re.MULTILINE)
        for family in families:
            self.assertIn(f"`{family}`", documents)
        for expression in self.expressions() + [(TREE / "packaging/prometheus/quorveld.rules.yml").read_text()]:
            for name in re.findall(r"(?<!:)\bquorveld_\w+", expression):
                self.assertIn(re.sub(r"_(bucket|sum|count)$", "", name), families)
        if PROMTOOL:
            checked = subprocess.run([PROMTOOL, "check", "metrics"], input=text, text=True, capture_output=True, timeout=60)
            self.assertEqual(checked.returncode, 0, checked.stdout + checked.stderr)

    @unittest.skipUnless(PROMTOOL, "promtool (prometheus) is not installed")
    def test_rules_and_panels_are_valid(self):
        with tempfile.TemporaryDirectory() as folder:
            panels = pathlib.Path(folder) / "panels.yml"
            rules = [{"record": f"panel:{i}", "expr": expression} for i, expression in enumerate(self.expressions())]
            panels.write_text(json.dumps({"groups": [{"name": "panels", "rules": rules}]}))  # JSON is YAML
            subprocess.run([PROMTOOL, "check", "rules", panels, TREE / "packaging/prometheus/quorveld.rules.yml"], check=True,
                           stdout=subprocess.DEVNULL, timeout=60)


if __name__ == "__main__":
    unittest.main()
