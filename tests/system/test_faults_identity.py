"""When the switch to the user's identity fails at any of its steps, nothing is touched with another identity."""

import ctypes
import errno
import os
import struct

import pytest

from harness.fault_requests import Requests, furnish
from harness.faults import Faults
from harness.instance import fresh_instance, wait_until

IN_ACCESS, IN_MODIFY, IN_OPEN, IN_CREATE, IN_DELETE = 0x1, 0x2, 0x20, 0x100, 0x200
STEPS = [("setgroups", errno.EPERM), ("setgroups", errno.ENOMEM), ("setegid", errno.EPERM), ("setegid", errno.EINVAL),
         ("seteuid", errno.EPERM), ("seteuid", errno.EAGAIN),
         ("setegid", 0), ("seteuid", 0)]  # 0: says that it has succeeded, and has not
ENDPOINTS = ["fetch.resource", "create.cache", "fetch.cache", "delete.cache"]


class Witness:
    """What the kernel tells about files of these folders that are opened, read or changed by anybody."""

    def __init__(self, *folders):
        self.libc = ctypes.CDLL(None, use_errno=True)
        self.descriptor = self.libc.inotify_init1(os.O_NONBLOCK | os.O_CLOEXEC)
        assert self.descriptor >= 0
        # All are known before the first is watched: looking for them opens folders too.
        for path in [path for folder in folders for path, _, _ in os.walk(folder)]:
            assert self.libc.inotify_add_watch(self.descriptor, os.fsencode(path),
                                               IN_ACCESS | IN_MODIFY | IN_OPEN | IN_CREATE | IN_DELETE) >= 0

    def __enter__(self):
        return self

    def __exit__(self, *_):
        os.close(self.descriptor)

    def seen(self):
        """The names since the last look; a folder's own is empty."""
        names = []
        try:
            while data := os.read(self.descriptor, 65536):
                at = 0
                while at < len(data):
                    length, = struct.unpack_from("I", data, at + 12)
                    names.append(data[at + 16:at + 16 + length].rstrip(b"\0").decode())
                    at += 16 + length
        except BlockingIOError:
            return names


@pytest.fixture(scope="module")
def served():
    with fresh_instance("nobody") as instance:
        instance.faults = Faults(instance)
        instance.notes = instance.root / "notes"
        instance.notes.mkdir()
        instance.notes.chmod(0o777)
        furnish(instance)
        instance.write_program("/usr/bin/ffmpeg", f"cat /proc/$$/status >{instance.notes}/status\n")
        instance.start("--level", "7", "--sid", instance.sid)
        instance.faults.begin()
        instance.requests = Requests(instance)
        yield instance


def paths(recorded, *folders):
    """What of these folders was named in a call of a file, and by whom."""
    return [(who, call, path) for who, call, path in recorded if path.startswith(tuple(str(folder) for folder in folders))]


def test_the_witnesses_see_what_a_request_touches(served):
    served.faults.watch_only()
    with Witness(served.share) as witness:
        with served.faults.recorded() as recorded:
            assert served.requests.ask("fetch.resource")["error_code"] == 0
        assert "sub" in witness.seen()
    assert paths(recorded, served.share)


@pytest.mark.parametrize("name", ENDPOINTS)
@pytest.mark.parametrize("call, error", STEPS)
def test_a_request_process_without_the_users_identity_touches_nothing(served, name, call, error):
    faults, requests = served.faults, served.requests
    requests.prepare(name)
    uuid = requests.uuid
    requests.quiet(faults)
    faults.arm("request", call, error=error)
    with Witness(served.share, served.volume) as witness:
        with faults.recorded() as recorded:
            reply = requests.ask(name)
            requests.settle(faults)
        faults.disarm()
        assert witness.seen() == []
    assert faults.injected == 1
    assert reply == "502"
    assert paths(recorded, served.share, served.volume) == []
    # Nothing else is done in the whole process.
    assert {made for who, made, _ in recorded if who == "request"} <= {"getgrouplist", "setgroups", "setegid", "seteuid"}
    requests.uuid = uuid
    requests.prepare(name)
    assert requests.ask(name)["error_code"] == 0


def test_groups_that_cannot_be_looked_up_are_none(served):
    served.requests.settle(served.faults)
    served.faults.arm("request", "getgrouplist")
    assert served.requests.ask("fetch.resource")["error_code"] == 0
    assert served.faults.injected == 1
    served.faults.disarm()
    status = dict(line.split(":", 1) for line in (served.notes / "status").read_text().splitlines())
    assert (status["Uid"].split(), status["Gid"].split(), status["Groups"].split()) == (["65534"] * 4, ["65534"] * 4, [])
    assert served.requests.ask("fetch.resource")["error_code"] == 0
    status = dict(line.split(":", 1) for line in (served.notes / "status").read_text().splitlines())
    assert status["Groups"].split() == ["65534"]


@pytest.mark.parametrize("call", ["raw_setsid", "raw_setresgid", "raw_setresuid", "raw_capset", "prctl", "raw_dup3", "raw_close_range",
                                  "raw_execve"])
def test_a_program_that_cannot_be_put_into_its_place_does_not_run(served, call):
    note = served.notes / "status"
    note.unlink(missing_ok=True)
    served.requests.settle(served.faults)
    served.faults.arm("tool", call, times=0, error=errno.EPERM)
    reply = served.requests.ask("fetch.resource")
    assert served.faults.injected >= 1
    served.faults.disarm()
    assert reply["error_code"] == 0 and len(reply["datas"]) == 11
    assert not note.exists()
    assert served.requests.ask("fetch.resource")["error_code"] == 0
    assert note.exists()


@pytest.mark.parametrize("call, first", [("setfsgid", 1), ("setfsuid", 1), ("raw_setgroups", 1)])
def test_the_watch_thread_touches_nothing_without_the_users_identity(served, call, first):
    """Whatever reads the cache, the thread that puts the watches up does it as the user or not at all."""
    served.requests.prepare("fetch.cache")
    served.requests.quiet(served.faults)
    served.faults.arm("threads", call, first=first, error=errno.EPERM)
    since = len(served.lines())
    with served.faults.recorded() as recorded:
        assert served.requests.ask("watch")["error_code"] == 0
        assert wait_until(lambda: any("cannot be watched" in line for line in served.lines()[since:]))
        assert served.faults.injected == 1
    served.faults.disarm()
    assert [entry for entry in paths(recorded, served.share, served.volume) if entry[0] == "threads"] == []
    assert not [entry for entry in recorded if entry[1] == "inotify_add_watch"]


def test_a_daemon_that_could_not_look_its_user_up_serves_nobody(make_instance):
    instance = make_instance("nobody")
    faults = Faults(instance)
    furnish(instance).start()
    faults.begin()
    assert instance.fetch()["error_code"] == 0
    instance.stop()
    instance.process = None
    for number in (1, 2):  # the platform's look-up as the session is set, then the daemon's own
        faults.arm("daemon", "getpwuid_r", first=number, error=errno.EIO)
        instance.start()
        assert faults.injected == 1
        faults.disarm()
        requests = Requests(instance)
        with Witness(instance.share) as witness:
            assert requests.ask("list")["error_code"] == 0
            assert requests.ask("fetch.resource") == "502"
            assert witness.seen() == []
        instance.stop()
        instance.process = None
