"""What the shells complete of the tools' command lines: bash in earnest, zsh with its own functions made to print."""
import os
import pathlib
import shlex
import shutil
import subprocess
import tempfile
import unittest

CTL = os.environ.get("QV_TEST_CTL", "")
RECORDER = os.environ.get("QV_TEST_RECORDER", "")
COMPLETIONS = pathlib.Path(__file__).parents[2] / "packaging/completions"

BASH = """
source {folder}/quorveld.bash
COMP_WORDS=({words}); COMP_CWORD=$((${{#COMP_WORDS[@]}} - 1))
_quorveld
printf '%s\\n' "${{COMPREPLY[@]}}"
"""
ZSH = """
words=({words}); CURRENT=$#words
_describe() {{ print -l -- "${{(@)${{(@P)@[-1]}}%%:*}}" }}
compadd() {{ print -l -- "${{(@P)2}}" }}
_files() {{ print FILES }}
_normal() {{ print "NORMAL $CURRENT $words" }}
source {folder}/_quorvelctl
"""


class Completions(unittest.TestCase):
    def setUp(self):
        self.root = pathlib.Path(tempfile.mkdtemp(prefix="quorveld-completions-"))
        self.addCleanup(shutil.rmtree, self.root)

    def ask(self, shell, script, *words):
        command = script.format(folder=shlex.quote(str(COMPLETIONS)), words=shlex.join(words))
        done = subprocess.run(shell + ["-c", command], env={**os.environ, "QUORVELD_ROOT": str(self.root)}, text=True,
                              capture_output=True, timeout=60)
        self.assertEqual(done.stderr, "")
        return [line for line in done.stdout.splitlines() if line]

    def make_reports(self):
        spool = self.root / "var/root/Library/Caches/quorveld/spool"
        memory = self.root / "Library/Logs/Faultkeep"
        spool.mkdir(parents=True)
        memory.mkdir(parents=True)
        (spool / "MainThread-a viewer-2026-01-01-100000.kelvane").write_text("{}")
        (memory / "memory-snapshot-2026-01-01-100000.ips").write_text("{}")

    def test_bash(self):
        def complete(*words):
            return self.ask(["bash"], BASH, *words)

        self.assertIn("prefs", complete(CTL, ""))
        self.assertEqual(complete(CTL, "pr"), ["prefs"])
        self.assertEqual(complete(CTL, "prefs", ""), ["list", "get", "set", "unset"])
        self.assertEqual(complete(CTL, "--json", "--root", "/", "prefs", "s"), ["set"])
        self.assertEqual(complete(CTL, "prefs", "set", "QuorvelEnableK"), ["QuorvelEnableKelvane"])
        self.assertEqual(complete(CTL, "prefs", "set", "QuorvelEnabled", ""), [])
        self.assertEqual(complete(CTL, "prefs", "set", "--"), ["--help", "--json", "--no-notify", "--root"])
        self.assertEqual(complete(CTL, "--root", ""), [], "a folder: readline's own")
        self.assertEqual(complete(CTL, "launch", "com.example", "--", "ech"), ["echo"])
        self.make_reports()
        self.assertEqual(complete(CTL, "reports", "show", "Main"), ["MainThread-a viewer-2026-01-01-100000.kelvane"])
        self.assertEqual(complete(CTL, "reports", "show", "--html", "Main"), [])
        self.assertEqual(complete(CTL, "memory", "diff", "mem"), ["memory-snapshot-2026-01-01-100000.ips"])
        if RECORDER:
            self.assertEqual(complete(RECORDER, ""), ["start", "stop", "status", "dump"])
            self.assertEqual(complete(RECORDER, "dump", "--"), ["--from", "--help", "--to"])

    @unittest.skipUnless(shutil.which("zsh"), "zsh is not installed")
    def test_zsh(self):
        def complete(*words):
            return self.ask(["zsh", "-f"], ZSH, *words)

        self.assertEqual(complete(CTL, "prefs", ""), ["list", "get", "set", "unset"])
        self.assertIn("QuorvelEnableKelvane", complete(CTL, "--root", "/", "prefs", "get", ""))
        self.assertEqual(set(complete(CTL, "prefs", "set", "-")), {"-h", "--help", "--json", "--no-notify", "--root"})
        self.assertEqual(complete(CTL, "--root", ""), ["FILES"])
        self.assertEqual(complete(CTL, "launch", "com.example", "--", "cc", "-c", ""), ["NORMAL 3 cc -c "])
        self.make_reports()
        self.assertEqual(complete(CTL, "reports", "show", ""), ["MainThread-a viewer-2026-01-01-100000.kelvane"])
        self.assertEqual(complete(CTL, "memory", "show", ""), ["memory-snapshot-2026-01-01-100000.ips"])


if __name__ == "__main__":
    unittest.main()
