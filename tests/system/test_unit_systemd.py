"""The unit file under a systemd that is in charge, as it is shipped: what it starts, bounds, ends and starts again."""

import contextlib
import http.client
import os
import re
import threading
import time

import pytest

from harness.instance import TOP, build_setting, wait_until
from harness.machine import Machine, Service, in_the_way

REASON = in_the_way()
pytestmark = pytest.mark.skipif(bool(REASON), reason=f"no machine for systemd: {REASON}")

# Says "hevc" to all, but later or with something left behind where the file's name tells so.
TOOL = """#!/bin/sh
case "$*" in
  *slow*) sleep 3 ;;
  *stray*)
    # The group of processes is ended with its first.
    setsid sh -c 'exec sleep 1000' <&- >&- 2>&- &
    until grep -q '^sleep' /proc/$!/cmdline; do sleep 0.05; done ;;
esac
echo ' Stream #0:0: Video: hevc (Main)' >&2
"""
ATTEMPTS = """\
Type=oneshot
Restart=no
ExecStart=
ExecStart=/usr/bin/python3 /usr/lib/dirwell/attempts.py /share/tried /run %s
"""
# Where anybody could put a program, and some more.
TRIED = [f"{folder}/program" for folder in ("/share/tried", "/run", "/run/user/1000", "/run/dirwell", "/run/udev",
                                            "/home", "/root", "/opt", "/dev/hugepages")]
EMPTY = {"/run/systemd", "/run/systemd/userdb", "/run/systemd/incoming"}  # but for sockets
MB = 1 << 20
MANY = 100_000


@pytest.fixture(scope="module")
def machine():
    with contextlib.ExitStack() as stack:
        made = Machine()
        stack.callback(made.finish)
        for name in ("a.txt", "b.txt"):
            made.lay(f"share/Public/{name}", name)
        made.lay("share/slow/slow.mkv", "")
        made.lay("share/stray/stray.mkv", "")
        made.lay("etc/samba/smb.conf", "[Public]\npath = /share/Public\n")
        made.lay("etc/config/def_share.info", "[SHARE_DEF]\ndefVolMP = /share/volume\n")
        made.lay("usr/bin/ffmpeg", TOOL, 0o755)
        made.lay("usr/lib/dirwell/attempts.py", (TOP / "tests/system/harness/attempts.py").read_bytes(), 0o755)
        made.drop_in("program", ATTEMPTS % " ".join(TRIED), session="attempts")
        made.drop_in("volume", "ReadWritePaths=/volume1\nNoExecPaths=/volume1\n", session="volume")
        made.drop_in("shared-temporary", "PrivateTmp=no\nReadOnlyPaths=/tmp /var/tmp\n", session="temporary")
        made.folder_of(made.files / "share/volume")
        made.folder_of(made.files / "home")
        yield made.start()


@pytest.fixture
def service(machine):
    """A service that runs, for a session of nobody's."""
    with Service(machine) as made:
        yield made.start()


def names(reply):
    assert (reply["error_code"], reply["error_message"]) == (0, ""), reply
    return [entry["filename"] for entry in reply["datas"]]


def cached(service, folder):
    """A page of a new cache of the folder; None where none can be made."""
    body = b'{"path":[{"full_path":"%s","alias":"/Share"}]}' % folder.encode()
    made = service.exchange("POST", "/create.cache", body).json()
    if "uuid" not in made:
        return None
    return service.exchange("POST", "/fetch.cache", b'{"uuid":"%s"}' % made["uuid"].encode()).json()


def mounted(service, path):
    """The options of the mount that the daemon finds a path on: the last of those that are nearest to it."""
    options = {}
    for line in service.proc("mounts").splitlines():
        point = line.split()[1]
        if f"{path}/".startswith(point.rstrip("/") + "/"):
            options[point] = set(line.split()[3].split(","))
    return options[max(options, key=len)]


def asked_at_once(service, folder, count, timeout=60):
    """The answers to so many listings of a folder; None where there was none, or not a whole one."""
    answers = [None] * count

    def ask(number):
        with contextlib.suppress(OSError, http.client.HTTPException):
            answers[number] = service.ask(folder, timeout)

    threads = [threading.Thread(target=ask, args=(number,)) for number in range(count)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join(timeout)
    return answers


# --- What is started ---


def test_a_session_is_served(service):
    assert service.state() == "active running success"
    assert service.fetch("/share/Public")["total"] == 2
    assert names(cached(service, "/share/Public")) == ["a.txt", "b.txt"]
    database = service.machine.path(f"/share/volume/.fs/{service.sid}.1")
    assert os.stat(database).st_mode & 0o777 == 0o600
    assert f"[dirwell-{service.sid}] startup service" in service.journal()


def test_the_daemon_has_what_the_unit_gives_and_no_more(service):
    status = dict(line.split(":\t", 1) for line in service.proc("status").splitlines() if ":\t" in line)
    assert [status[key] for key in ("CapPrm", "CapEff", "CapBnd", "CapInh", "CapAmb")] == [
        "00000000000000ea", "00000000000000ea", "00000000000000ea", "0000000000000000", "0000000000000000"]
    assert (status["NoNewPrivs"], status["Seccomp"], status["Umask"]) == ("1", "2", "0077")
    limits = service.proc("limits")
    assert re.search(r"^Max open files +8192 +8192 ", limits, re.MULTILINE)
    assert re.search(r"^Max core file size +0 +0 ", limits, re.MULTILINE)
    # A network of its own, with nothing in it.
    assert re.findall(r"^ *(\w+):", service.proc("net/dev"), re.MULTILINE) == ["lo"]


def test_the_limits_of_the_unit_are_those_of_its_control_group(service):
    assert service.limit("TasksMax") == 3072
    assert service.limit("MemoryMax") == 18 << 30


def test_sessions_are_served_side_by_side(machine, service):
    with Service(machine, user="root") as other:
        other.start()
        assert other.main_pid() != service.main_pid()
        assert names(other.fetch("/share/Public")) == names(service.fetch("/share/Public")) == ["a.txt", "b.txt"]
    assert other.state() == "inactive dead success"
    assert service.state() == "active running success"


def test_nothing_is_started_without_a_session(machine):
    machine.control("start", "dirwell@nobody-came.service")
    shown = machine.control("show", "dirwell@nobody-came.service", "--property=ConditionResult,ActiveState,NRestarts")
    assert sorted(shown.stdout.split()) == ["ActiveState=inactive", "ConditionResult=no", "NRestarts=0"]


# --- What is restricted ---


def test_a_volume_beside_the_shares_is_allowed_by_a_drop_in(machine):
    """The settings that the unit names for it."""
    volume = machine.path("/volume1")
    volume.mkdir()
    configured = machine.path("/etc/config/def_share.info")
    usual = configured.read_text()
    with contextlib.ExitStack() as stack:
        stack.callback(configured.write_text, usual)
        configured.write_text("[SHARE_DEF]\ndefVolMP = /volume1\n")
        usual_one = stack.enter_context(Service(machine))
        allowed = stack.enter_context(Service(machine, sid="volume"))
        assert cached(usual_one.start(), "/share/Public") is None
        assert names(cached(allowed.start(), "/share/Public")) == ["a.txt", "b.txt"]
        assert [path.name for path in (volume / ".fs").iterdir()] == ["volume.1"]
        assert {"rw", "noexec"} <= mounted(allowed, "/volume1"), allowed.proc("mounts")


def test_a_volume_that_is_mounted_later_is_listed(machine, service):
    """It comes as it is mounted: the unit's settings reach what is there at the start."""
    mounted_later = machine.run("sh", "-ec", "mkdir /share/late && mount -t tmpfs -o mode=755 tmpfs /share/late && "
                                             "touch /share/late/a")
    assert mounted_later.returncode == 0, mounted_later.stdout
    listed = service.ask("/share/late")
    assert machine.run("umount", "/share/late").returncode == 0
    assert names(listed.json()) == ["a"]
    assert names(service.fetch("/share/late")) == []


def test_shares_below_tmp_are_allowed_by_a_drop_in(machine):
    made = machine.run("sh", "-ec", "mkdir /tmp/share && touch /tmp/share/a && chmod 755 /tmp/share")
    assert made.returncode == 0, made.stdout
    with Service(machine) as usual_one, Service(machine, sid="temporary") as allowed:
        assert names(usual_one.start().fetch("/tmp/share")) == []
        assert names(allowed.start().fetch("/tmp/share")) == ["a"]
        for path in ("/tmp/share", "/var/tmp"):
            assert {"ro", "noexec"} <= mounted(allowed, path), allowed.proc("mounts")


def test_nothing_but_the_systems_programs_can_be_run(service):
    """Of all that the daemon sees. What a later mount covers does not count, nor do the kernel's own file systems."""
    mounts = {}
    for line in service.proc("mounts").splitlines():
        _, point, kind, options, *_ = line.split()
        mounts[point] = (kind, set(options.split(",")))
    own = ("proc", "sysfs", "cgroup", "cgroup2", "devpts", "mqueue")
    written = {point for point, (kind, options) in mounts.items() if "rw" in options and kind not in own}
    assert written == {"/run", "/run/lock", "/share", "/tmp", "/var/tmp", "/dev/shm", "/dev/hugepages"}, mounts
    run = {point for point, (kind, options) in mounts.items() if "noexec" not in options and kind not in own}
    assert {point for point in run if not re.match(r"/(usr|bin|lib|lib64)(/|$)", point)} <= EMPTY, mounts
    assert "ro" in mounts["/usr"][1] and "/usr" in run
    for folder in EMPTY & run:
        found = service.machine.run("nsenter", f"--target={service.main_pid()}", "--mount", "find", folder, "-type", "f")
        assert (found.returncode, found.stdout) == (0, "")


def test_the_restrictions_hold(machine):
    """What a daemon that had been taken over would try, in the daemon's place."""
    prepared = machine.run("sh", "-ec", f"""
        mkdir -p /share/tried /run/udev /run/dbus
        touch /share/tried/file
        for program in {" ".join(TRIED)}; do cp /usr/bin/true $program; $program; done
    """)
    assert prepared.returncode == 0, prepared.stdout
    attempts = Service(machine, sid="attempts")
    with machine.listener("/run/accounts"), machine.listener("/run/dbus/system_bus_socket"):
        done = machine.control("start", attempts.unit)
    assert done.returncode == 0 and "all refused" in attempts.journal(), attempts.journal()


# --- What is bounded ---


def test_requests_that_find_no_more_tasks_fail_and_no_others(service):
    """Each of the requests that are served takes some tasks for three seconds."""
    pid = service.main_pid()
    service.set(TasksMax=service.tasks() + 20)
    answers = asked_at_once(service, "/share/slow", 30)
    statuses = [answer.status if answer else None for answer in answers]
    assert statuses.count(200) >= 1 and statuses.count(502) >= 5, statuses
    assert statuses.count(200) + statuses.count(502) == 30, statuses
    assert service.refused_tasks() > 0
    for answer in answers:
        if answer.status == 200:
            assert names(answer.json()) == ["slow.mkv"]
    assert wait_until(lambda: service.processes() == [pid], 20), service.processes()
    assert names(service.fetch("/share/Public")) == ["a.txt", "b.txt"]
    assert service.main_pid() == pid


def test_a_listing_that_takes_too_much_memory_costs_its_client_a_502(machine, service):
    pid = service.main_pid()
    many = machine.path("/share/many")
    if not many.exists():
        many.mkdir()
        for number in range(MANY):
            os.close(os.open(many / f"{number:06d}-{'x' * 60}", os.O_CREAT | os.O_WRONLY, 0o644))
    assert service.fetch("/share/many", limit=50)["total"] == 50  # it ends where the page does
    before = service.used_memory()
    service.set(MemoryMax=before + (96 if build_setting("DIRWELL_SANITIZE") else 24) * MB)
    answer = service.ask("/share/many")
    assert answer.status == 502, answer
    assert service.killed_for_memory() > 0
    assert names(service.fetch("/share/Public")) == ["a.txt", "b.txt"]
    assert (service.main_pid(), service.state()) == (pid, "active running success")
    service.set(MemoryMax="infinity")
    assert service.fetch("/share/many")["total"] == MANY


# --- What ends, and what is started again ---


def test_a_stop_waits_for_the_replies(service):
    answers = []
    asking = threading.Thread(target=lambda: answers.append(service.ask("/share/slow")))
    asking.start()
    assert wait_until(lambda: any(service.is_run_by(pid, "sleep") for pid in service.processes()))
    start = time.monotonic()
    assert service.machine.control("stop", service.unit).returncode == 0
    asking.join(20)
    assert names(answers[0].json()) == ["slow.mkv"]
    assert 0.5 < time.monotonic() - start < 6
    assert service.state() == "inactive dead success"
    assert not service.socket.exists()


def test_what_a_tool_leaves_behind_dies_with_the_service(service):
    assert names(service.fetch("/share/stray")) == ["stray.mkv"]
    pid = service.main_pid()
    assert wait_until(lambda: len(service.processes()) == 2)
    stray, = set(service.processes()) - {pid}
    assert service.proc("cmdline", stray) == "sleep\0001000\0"
    assert service.machine.control("stop", service.unit).returncode == 0
    assert wait_until(lambda: not service.machine.path(f"/proc/{stray}").exists())


def test_a_crash_is_followed_by_another_start(service):
    first = service.main_pid()
    service.machine.run("kill", "-KILL", str(first))
    assert wait_until(lambda: service.main_pid() not in (0, first) and service.answers(), 20), service.journal()
    assert names(service.fetch("/share/Public")) == ["a.txt", "b.txt"]
    assert service.show("NRestarts") == {"NRestarts": "1"}


def test_an_end_of_its_own_is_not(service):
    """As after the session's end."""
    service.machine.run("kill", "-TERM", str(service.main_pid()))
    assert wait_until(lambda: service.state() == "inactive dead success"), service.state()
    time.sleep(2)  # a start again would come after one
    assert service.state() == "inactive dead success"
    assert service.show("NRestarts") == {"NRestarts": "0"}
