"""Holds memory in one of the ways in which programs do, and says "held" when it does; ends with its standard input.

memory_holder.py WAY BYTES PLACE: PLACE is what the way needs, a file or a folder."""
import ctypes
import mmap
import os
import pathlib
import platform
import select
import sys
import threading
import time

way, size, place = sys.argv[1], int(sys.argv[2]), sys.argv[3]
libc = ctypes.CDLL(None, use_errno=True)
MIB = 1 << 20
HUGE = 2 * MIB
SYS_EXIT = {"x86_64": 60, "aarch64": 93}.get(platform.machine())
noise = os.urandom(MIB)


def wait():
    print("held", flush=True)
    sys.stdin.read()


def fill(target):
    for at in range(0, size, MIB):
        target[at:at + MIB] = noise


def write_all(descriptor):
    for _ in range(size // MIB):
        view = memoryview(noise)
        while view:
            view = view[os.write(descriptor, view):]


def malloc():
    fill(held := bytearray(size))
    wait()
    return held


def leak():
    """BYTES more each second."""
    held = []
    print("held", flush=True)
    while not select.select([sys.stdin], [], [], 0.1)[0]:
        held.append(bytearray(b"x" * (size // 10)))


def fork():
    """Four children, which end with the parent's end of the pipe."""
    fill(held := bytearray(size))
    end, start = os.pipe()
    for _ in range(4):
        if os.fork() == 0:
            os.close(start)
            os.read(end, 1)
            os._exit(0)
    wait()
    return held


def thread():
    """The main thread ends, and another goes on."""
    fill(held := bytearray(size))

    def outlive():
        while "State:\tZ" not in pathlib.Path(f"/proc/self/task/{os.getpid()}/status").read_text():
            time.sleep(0.01)
        wait()
        os._exit(len(held) == 0)

    threading.Thread(target=outlive).start()
    libc.syscall(SYS_EXIT, 0)


def memfd():
    write_all(os.memfd_create("quorveld test"))
    wait()


def tmpfs():
    """The file stays there without a process."""
    descriptor = os.open(place, os.O_WRONLY | os.O_CREAT, 0o600)
    write_all(descriptor)
    os.close(descriptor)
    wait()


def sysv():
    """A segment that nobody is attached to."""
    libc.shmat.restype = ctypes.c_void_p
    segment = libc.shmget(0, ctypes.c_size_t(size), 0o1600)
    address = libc.shmat(segment, None, 0)
    ctypes.memset(address, 1, size)
    libc.shmdt(ctypes.c_void_p(address))
    try:
        wait()
    finally:
        libc.shmctl(segment, 0, None)


def hugetlb():
    held = mmap.mmap(-1, size, mmap.MAP_PRIVATE | mmap.MAP_ANONYMOUS | 0x40000)  # MAP_HUGETLB
    for at in range(0, size, HUGE):
        held[at] = 1
    wait()
    return held


def zram():
    descriptor = os.open(place, os.O_WRONLY)
    write_all(descriptor)
    os.fsync(descriptor)
    wait()


def mapped():
    descriptor = os.open(place, os.O_RDWR | os.O_CREAT, 0o600)
    write_all(descriptor)
    held = mmap.mmap(descriptor, size, prot=mmap.PROT_READ)
    for at in range(0, size, mmap.PAGESIZE):
        held[at]
    wait()
    return held


def tables():
    """A page's worth of table for each 2 MiB in which the page of zeros is mapped once."""
    held = mmap.mmap(-1, size // mmap.PAGESIZE * HUGE, mmap.MAP_PRIVATE | mmap.MAP_ANONYMOUS | 0x4000)  # MAP_NORESERVE
    held.madvise(mmap.MADV_NOHUGEPAGE)
    for at in range(0, len(held), HUGE):
        held[at]
    wait()
    return held


def dentries():
    """Names that are known not to be there."""
    folder = os.open(place, os.O_PATH)
    for number in range(size // 192):
        try:
            os.stat(f"absent-{number}", dir_fd=folder)
        except FileNotFoundError:
            pass
    wait()


def pipes():
    F_SETPIPE_SZ = 1031
    import fcntl
    for _ in range(size // MIB):
        _, end = os.pipe()
        fcntl.fcntl(end, F_SETPIPE_SZ, MIB)
        os.write(end, noise)
    wait()


globals()[way]()
