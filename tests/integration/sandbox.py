"""sandbox.py UNIT COMMAND…: becomes COMMAND behind those walls of a unit that a process can put up around itself.

System calls, address families, namespaces, capabilities, a network and /proc of its own, nothing in homes. What systemd does with
mounts besides (what is read-only, devices) needs a booted machine: tests/boot."""
import ctypes
import errno
import os
import pathlib
import re
import socket
import subprocess
import sys

NUMBERS = {"CAP_DAC_READ_SEARCH": 2, "CAP_SYS_PTRACE": 19, "CAP_PERFMON": 38, "CAP_BPF": 39, "CAP_CHECKPOINT_RESTORE": 40}
LAST_CAPABILITY = 40
PR_CAPBSET_DROP, PR_SET_NO_NEW_PRIVS, PR_SET_MDWE = 24, 38, 65
CLONE_NEWNS, CLONE_NEWNET = 0x20000, 0x40000000
SCMP_ACT_ALLOW = 0x7FFF0000


def settings(unit):
    """Each key's values in the order of their lines."""
    found = {}
    for key, value in re.findall(r"^(\w+)=(.*)$", pathlib.Path(unit).read_text(), re.M):
        found.setdefault(key, []).append(value)
    return found


def members(group):
    """The system calls of a group, those of the groups in it too."""
    if not group.startswith("@"):
        return {group}
    listed = subprocess.run(["systemd-analyze", "syscall-filter", group], capture_output=True, text=True, check=True).stdout
    names = [line.strip() for line in listed.splitlines()[1:] if line.strip() and not line.strip().startswith("#")]
    return set().union(*map(members, names))


class Compare(ctypes.Structure):
    _fields_ = [("argument", ctypes.c_uint), ("how", ctypes.c_int), ("a", ctypes.c_uint64), ("b", ctypes.c_uint64)]


def check(result, what):
    if result < 0:
        raise OSError(-result if result > -4096 else errno.EINVAL, what)


def filter_system_calls(unit):
    library = ctypes.CDLL("libseccomp.so.2", use_errno=True)
    library.seccomp_init.restype = ctypes.c_void_p

    def fails(error):
        return 0x00050000 | error

    context = ctypes.c_void_p(library.seccomp_init(fails(getattr(errno, unit["SystemCallErrorNumber"][-1]))))

    def rule(action, name, *conditions):
        number = library.seccomp_syscall_resolve_name(name.encode())
        if number != -1:  # not of this machine
            check(library.seccomp_rule_add_array(context, action, number, len(conditions), (Compare * len(conditions))(*conditions)),
                  name)

    allowed = members("@default")
    for line in unit["SystemCallFilter"]:
        calls = set().union(*map(members, line.lstrip("~").split()))
        allowed = allowed - calls if line.startswith("~") else allowed | calls
    families = [getattr(socket, name) for name in unit["RestrictAddressFamilies"][-1].split()]
    assert unit["RestrictNamespaces"] == ["yes"], "setns(2) and unshare(2) are let through nowhere below"
    for name in sorted(allowed - {"socket", "setns", "unshare"}):
        rule(SCMP_ACT_ALLOW, name)
    for family in families:
        rule(SCMP_ACT_ALLOW, "socket", Compare(0, 4, family, 0))  # equal
    check(library.seccomp_load(context), "seccomp_load")


def become(unit, command):
    libc = ctypes.CDLL(None, use_errno=True)

    def must(result, what):
        if result != 0:
            raise OSError(ctypes.get_errno(), what)

    def mount(kind, where, options):
        must(libc.mount(kind, where, kind, 0, options), where)

    must(libc.unshare(CLONE_NEWNS | (CLONE_NEWNET if unit["PrivateNetwork"] == ["yes"] else 0)), "unshare")
    must(libc.mount(b"none", b"/", None, 1 << 18 | 1 << 14, None), "private mounts")
    mount(b"proc", b"/proc", b"hidepid=" + unit["ProtectProc"][-1].encode())
    if unit["ProtectHome"] == ["yes"]:
        for home in (b"/home", b"/root", b"/run/user"):
            if os.path.isdir(home):
                mount(b"tmpfs", home, b"mode=000")
    kept = {NUMBERS[name] for name in unit["CapabilityBoundingSet"][-1].split()}
    for capability in range(LAST_CAPABILITY + 1):
        if capability not in kept:
            must(libc.prctl(PR_CAPBSET_DROP, capability, 0, 0, 0), "bounding set")
    os.umask(int(unit["UMask"][-1], 8))
    must(libc.prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), "no new privileges")
    libc.prctl(PR_SET_MDWE, 1, 0, 0, 0)  # of Linux 6.3; systemd has a filter of its own before
    filter_system_calls(unit)
    os.execv(command[0], command)


if __name__ == "__main__":
    become(settings(sys.argv[1]), sys.argv[2:])
