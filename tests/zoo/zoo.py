"""zoo.py --list | CASE: what tests/zoo/zoo is in C++, in a program without the client library: Python's own ways to wait, and
what the machine does to a program.

The truth about each case stands beside it and is written before any verdict on it is read; zoo.h says what its parts mean."""
import asyncio
import contextlib
import ctypes
import fcntl
import mmap
import os
import pathlib
import queue
import signal
import socket
import sqlite3
import struct
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
SKIPPED = 77
MEGABYTE = 1 << 20
CGROUPS = pathlib.Path("/sys/fs/cgroup")
UNIFIED = "unified" if (CGROUPS / "unified").exists() else ""
# Those that take the CPUs or the disk from others, or would be put out by them.
ALONE = {"own-cpu", "throttled", "memory", "swapping"}
PR_SET_PDEATHSIG, PR_SET_NAME = 1, 15
CLONE_NEWNS, CLONE_NEWNET, MS_REC, MS_PRIVATE = 0x20000, 0x40000000, 0x4000, 0x40000
TUNSETIFF, IFF_TUN = 0x400454CA, 1
libc = ctypes.CDLL(None)


def case(right, culprit="", half="", along=""):
    def add(function):
        CASES[function.__name__.replace("_", "-")] = (function, right, culprit, half, along)
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
    os.close(writer)
    if not os.read(reader, 1):  # it has said why
        os._exit(os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]))
    os.close(reader)
    return pid


@case("lock|peer", "holder", "sleeping")
def python_lock():
    held = threading.Lock()
    thread("holder", held.acquire)
    held.acquire()


@case("lock|peer", "producer", "sleeping")
def python_queue_get():
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
def python_interpreter_lock():
    """The interpreter's own lock, held by a thread in a C function that doesn't give it back."""
    library = ctypes.PyDLL(None)
    threading.Thread(target=lambda: (named("native"), library.sleep(LONGEST_S)), daemon=True).start()
    while True:
        time.sleep(0.01)


@case("lock|peer", "loader", "sleeping")
def python_join():
    loader = threading.Thread(target=lambda: (named("loader"), rest()), daemon=True)
    loader.start()
    loader.join()


@case("child", "sleep", "sleeping", "sh")
def python_run_command():
    subprocess.run(["sh", "-c", f"sleep {LONGEST_S}; true"])


@case("child|peer", "sleep", "sleeping", "sh")
def python_command_output():
    subprocess.check_output(["sh", "-c", f"sleep {LONGEST_S}; true"])


@case("file-lock", "keeper", "sleeping")
def python_database():
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
def python_socket_with_timeout():
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
def python_event_loop():
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
def python_computing():
    burn()


# --- what the machine does to a program, its groups above all -------------------------------------------------------------


def burn():
    while True:
        pass


def skip(why):
    print(why, flush=True)
    os._exit(SKIPPED)


def group(where, file, value):
    """A group with that setting, named after this program for scripts/zoo to remove; None if there can be none."""
    path = CGROUPS / where / f"zoo-{os.getpgrp()}"
    with contextlib.suppress(OSError):
        path.mkdir(exist_ok=True)
        (path / file).write_text(value)
        return path


def limited(old, new):
    """A group with that limit, by the old kind of hierarchy (controller, file, value) or the new (file, value)."""
    return group(*old) or group("", *new) or skip(f"no group of the controller {old[0]} can be made")


def enter(path):
    (path / "cgroup.procs").write_text(str(os.getpid()))


def throttle():
    enter(limited(("cpu", "cpu.cfs_quota_us", "4000"), ("cpu.max", "4000 100000")))


def shorten_memory():
    enter(limited(("memory", "memory.limit_in_bytes", "40M"), ("memory.max", "40M")))


def freezable(where, file, thawed):
    return group(where, file, thawed) or skip(f"no group can be frozen by {file}")


def freeze_soon(path, file, frozen):
    process("freezer", lambda: None, lambda: (time.sleep(0.1), (path / file).write_text(frozen), rest()))


@case("throttled", half="starved")
def throttled():
    throttle()
    burn()


@case("throttled", "greedy", "starved")
def throttled_by_others():
    throttle()
    for _ in range(2):
        process("greedy", lambda: None, burn)
    burn()


@case("throttled", "server", "peer|starved|sleeping")
def throttled_peer():
    reader, writer = os.pipe()
    process("server", lambda: (os.close(reader), throttle()), burn)
    os.close(writer)
    os.read(reader, 1)


@case("frozen", half="sleeping", along="freezer")
def frozen():
    path = freezable(UNIFIED, "cgroup.freeze", "0")
    freeze_soon(path, "cgroup.freeze", "1")
    enter(path)
    rest()


@case("frozen", half="sleeping", along="freezer")
def frozen_by_version_1():
    path = freezable("freezer", "freezer.state", "THAWED")
    freeze_soon(path, "freezer.state", "FROZEN")
    enter(path)
    rest()


@case("frozen", "server", "peer|sleeping", "freezer")
def frozen_peer():
    path = freezable(UNIFIED, "cgroup.freeze", "0")
    reader, writer = os.pipe()
    process("server", lambda: (os.close(reader), enter(path)))
    os.close(writer)
    freeze_soon(path, "cgroup.freeze", "1")
    os.read(reader, 1)


def scratch_file(megabytes, flags=0):
    fd = os.open(f"{os.environ['QUORVELD_ROOT']}/zoo-{os.getpgrp()}-data", os.O_RDWR | os.O_CREAT)
    for _ in range(megabytes):
        os.write(fd, b"z" * MEGABYTE)
    os.fsync(fd)
    os.posix_fadvise(fd, 0, 0, os.POSIX_FADV_DONTNEED)  # or else the pages would not count as who reads them next
    return os.open(f"/proc/self/fd/{fd}", os.O_RDWR | flags)


@case("memory", half="disk")
def short_of_memory():
    """Reads a file over and over that is larger than what its group may have."""
    file = scratch_file(96)
    mapping = mmap.mmap(file, 0, prot=mmap.PROT_READ)
    mapping.madvise(mmap.MADV_RANDOM)
    shorten_memory()
    while True:
        for at in range(0, 96 * MEGABYTE, 4096):
            mapping[at]


@case("swapping", half="memory|disk")
def swapping():
    if len(pathlib.Path("/proc/swaps").read_text().splitlines()) < 2:
        skip("no swap is on")
    shorten_memory()
    memory = mmap.mmap(-1, 96 * MEGABYTE, flags=mmap.MAP_PRIVATE | mmap.MAP_ANONYMOUS)
    while True:
        for at in range(0, 96 * MEGABYTE, 4096):
            memory[at] = (memory[at] + 1) % 256


@case("throttled", half="disk")
def disk_throttled():
    file = scratch_file(1, os.O_DIRECT)
    device = os.fstat(file).st_dev
    number = f"{os.major(device)}:{os.minor(device)}"
    enter(limited(("blkio", "blkio.throttle.read_bps_device", f"{number} 2000000"), ("io.max", f"{number} rbps=2000000")))
    while True:
        os.preadv(file, [mmap.mmap(-1, MEGABYTE)], 0)


@case("server", "file-server", "peer|sleeping|unknown")
def fuse():
    """A file system that is a process, which answers the kernel's greeting and then nothing more."""
    try:
        device = os.open("/dev/fuse", os.O_RDWR)
    except OSError as error:
        skip(f"/dev/fuse: {error.strerror}")
    if libc.unshare(CLONE_NEWNS) != 0 or libc.mount(None, b"/", None, MS_REC | MS_PRIVATE, None) != 0:
        skip("mounts of its own are not permitted")
    where = pathlib.Path(os.environ["QUORVELD_ROOT"]) / f"zoo-{os.getpgrp()}-fuse"
    where.mkdir()
    if libc.mount(b"zoo", bytes(where), b"fuse", 0, b"fd=%d,rootmode=40000,user_id=0,group_id=0" % device) != 0:
        skip("no FUSE file system can be mounted")

    def greet():
        unique = struct.unpack_from("<IIQ", os.read(device, 1 << 16))[2]
        reply = struct.pack("<IIIIHHI", 7, 31, 0, 0, 0, 0, 4096)
        os.write(device, struct.pack("<IiQ", 80, 0, unique) + reply.ljust(64, b"\0"))
    process("file-server", greet)
    os.close(device)
    os.stat(where / "file")


@case("network", "10.99.0.2", "sleeping")
def network():
    """A machine that doesn't answer, on a network of this process's own."""
    if libc.unshare(CLONE_NEWNET) != 0:
        skip("a network of its own is not permitted")
    try:
        tunnel = os.open("/dev/net/tun", os.O_RDWR)
        fcntl.ioctl(tunnel, TUNSETIFF, struct.pack("16sH22x", b"zoo", IFF_TUN))
        for command in ("address add 10.99.0.1/24 dev zoo", "link set zoo up"):
            subprocess.run(["ip", *command.split()], check=True)
    except (OSError, subprocess.CalledProcessError) as error:
        skip(f"no tunnel: {error}")
    socket.create_connection(("10.99.0.2", 80))


def main():
    if sys.argv[1:] == ["--list"]:
        for name, (_, *truth) in CASES.items():
            print(name, *truth, int(truth[0] in ALONE), sep="\t")
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
