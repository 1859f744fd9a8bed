"""A launcher that announces activations to a daemon which records them."""
import json
import subprocess
import sys

from dbus_peer import Int64

# No process has this pid, or a larger one (proc(5), pid_max): anybody may announce it.
NO_PROCESS = 1 << 22
FOREGROUND = 1
LAUNCH = 1
LOGGING = {"domain": "com.corvix.quorvel", "QuorvelEnableAppActivationLogging": True}


def begin(peer, pid, bundle):
    peer.send(command=4, pid=Int64(pid), bundle_id=bundle, startTime=Int64(0), app_activation_state=Int64(FOREGROUND),
              app_activation_type=Int64(LAUNCH))


def end(peer, pid, bundle):
    peer.send(command=5, pid=Int64(pid), bundle_id=bundle, endTime=Int64(0), app_activation_state=Int64(FOREGROUND),
              app_activation_result=Int64(0))


def activation(daemon, peer, pid, bundle, meanwhile=lambda: None):
    """A whole activation, and its line in the power log."""
    recorded = "Number Of Activations recorded:"
    started, done = daemon.log().count("] activation begin ("), daemon.log().count(recorded)
    begin(peer, pid, bundle)
    daemon.wait_for("] activation begin (", count=started + 1)
    meanwhile()
    end(peer, pid, bundle)
    daemon.wait_for(recorded, done + 1)
    lines = (daemon.root / "var/log/quorveld/activations.jsonl").read_text().removesuffix("\n").split("\n")
    assert len(lines) == done + 1, lines
    return json.loads(lines[-1])


class Busy:
    """A process of this name, as raw bytes, that has spent CPU time and lives until `close`."""

    def __init__(self, name, seconds=0.2):
        code = ("import ctypes, sys, time\n"
                f"ctypes.CDLL(None).prctl(15, {name!r})\n"
                f"while time.process_time() < {seconds}: pass\n"
                "print(flush=True)\n"
                "sys.stdin.read()\n")
        self.process = subprocess.Popen([sys.executable, "-c", code], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.process.stdout.readline()
        self.pid = self.process.pid

    def close(self):
        self.process.communicate()
