"""The unit file: systemd understands it, its restrictions are strict, its limits hold what the service takes at most,
and the daemon lives under them."""

import contextlib
import os
import re
import shutil
import socket
import subprocess

import pytest

from harness import confine
from harness.caches import changed, followed, give_volume, made, names, next_second, page
from harness.instance import TOP, Instance, binary_folder, wait_until
from harness.machine import UNIT
from harness.tree import make_file, make_folder

CONFINE = TOP / "tests/system/harness/confine.py"
ATTEMPTS = TOP / "tests/system/harness/attempts.py"
NOBODY = 65534
MB = 1_000_000


# --- What systemd says ---


def systemd_analyze(*arguments):
    return subprocess.run(["systemd-analyze", "--no-pager", *arguments], stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, timeout=60, check=False)


def test_systemd_finds_no_fault_with_the_unit(tmp_path):
    """With a program in the daemon's place, which need not be installed."""
    text = UNIT.read_text()
    assert text.count("ExecStart=/usr/bin/dirwell --sid=%i\n") == 1
    unit = tmp_path / "dirwell@session-1.service"
    unit.write_text(text.replace("/usr/bin/dirwell", "/usr/bin/true"))
    result = systemd_analyze("verify", str(unit))
    assert (result.returncode, result.stdout) == (0, "")
    unit.write_text(unit.read_text().replace("NoNewPrivileges=yes", "NoNewPrivilege=yes"))
    assert "Unknown key 'NoNewPrivilege' in section [Service]" in systemd_analyze("verify", str(unit)).stdout


def test_what_the_unit_exposes():
    """Of 10, where an ordinary service has 9.6."""
    result = systemd_analyze("security", "--offline=yes", "--threshold=17", str(UNIT))
    score, = re.findall(r"Overall exposure level for dirwell@\S*\.service: ([\d.]+)", result.stdout)
    assert result.returncode == 0 and float(score) <= 1.7, result.stdout
    # All that is left open is open on purpose; the unit says why.
    left = {match for match in re.findall(r"^✗ (\S+)", result.stdout, re.MULTILINE)}
    assert left == {"SystemCallFilter=~@resources", "SystemCallFilter=~@privileged", "RootDirectory=/RootImage=",
                    "User=/DynamicUser=", "CapabilityBoundingSet=~CAP_(DAC_*|FOWNER|IPC_OWNER)",
                    "CapabilityBoundingSet=~CAP_SET(UID|GID|PCAP)", "CapabilityBoundingSet=~CAP_KILL",
                    "RestrictAddressFamilies=~AF_UNIX", "RestrictRealtime=", "ProtectHome=", "ProcSubset=",
                    "PrivateUsers=", "DeviceAllow="}


# --- Limits ---


def constants(path, *names_of_constants):
    """Whole numbers that a source file defines."""
    text = (TOP / path).read_text()
    found = []
    for name in names_of_constants:
        number, = re.findall(rf"\b{name} = (\d+);", text)
        found.append(int(number))
    return found


def setting(name):
    value, = confine.read_unit(UNIT)[name]
    return value


def test_the_limits_hold_what_the_service_takes_at_most():
    connections, kept, lingering = constants("src/platform/host/limits.h", "connections", "kept", "lingering")
    own, waiting = constants("src/platform/host/budget.cpp", "own", "most_waiting")
    assert (connections, kept, lingering, own, waiting) == (128, 128, 64, 40, 4096)
    # A place has its client, both ends of a handler's socket, and what a client that has gone may leave behind.
    assert int(setting("LimitNOFILE")) >= 4 * connections + kept + lingering + waiting + own
    # The request, the thread that looks after its client, the process between the forks, and a tool of 20 threads.
    assert int(setting("TasksMax")) >= connections * (1 + 1 + 1 + 20) + 6
    # 110 MB is what a listing of 100,000 entries takes, 30 MB are more than twice a video tool's; beside them stand the
    # daemon and the process that reads a cache's folders.
    match = re.fullmatch(r"(\d+)G", setting("MemoryMax"))
    assert int(match.group(1)) * 1024**3 >= connections * (110 + 30) * MB + (10 + 300) * MB


def test_a_stop_is_waited_for_longer_than_the_service_waits():
    stop, = re.findall(r"\bstop\{(\d+)'000\}", (TOP / "src/platform/host/limits.h").read_text())
    assert int(setting("TimeoutStopSec")) >= int(stop) + 5
    assert setting("KillMode") == "mixed"


def test_every_folder_with_a_setting_of_its_own_is_one_where_nothing_is_run():
    """What holds for the root folder does not reach them. Two are for systemd's own programs, or hold but sockets."""
    settings = confine.read_unit(UNIT)

    def paths(*keys):
        return {path.lstrip("-").partition(":")[0] for key in keys for value in settings[key] for path in value.split()}

    of_their_own = paths("ReadWritePaths", "ReadOnlyPaths", "TemporaryFileSystem") | {"/tmp", "/var/tmp", "/run/user"}
    assert of_their_own - paths("NoExecPaths") == {"/run/systemd"}
    assert paths("ExecPaths") == {"/usr", "/bin", "/lib", "/lib64"}
    assert paths("BindReadOnlyPaths") == {"/usr", "/bin", "/lib", "/lib64", "/run/systemd/userdb"}
    assert paths("NoExecPaths") == {"/", "/run", "/run/udev", "/run/dirwell", "/run/user", "/share", "/tmp", "/var/tmp",
                                    "/dev/shm", "/dev/hugepages"}


# --- The daemon under the unit's restrictions ---


class ConfinedInstance(Instance):
    """Its daemon is started by a script that takes on the unit's restrictions first."""

    def __init__(self, user):
        super().__init__(user)
        real = self.binary
        self.binary = self.root / "confined"
        self.binary.write_text(f'#!/bin/sh\nexec /usr/bin/python3 -B {CONFINE} {UNIT} "$0" {real} "$@"\n')
        self.binary.chmod(0o755)
        # The search for leaks looks into the process as a debugger does, which the unit forbids.
        options = self.environment.get("ASAN_OPTIONS")
        self.environment["ASAN_OPTIONS"] = f"{options}:detect_leaks=0" if options else "detect_leaks=0"


@pytest.fixture
def confined():
    """A daemon with a default volume, and caches, for a session of nobody's."""
    with contextlib.ExitStack() as stack:
        instance = ConfinedInstance("nobody")
        stack.callback(instance.finish)
        yield give_volume(instance)


def status_of(pid):
    with open(f"/proc/{pid}/status", encoding="utf-8") as file:
        return dict(line.rstrip("\n").split(":\t", 1) for line in file if ":\t" in line)


def test_the_daemon_serves_under_the_restrictions(confined):
    confined.write_program("/usr/bin/ffmpeg", "echo ' Stream #0:0: Video: hevc (Main)' >&2\n"
                                              f"cat /proc/$$/status >{confined.root}/notes/status\n")
    make_folder(confined.root / "notes", mode=0o777)
    make_file(confined.share / "clip.mkv")
    make_file(confined.share / "own.txt", mode=0o600, uid=NOBODY)
    make_file(confined.share / "roots.txt", mode=0o600)
    make_folder(confined.share / "closed", mode=0o700)
    confined.start()
    described = {entry["filename"]: (entry["acl"], entry["is_h265"]) for entry in confined.fetch()["datas"]}
    assert described == {"clip.mkv": (4, 1), "closed": (0, 0), "own.txt": (6, 0), "roots.txt": (0, 0)}
    assert confined.names(confined.share / "closed") == []
    # The daemon has five rights, and no way to more; the tool has none.
    daemon = status_of(confined.process.pid)
    assert [daemon[key] for key in ("CapPrm", "CapEff", "CapBnd", "CapInh", "CapAmb")] == [
        "00000000000000ea", "00000000000000ea", "00000000000000ea", "0000000000000000", "0000000000000000"]
    assert (daemon["NoNewPrivs"], daemon["Seccomp"]) == ("1", "2")
    tool = dict(line.split(":\t", 1) for line in (confined.root / "notes/status").read_text().splitlines())
    assert (tool["CapEff"], tool["CapPrm"], tool["Uid"], tool["Seccomp"]) == (
        "0000000000000000", "0000000000000000", "65534\t65534\t65534\t65534", "2")
    # Caches, and the watches of their folders.
    uuid = followed(confined, confined.share)
    assert names(page(confined, uuid)) == ["clip.mkv", "closed", "own.txt", "roots.txt"]
    next_second()
    make_file(confined.share / "new.txt")
    assert wait_until(lambda: changed(confined, uuid))
    assert os.stat(confined.volume / ".fs" / f"{confined.sid}.1").st_mode & 0o777 == 0o600
    confined.stop()


def test_the_video_tool_works_under_the_restrictions(confined):
    clip = confined.share / "clip.mp4"
    subprocess.run(["ffmpeg", "-v", "error", "-f", "lavfi", "-i", "testsrc=size=64x64:rate=5:duration=1", "-c:v",
                    "libx265", "-x265-params", "log-level=error", str(clip)],
                   stdin=subprocess.DEVNULL, check=True, timeout=60)
    clip.chmod(0o644)
    confined.start()
    entry, = confined.fetch()["datas"]
    assert entry["is_h265"] == 1


def test_a_session_of_roots_keeps_its_rights():
    with contextlib.ExitStack() as stack:
        instance = ConfinedInstance("root")
        stack.callback(instance.finish)
        make_file(instance.share / "none", mode=0o000, uid=NOBODY)
        make_folder(instance.share / "closed", mode=0o000)
        give_volume(instance).start()
        assert {entry["filename"]: entry["acl"] for entry in instance.fetch()["datas"]} == {"none": 6, "closed": 7}
        assert names(page(instance, made(instance, instance.share))) == ["closed", "none"]


def test_the_restrictions_hold(tmp_path):
    """What a daemon that had been taken over would try."""
    (tmp_path / "file").touch()
    shared = shutil.copy("/usr/bin/true", tmp_path.parent / "program")  # beside the folder that stands for the root
    for folder in ("systemd", "udev", "dirwell", "dbus"):
        (tmp_path / "var/run" / folder).mkdir(parents=True)
    with contextlib.ExitStack() as listeners:
        for name in ("systemd/private", "dbus/system_bus_socket", "accounts"):
            listener = listeners.enter_context(socket.socket(socket.AF_UNIX))
            listener.bind(str(tmp_path / "var/run" / name))
            listener.listen()
        attempt_all(tmp_path, shared)


def attempt_all(tmp_path, shared):
    done = subprocess.run(["/usr/bin/python3", "-B", str(CONFINE), str(UNIT), "python3", "/usr/bin/python3",
                           str(ATTEMPTS), str(tmp_path), str(tmp_path / "var/run"), str(shared)],
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=60, check=False,
                          env={"PATH": "/usr/bin", "DIRWELL_ROOT": str(tmp_path)})
    assert (done.returncode, done.stdout) == (0, "all refused\n"), done.stderr


def test_the_programs_of_this_build_are_what_is_confined():
    """The confined daemon is the one that the other tests drive."""
    with contextlib.ExitStack() as stack:
        instance = ConfinedInstance("nobody")
        stack.callback(instance.finish)
        instance.start()
        assert os.readlink(f"/proc/{instance.process.pid}/exe") == str((binary_folder() / "dirwell").resolve())
