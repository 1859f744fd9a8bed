"""zoo.py --list | CASE: what tests/zoo/zoo is in C++, in a program without the client library: Python's own ways to wait.

The truth about each case stands beside it and is written before any verdict on it is read; zoo.h says what its parts mean."""
import asyncio
import ctypes
import os
import pathlib
import queue
import signal
import socket
import sqlite3
import subprocess
import sys
import threading
import time

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "integration"))
from dbus_peer import Fd, Peer  # noqa: E402
from scratch import Region  # noqa: E402
from waiting import until  # noqa: E402

CASES = {}
LONGEST_S = 300  # whatever becomes of who started it
PR_SET_PDEATHSIG, PR_SET_NAME = 1, 15
libc = ctypes.CDLL(None)


def case(right, culprit="", half="", along=""):
    def add(function):
        CASES["python-" + function.__name__.replace("_", "-")] = (function, right, culprit, half, along)
        return function
    return add


def named(name):
    libc.prctl(PR_SET_NAME, name.encode())


def rest():
    time.sleep(LONGEST_S)


def thread(name, first, after=rest):
    """A thread of that name that has done `first` when this returns, and does `after` then."""
    ready = []

    def run():
        named(name)
        first()
        ready.append(True)
        after()
    threading.Thread(target=run, daemon=True).start()
    while not ready:
        time.sleep(0.001)


def process(name, first, after=rest):
    """A process, likewise."""
    reader, writer = os.pipe()
    pid = os.fork()
    if pid == 0:
        libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
        named(name)
        first()
        os.write(writer, b"r")
        after()
        os._exit(0)
    os.read(reader, 1)
    os.close(reader)
    os.close(writer)
    return pid


@case("lock|peer", "holder", "sleeping")
def lock():
    held = threading.Lock()
    thread("holder", held.acquire)
    held.acquire()


@case("lock|peer", "producer", "sleeping")
def queue_get():
    jobs = queue.Queue()

    def produce():
        for _ in range(20):
            time.sleep(0.02)
            jobs.put(1)
        rest()
    thread("producer", lambda: None, produce)
    while True:
        jobs.get()


@case("lock|peer", "native", "sleeping")
def interpreter_lock():
    """The interpreter's own lock, held by a thread in a C function that doesn't give it back."""
    library = ctypes.PyDLL(None)
    threading.Thread(target=lambda: (named("native"), library.sleep(LONGEST_S)), daemon=True).start()
    while True:
        time.sleep(0.01)


@case("lock|peer", "loader", "sleeping")
def join():
    loader = threading.Thread(target=lambda: (named("loader"), rest()), daemon=True)
    loader.start()
    loader.join()


@case("child", "sleep", "sleeping", "sh")
def run_command():
    subprocess.run(["sh", "-c", f"sleep {LONGEST_S}; true"])


@case("child|peer", "sleep", "sleeping", "sh")
def command_output():
    subprocess.check_output(["sh", "-c", f"sleep {LONGEST_S}; true"])


@case("file-lock", "keeper", "sleeping")
def database():
    """A database that another process is writing to; it is tried again and again."""
    path = f"{os.environ['QUORVELD_ROOT']}/zoo-{os.getpgrp()}-db"
    connection = sqlite3.connect(path, timeout=LONGEST_S)
    connection.execute("create table t (x)")
    connection.commit()

    def keep():
        global kept  # until the process ends
        kept = sqlite3.connect(path, isolation_level=None)
        kept.execute("begin exclusive")
    process("keeper", keep)
    connection.execute("insert into t values (1)")


@case("peer", "server", "sleeping")
def socket_with_timeout():
    """With a time-out, Python polls first."""
    mine, theirs = socket.socketpair()
    process("server", mine.close)
    theirs.close()
    mine.settimeout(0.2)
    while True:
        try:
            mine.recv(1)
        except TimeoutError:
            pass


@case("peer|network", "server", "sleeping")
def event_loop():
    """A request over TCP in an event loop that has other things to do now and then."""
    listener = socket.create_server(("127.0.0.1", 0))

    def answer_never():
        connection, _ = listener.accept()
        connection.recv(1)
        rest()
    process("server", lambda: None, answer_never)
    address = listener.getsockname()
    listener.close()

    async def tick():
        while True:
            await asyncio.sleep(0.05)

    async def ask():
        ticking = asyncio.create_task(tick())
        reader, writer = await asyncio.open_connection(*address)
        writer.write(b"?")
        await reader.read(1)
        ticking.cancel()
    asyncio.run(ask())


@case("own-cpu")
def computing():
    while True:
        pass


def main():
    if sys.argv[1:] == ["--list"]:
        for name, (_, *truth) in CASES.items():
            print(name, *truth, int("own-cpu" in truth), sep="\t")
        return
    (name,) = sys.argv[1:]
    signal.alarm(LONGEST_S)
    region = Region()
    peer = Peer(os.environ["QUORVELD_ROOT"] + "/run/quorveld/com.corvix.quorveld")
    peer.send(command=1, shmem=Fd(region.fd), bundle_id="com.example.zoo", name="zoo")
    until(region.sealed, "the region's adoption")
    region.begin(0, name)
    CASES[name][0]()


if __name__ == "__main__":
    main()
