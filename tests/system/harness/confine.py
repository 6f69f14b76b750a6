#!/usr/bin/python3
"""Runs a program under the restrictions of a systemd unit on a machine where systemd is not in charge.

    confine.py UNIT NAME PROGRAM ARGUMENT...

The program gets NAME as the name that it is run by. Taken from the unit are the limits, the mode mask, the capability
bounding set, the files that may be written and run, and the system call filter (systemd-analyze tells what is in its
groups). In place of /run files are written below DIRWELL_ROOT, in whose var/run lies what is to be hidden or only read.
Programs may be run from there and from the program's own folder, too, since tests put them there. Where a restriction
cannot be had, the program is not run.
"""

import ctypes
import errno
import os
import pathlib
import re
import resource
import subprocess
import sys

import seccomp

LIBC = ctypes.CDLL(None, use_errno=True)
PR_SET_NO_NEW_PRIVS, PR_CAPBSET_READ, PR_CAPBSET_DROP, PR_CAP_AMBIENT = 38, 23, 24, 47
CLONE_NEWNS, CLONE_NEWNET = 0x00020000, 0x40000000
MS_RDONLY, MS_NOSUID, MS_NODEV, MS_NOEXEC, MS_REMOUNT, MS_BIND, MS_REC, MS_SLAVE = (
    1, 2, 4, 8, 32, 4096, 16384, 1 << 19)
NAMESPACES = (0x00020000, 0x02000000, 0x04000000, 0x08000000, 0x10000000, 0x20000000, 0x40000000)
LIMITS = {"LimitNOFILE": resource.RLIMIT_NOFILE, "LimitCORE": resource.RLIMIT_CORE}
DEVICES = {"null": (1, 3), "zero": (1, 5), "full": (1, 7), "random": (1, 8), "urandom": (1, 9), "tty": (5, 0)}
# Settings that only a service manager or its control group gives, those that others imply, and those that grant what
# not every machine where tests run has to give.
ELSEWHERE = {"Type", "ExecStart", "Restart", "RestartSec", "KillMode", "TimeoutStopSec", "OOMPolicy", "TasksMax",
             "MemoryMax", "MemorySwapMax", "User", "Group", "AmbientCapabilities", "KeyringMode", "PrivateTmp",
             "DevicePolicy", "ProtectControlGroups", "IPAddressDeny", "ProtectHostname", "ProtectClock", "ProtectKernelLogs",
             "ProtectKernelModules", "PrivateMounts", "ProtectHome", "ProcSubset", "SystemCallArchitectures",
             "RestrictRealtime", "LimitRTPRIO"}


def read_unit(path):
    """The settings of the service, each with its values in their order."""
    section, settings = None, {}
    for line in pathlib.Path(path).read_text().splitlines():
        if match := re.fullmatch(r"\[(\w+)\]", line):
            section = match.group(1)
        elif section == "Service" and line and not line.startswith("#"):
            key, value = line.split("=", 1)
            settings.setdefault(key, []).append(value)
    return settings


def checked(result, what):
    if result < 0:
        number = ctypes.get_errno()
        sys.exit(f"confine: {what}: {os.strerror(number)}")
    return result


# --- Files ---


def mount(source, target, kind, flags, data=None):
    encoded = [os.fsencode(text) if text is not None else None for text in (source, target, kind, data)]
    checked(LIBC.mount(encoded[0], encoded[1], encoded[2], ctypes.c_ulong(flags), encoded[3]), f"mount {target}")


def mount_points():
    return [re.sub(r"\\(\d{3})", lambda match: chr(int(match.group(1), 8)), line.split()[1])
            for line in pathlib.Path("/proc/self/mounts").read_text().splitlines()]


def own(path, flags):
    """Makes the folder a mount of its own, and gives these flags to it and to all that is mounted below it."""
    mount(path, path, None, MS_BIND | MS_REC)
    for point in sorted(set(mount_points())):
        if point == path or point.startswith(path.rstrip("/") + "/"):
            mount(None, point, None, MS_REMOUNT | MS_BIND | MS_NOSUID | flags)


def take_files(settings, program):
    """All is read-only and not to be executed but what the unit says, or a test needs in place of it."""
    checked(LIBC.unshare(CLONE_NEWNS), "a mount namespace")
    mount(None, "/", None, MS_REC | MS_SLAVE)
    root = os.environ.get("DIRWELL_ROOT")
    written = [root if path == "/run" and root else path for path in paths_of(settings, "ReadWritePaths")]
    executed = [*paths_of(settings, "ExecPaths"), str(pathlib.Path(program).parent), *([root] if root else [])]
    assert settings["ProtectSystem"] == ["strict"]
    kept = ("/proc", "/sys", "/dev")
    for point in sorted(set(mount_points())):
        if not point.startswith(kept) and os.path.isdir(point):
            mount(None, point, None, MS_REMOUNT | MS_BIND | MS_RDONLY | MS_NOEXEC)
    for path in executed:
        own(path, 0 if path in written else MS_RDONLY)
    for path in written:
        if path not in executed:
            own(path, MS_NOEXEC)
    for path in paths_in_run(settings, "ReadOnlyPaths", root):
        own(path, MS_RDONLY | MS_NOEXEC)
    for path in paths_in_run(settings, "TemporaryFileSystem", root):
        mount("tmpfs", path, "tmpfs", MS_RDONLY | MS_NOSUID | MS_NODEV | MS_NOEXEC)
    for path in paths_in_run(settings, "InaccessiblePaths", root):
        if os.path.isdir(path):
            mount("tmpfs", path, "tmpfs", MS_RDONLY | MS_NOSUID | MS_NODEV | MS_NOEXEC, "mode=000")
        else:
            mount("/dev/null", path, None, MS_BIND)


def paths_of(settings, key):
    paths = [path for value in settings[key] for path in value.split()]
    return [path.lstrip("-") for path in paths if not path.startswith("-") or os.path.isdir(path[1:])]


def paths_in_run(settings, key, root):
    """Those of the setting that are there, in what stands for /run."""
    paths = [path.lstrip("-").partition(":")[0] for value in settings[key] for path in value.split()]
    assert all(path.startswith("/run/") for path in paths), paths
    return [path for path in (f"{root}/var{each}" for each in paths) if root and os.path.lexists(path)]


def take_devices():
    mount("tmpfs", "/dev", "tmpfs", MS_NOSUID | MS_NOEXEC, "mode=755")
    for name, (major, minor) in DEVICES.items():
        os.mknod(f"/dev/{name}", 0o020666, os.makedev(major, minor))
        os.chmod(f"/dev/{name}", 0o666)


def take_proc():
    mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, "hidepid=invisible")
    mount("/proc/sys", "/proc/sys", None, MS_BIND)
    mount(None, "/proc/sys", None, MS_REMOUNT | MS_BIND | MS_RDONLY)


# --- Rights ---


def take_limits(settings):
    for key, limit in LIMITS.items():
        for value in settings[key]:
            resource.setrlimit(limit, (int(value), int(value)))
    os.umask(int(settings["UMask"][-1], 8))


def take_capabilities(settings):
    names = {}
    for line in subprocess.run(["systemd-analyze", "capability"], stdout=subprocess.PIPE, check=True,
                               text=True).stdout.splitlines()[1:]:
        name, number = line.split()
        names[name.upper()] = int(number)
    kept = {names[name] for value in settings["CapabilityBoundingSet"] for name in value.split()}
    checked(LIBC.prctl(PR_CAP_AMBIENT, 4, 0, 0, 0), "no ambient capabilities")
    for number in range(64):
        if number not in kept and LIBC.prctl(PR_CAPBSET_READ, number, 0, 0, 0) == 1:
            checked(LIBC.prctl(PR_CAPBSET_DROP, number, 0, 0, 0), f"drop capability {number}")


# --- System calls ---


def calls_of(name):
    """The system calls of a name or of a group."""
    if not name.startswith("@"):
        return {name}
    lines = subprocess.run(["systemd-analyze", "syscall-filter", name], stdout=subprocess.PIPE, check=True,
                           text=True).stdout.splitlines()
    found = set()
    for word in (line.strip() for line in lines[1:]):
        if word and not word.startswith("#"):
            found |= calls_of(word)
    return found


def allowed_calls(settings):
    allowed = set()
    for value in settings["SystemCallFilter"]:
        calls = {call for name in value.lstrip("~").split() for call in calls_of(name)}
        allowed = allowed - calls if value.startswith("~") else allowed | calls
    return allowed


def refuse(rules, call, number, *conditions):
    rules.add_rule(seccomp.ERRNO(number), call, *conditions)


def argument_filter(settings):
    """What is refused by arguments: the families, namespaces, mappings and modes."""
    rules = seccomp.SyscallFilter(seccomp.ALLOW)
    assert settings["RestrictAddressFamilies"] == ["AF_UNIX"]
    for call in ("socket", "socketpair"):
        refuse(rules, call, errno.EAFNOSUPPORT, seccomp.Arg(0, seccomp.NE, 1))
    for key in ("RestrictNamespaces", "MemoryDenyWriteExecute", "LockPersonality", "RestrictSUIDSGID"):
        assert settings[key] == ["yes"], key
    for flag in NAMESPACES:
        refuse(rules, "clone", errno.EPERM, seccomp.Arg(0, seccomp.MASKED_EQ, flag, flag))
    refuse(rules, "clone3", errno.ENOSYS)
    refuse(rules, "mmap", errno.EPERM, seccomp.Arg(2, seccomp.MASKED_EQ, 6, 6))
    for call in ("mprotect", "pkey_mprotect"):
        refuse(rules, call, errno.EPERM, seccomp.Arg(2, seccomp.MASKED_EQ, 4, 4))
    refuse(rules, "shmat", errno.EPERM, seccomp.Arg(2, seccomp.MASKED_EQ, 0o100000, 0o100000))
    refuse(rules, "personality", errno.EPERM, seccomp.Arg(0, seccomp.NE, 0))
    for bit in (0o4000, 0o2000):
        for call, place in (("chmod", 1), ("fchmod", 1), ("fchmodat", 2), ("mkdir", 1), ("mkdirat", 2), ("creat", 1)):
            refuse(rules, call, errno.EPERM, seccomp.Arg(place, seccomp.MASKED_EQ, bit, bit))
        for call, place in (("open", 1), ("openat", 2)):
            refuse(rules, call, errno.EPERM, seccomp.Arg(place, seccomp.MASKED_EQ, os.O_CREAT, os.O_CREAT),
                   seccomp.Arg(place + 1, seccomp.MASKED_EQ, bit, bit))
    refuse(rules, "openat2", errno.ENOSYS)
    return rules


def call_filter(settings):
    number = getattr(errno, settings["SystemCallErrorNumber"][0])
    rules = seccomp.SyscallFilter(seccomp.ERRNO(number))
    for call in allowed_calls(settings):
        if seccomp.resolve_syscall(seccomp.Arch(), call) >= 0:  # others are of other machines
            rules.add_rule(seccomp.ALLOW, call)
    return rules


def main():
    unit, name, program, *arguments = sys.argv[1:]
    settings = read_unit(unit)
    handled = {"ProtectSystem", "ReadWritePaths", "ReadOnlyPaths", "InaccessiblePaths", "TemporaryFileSystem",
               "NoExecPaths", "ExecPaths", "BindReadOnlyPaths",
               "PrivateDevices", "ProtectProc", "ProtectKernelTunables", "PrivateNetwork", "UMask",
               "CapabilityBoundingSet", "NoNewPrivileges", "SystemCallFilter", "SystemCallErrorNumber",
               "RestrictAddressFamilies", "RestrictNamespaces", "RestrictSUIDSGID", "LockPersonality",
               "MemoryDenyWriteExecute", *LIMITS}
    unknown = set(settings) - handled - ELSEWHERE
    assert not unknown, f"how to confine by {unknown}?"
    for key in ("PrivateDevices", "ProtectKernelTunables", "PrivateNetwork", "NoNewPrivileges"):
        assert settings[key] == ["yes"], key
    assert settings["ProtectProc"] == ["invisible"]
    filters = [argument_filter(settings), call_filter(settings)]
    take_limits(settings)
    take_files(settings, program)
    take_devices()
    take_proc()
    checked(LIBC.unshare(CLONE_NEWNET), "a network namespace")
    take_capabilities(settings)
    checked(LIBC.prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), "no new privileges")
    for rules in filters:
        rules.load()
    os.execv(program, [name, *arguments])


if __name__ == "__main__":
    main()
