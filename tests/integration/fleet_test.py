"""What collectors get: the documented SQL on a real PostgreSQL with 100,000 lines; the counters of a running daemon in a real
Prometheus, by way of node_exporter, with every expression of the rules and the dashboard; and every metric in its documents."""
import gzip
import json
import os
import pathlib
import random
import re
import shutil
import subprocess
import tempfile
import threading
import time
import unittest
import urllib.error
import urllib.parse
import urllib.request

from dbus_peer import Int64
from scratch import CACHE, CTL, ScratchTest
from waiting import PATIENCE, until

TREE = pathlib.Path(__file__).parents[2]
INITDB = sorted(pathlib.Path("/usr/lib/postgresql").glob("*/bin/initdb"))
PROMTOOL = shutil.which("promtool")
PROMETHEUS = shutil.which("prometheus")
NODE_EXPORTER = shutil.which("prometheus-node-exporter")
RULES = TREE / "packaging/prometheus/quorveld.rules.yml"
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


class Collecting(ScratchTest):
    """Both ways out of the spool, into a folder that is too small at first."""
    REPORTS = 5

    def setUp(self):
        self.root = pathlib.Path(tempfile.mkdtemp(prefix="quorveld-fleet-"))
        self.addCleanup(shutil.rmtree, self.root)
        self.spool, self.upload = self.root / CACHE / "spool", self.root / "upload"
        self.spool.mkdir(parents=True)
        self.upload.mkdir()
        self.reports = {}
        for number in range(self.REPORTS):
            reason = random.Random(number).randbytes(4000).hex()  # which gzip can't make much of
            self.reports[f"MainThread-viewer-{number}.kelvane"] = json.dumps(
                {"metadata": {"ServiceName": "MainThread", "ProcessPath": "/bin/viewer", "Reason": reason}})
        for name, text in self.reports.items():
            (self.spool / name).write_text(text)

    def collect(self, shell, limited):
        """What it returned, and what it left in the folder."""
        shell = shell.replace("/var/root/Library/Caches/quorveld/spool", str(self.spool)).replace("/var/spool/upload", str(self.upload))
        small = f"mount -t tmpfs -o size=16k none {self.upload}; " if limited else ""
        command = ["unshare", "--mount"] if limited else []
        environment = {**os.environ, "QUORVELD_ROOT": str(self.root), "PATH": f"{pathlib.Path(CTL).parent}:{os.environ['PATH']}"}
        told = subprocess.run([*command, "sh", "-c", f"{small}({shell}); status=$?; ls {self.upload}; exit $status"], env=environment,
                              capture_output=True, text=True, timeout=PATIENCE)
        if limited:
            self.assertIn("No space left on device", told.stderr)
        return told.returncode, told.stdout.split()

    def needs_mounts(self):
        if subprocess.run(["unshare", "--mount", "mount", "-t", "tmpfs", "none", "/mnt"], capture_output=True).returncode != 0:
            self.skipTest("no small file system can be mounted here (needs root)")

    def test_a_full_disk_costs_no_report_whose_line_is_not_on_it(self):
        self.needs_mounts()
        shell = "quorvelctl reports export --delete-after -o /var/spool/upload/reports.ndjson"
        self.assertEqual(self.collect(shell, limited=True)[0], 1)
        self.assertEqual({path.name for path in self.spool.iterdir()}, set(self.reports))
        self.assertEqual(self.collect(shell, limited=False), (0, ["reports.ndjson"]))
        self.assertEqual(len((self.upload / "reports.ndjson").read_text().splitlines()), self.REPORTS)
        self.assertEqual(list(self.spool.iterdir()), [])

    def test_the_documented_way_of_whole_reports_loses_none(self):
        self.needs_mounts()
        (shell,) = re.findall(r"```sh\n(cd .*?)```", (TREE / "docs/fleet.md").read_text(), re.DOTALL)
        left = self.collect(shell, limited=True)[1]
        whole = {name for name in left if name.endswith(".gz")}
        self.assertIn(len(whole), range(1, self.REPORTS))
        self.assertEqual({path.name + ".gz" for path in self.spool.iterdir()} | whole, {name + ".gz" for name in self.reports})
        for name, text in self.reports.items():
            (self.spool / name).write_text(text)
        self.collect(shell, limited=False)
        self.assertEqual({path.name: gzip.decompress(path.read_bytes()).decode() for path in self.upload.iterdir()},
                         {name + ".gz": text for name, text in self.reports.items()})
        self.assertEqual(list(self.spool.iterdir()), [])


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
        for expression in self.expressions() + [RULES.read_text()]:
            for name in re.findall(r"(?<!:)\bquorveld_\w+", expression):
                self.assertIn(re.sub(r"_(bucket|sum|count)$", "", name), families)
        if PROMTOOL:
            checked = subprocess.run([PROMTOOL, "check", "metrics"], input=text, text=True, capture_output=True, timeout=60)
            self.assertEqual(checked.returncode, 0, checked.stdout + checked.stderr)

    @unittest.skipUnless(PROMTOOL, "promtool (prometheus) is not installed")
    def test_the_first_event_of_a_counter_counts(self):
        """Of each application since the daemon's start, that is; many hang once."""
        def series(family, bundle, values, device="a"):
            return {"series": f'{family}{{instance="{device}",job="devices",bundle="{bundle}",hang="MainThread"}}', "values": values}
        count = "quorveld_duration_seconds_count"
        refused = 'quorveld_events_total{instance="a",job="devices",key="com.corvix.quorvel.QVReportsRefused.daily-limit"}'
        tests = [{
            "interval": "1m",
            "input_series": [
                {"series": 'quorveld_build_info{instance="a",job="devices",version="1"}', "values": "1+0x3000"},
                {"series": 'quorveld_build_info{instance="b",job="devices",version="1"}', "values": "_x2960 1+0x40"},
                series(count, "first", "_x2970 1+0x30"),
                series(count, "more", "3+0x2970 5+0x29"),
                series(count, "restarted", "5+0x2950 _x20 1+0x28"),
                series(count, "unseen", "_x2960 7+0x40", device="b"),  # nobody knows when
                {"series": refused, "values": "_x2970 1+0x30"}],
            "promql_expr_test": [
                {"expr": "bundle:quorveld_hangs:increase1h", "eval_time": "2990m", "exp_samples": [
                    {"labels": f'bundle:quorveld_hangs:increase1h{{bundle="{bundle}"}}', "value": value}
                    for bundle, value in (("first", 1), ("more", 2), ("restarted", 1), ("unseen", 0))]}],
            "alert_rule_test": [{"eval_time": "2990m", "alertname": "HangReportsAreRefused", "exp_alerts": [{
                "exp_labels": {"severity": "info", "instance": "a", "job": "devices",
                               "key": "com.corvix.quorvel.QVReportsRefused.daily-limit"},
                "exp_annotations": {"summary": "a has used up its reports of the day"}}]}],
        }]
        with tempfile.TemporaryDirectory() as folder:
            cases = pathlib.Path(folder) / "cases.yml"
            cases.write_text(json.dumps({"rule_files": [str(RULES)], "evaluation_interval": "1m", "tests": tests}))  # JSON is YAML
            told = subprocess.run([PROMTOOL, "test", "rules", cases], capture_output=True, text=True, timeout=PATIENCE)
            self.assertEqual(told.returncode, 0, told.stdout + told.stderr)

    def serve(self, *command):
        """A server on a free port of the loopback interface. Returns its address, which it logs."""
        server = subprocess.Popen([*command, "--web.listen-address=127.0.0.1:0"], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                                  text=True)
        log = []
        reader = threading.Thread(target=lambda: log.extend(iter(server.stderr.readline, "")))
        reader.start()
        for end in (server.stderr.close, reader.join, server.wait, server.kill):  # the last one first
            self.addCleanup(end)
        address = until(lambda: re.search(r'"?Listening on"? address=(127\.0\.0\.1:\d+)', "".join(log)), "the server's address")
        return address[1]

    @unittest.skipUnless(PROMETHEUS and NODE_EXPORTER, "prometheus and prometheus-node-exporter are not installed")
    def test_a_real_prometheus_answers_every_expression(self):
        daemon = self.daemon(start=False, QuorvelHangTimeoutDuration=1000.0, QuorvelLongHangDurationThreshold=60000.0)
        daemon.write_preferences("com.corvix.quorvel", QuorvelEnableAppActivationLogging=True)
        daemon.start()
        folder = pathlib.Path(tempfile.mkdtemp(prefix="quorveld-fleet-"))
        self.addCleanup(shutil.rmtree, folder, ignore_errors=True)
        exporter = self.serve(NODE_EXPORTER, "--collector.disable-defaults", "--collector.textfile",
                              f"--collector.textfile.directory={daemon.root}/var/lib/quorveld")
        configuration = folder / "prometheus.yml"
        configuration.write_text(json.dumps({
            "global": {"scrape_interval": "1s", "evaluation_interval": "1s"}, "rule_files": [str(RULES)],
            "scrape_configs": [{"job_name": "devices", "static_configs": [{"targets": [exporter]}]}]}))
        prometheus = self.serve(PROMETHEUS, f"--config.file={configuration}", f"--storage.tsdb.path={folder}/data")

        def get(path, **arguments):
            with urllib.request.urlopen(f"http://{prometheus}/api/v1/{path}?{urllib.parse.urlencode(arguments)}",
                                        timeout=PATIENCE) as answer:
                return json.load(answer)["data"]

        def ask(expression, **arguments):
            return get("query", query=expression, **arguments)["result"]

        def is_ready():
            try:
                return ask("quorveld_build_info")
            except urllib.error.HTTPError:  # "Service Unavailable" while it starts
                return False

        until(is_ready, "the first look at the counters")
        sample = daemon.sample("--hang", "0.3", "--times", "7", "--report")
        sample.communicate()
        launcher = self.peer(daemon)
        application = {"pid": Int64(os.getpid()), "bundle_id": "com.example.app", "app_activation_state": Int64(1)}
        launcher.send(command=4, app_activation_type=Int64(1), **application)
        launcher.send(command=5, **application)
        for key in ("QVReportsRefused.process-limit", "QVLaunch.com.example.app"):
            until(lambda: ask(f'{{key="com.corvix.quorvel.{key}"}}'), key)
        self.assertEqual(ask("up{job='devices'}")[0]["value"][1], "1")
        self.assertEqual(ask("node_textfile_scrape_error")[0]["value"][1], "0")
        for expression in self.expressions():
            # Growth takes two values to tell it by; what asks for yesterday is asked tomorrow.
            until(lambda asked=expression: ask(asked) or ask(asked, time=time.time() + 86400), f"an answer to {expression}")
        rules = [rule for group in until(lambda: self.evaluated(get("rules")["groups"]), "the rules") for rule in group["rules"]]
        self.assertEqual([rule for rule in rules if rule["health"] != "ok"], [])
        self.assertEqual(ask("bundle:quorveld_hangs:increase1h")[0]["metric"]["bundle"], "com.corvix.quorvel.sample")

    def evaluated(self, groups):
        return groups if groups and all(rule["health"] != "unknown" for group in groups for rule in group["rules"]) else None


if __name__ == "__main__":
    unittest.main()
