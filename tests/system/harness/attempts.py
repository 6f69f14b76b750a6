#!/usr/bin/python3
"""What a daemon that had been taken over would try, under the restrictions of its unit. Ends with 0 if all is refused
that is to be refused, and nothing else.

    attempts.py FOLDER RUN PROGRAM...

FOLDER can be written to, and holds "file". RUN stands for /run, with systemd/private, dbus/system_bus_socket and a
listening "accounts" in it. The programs lie where files of users do.
"""

import ctypes
import errno
import mmap
import os
import socket
import sys

LIBC = ctypes.CDLL(None, use_errno=True)
DEVICES = {"full", "null", "random", "tty", "urandom", "zero"}
# What systemd adds to the devices: folders, links, and those of its own for terminals.
ADDED = {"char", "console", "core", "fd", "hugepages", "log", "mqueue", "ptmx", "pts", "shm", "stderr", "stdin",
         "stdout"}


def refused(result, number):
    assert result < 0 and ctypes.get_errno() == number, (result, ctypes.get_errno())


def fails(number, attempt, *arguments):
    try:
        attempt(*arguments)
    except OSError as error:
        assert error.errno == number, error
    else:
        raise AssertionError((attempt, arguments))


def ask_kernel():
    refused(LIBC.mount(b"none", b"/mnt", b"tmpfs", 0, None), errno.EPERM)
    refused(LIBC.unshare(0x10000000), errno.EPERM)
    refused(LIBC.ptrace(0, 0, 0, 0), errno.EPERM)
    refused(LIBC.personality(8), errno.EPERM)
    refused(LIBC.reboot(0), errno.EPERM)
    refused(LIBC.syscall(425, 1, 0), errno.EPERM)  # io_uring_setup
    refused(LIBC.syscall(321, 0, 0, 0), errno.EPERM)  # bpf
    refused(LIBC.syscall(311, os.getppid(), 0, 0, 0, 0, 0), errno.EPERM)  # process_vm_writev
    refused(LIBC.shmget(0, 4096, 0o1600), errno.EPERM)
    fails(errno.EPERM, os.memfd_create, "program")
    os.close(os.pipe()[0])
    fails(errno.EAFNOSUPPORT, socket.socket, socket.AF_INET, socket.SOCK_STREAM)
    fails(errno.EAFNOSUPPORT, socket.socket, socket.AF_NETLINK, socket.SOCK_RAW)
    socket.socket(socket.AF_UNIX, socket.SOCK_STREAM).close()
    fails(errno.EPERM, mmap.mmap, -1, 4096, mmap.MAP_PRIVATE, mmap.PROT_READ | mmap.PROT_WRITE | mmap.PROT_EXEC)


def touch_files(folder, run):
    fails(errno.EPERM, os.mknod, folder + "/device", 0o020666, os.makedev(1, 1))
    fails(errno.EPERM, os.chmod, folder + "/file", 0o4755)
    fails(errno.EPERM, os.chown, folder + "/file", 1, 1)
    fails(errno.EROFS, open, "/etc/dirwell-test", "w")
    fails(errno.EROFS, open, "/usr/dirwell-test", "w")
    fails(errno.EROFS, open, "/proc/sys/kernel/hostname", "w")
    for name in ("systemd", "udev", "dirwell"):
        fails(errno.EROFS, open, f"{run}/{name}/written", "w")
    fails(errno.ENOENT, socket.socket(socket.AF_UNIX).connect, run + "/systemd/private")
    fails(errno.ENOENT, socket.socket(socket.AF_UNIX).connect, run + "/dbus/system_bus_socket")
    socket.socket(socket.AF_UNIX).connect(run + "/accounts")
    assert DEVICES <= set(os.listdir("/dev")) <= DEVICES | ADDED, os.listdir("/dev")
    open(folder + "/written", "w").close()
    assert os.stat(folder + "/written").st_mode & 0o777 == 0o600


def runs(program):
    """As the session's user would."""
    child = os.fork()
    if child == 0:
        try:
            os.setresuid(1, 1, 1)
            os.execv(program, [program])
        except OSError as error:
            os._exit(error.errno)
    status = os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])
    assert status in (0, errno.EACCES), (program, status)
    return status == 0


def main():
    folder, run, *programs = sys.argv[1:]
    ask_kernel()
    touch_files(folder, run)
    assert runs("/usr/bin/true")
    for program in programs:
        assert not runs(program), program
    print("all refused")


if __name__ == "__main__":
    main()
