"""The platform's operations fail, one by one and from some time on, in each way that their headers name: under every
request, at the start, at the stop, and in the daemon's own work. Each outcome is told in full here: the reply, the lines
of the log, and what the daemon watches afterwards.

The daemon of these tests asks a platform that fails on demand (tests/faults/platform.cpp). Which operations a request or
a phase asks for is recorded, so that a new use of one has no outcome here and fails. Every occurrence is tried.
"""

import collections
import copy
import errno
import os
import re
import time

import pytest

from harness.caches import next_second, places, watches
from harness.fault_requests import Requests, furnish, nothing_is_left, tell
from harness.faults import Faults
from harness.instance import TOP, binary_folder, fresh_instance, wait_until
from harness.loglines import said
from harness.tree import make_file

NAMES = ["list", "fetch.resource", "snapshot fetch.resource", "create.cache", "fetch.cache", "delete.cache", "watch",
         "invalid watch", "long watch"]
LISTINGS = ["fetch.resource", "snapshot fetch.resource", "create.cache"]
UUID = re.compile(r"[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}")

FFMPEG = "/usr/bin/ffmpeg"
MOUNT_TOOL = "/usr/local/bin/remote_mount_tool"

# --- The operations ---

# These have no failure that could be told: they return nothing, or what the caller holds already.
SURE = {
    "hx_rest_destroy": "frees", "hx_free": "frees", "hx_io_free": "frees", "SMB_Free_Share_Info": "frees",
    "hx_worker_init": "notes a hook", "hx_worker_fini": "notes a hook", "hx_signal": "installs a handler",
    "hx_stop": "raises an event", "hx_root": "never NULL", "hx_io_size": "counts what is held",
}
# These are asked for by nothing that the daemon does.
UNASKED = {
    "Is_MTP_Share": "whether a share is a phone's shows in no key of an entry",
    "Is_ODD_Share": "whether a share is a disc's shows in no key of an entry",
}
# How an operation fails under a request, where there is more than one way or another than ENOMEM. 0 is no error: see
# platform.cpp. What the endpoint table refuses beside a row without memory is two rows of one name and a long usage text,
# which the daemon's rows, all constant, are not.
ERRORS = {
    "hx_io_write": (errno.ENOMEM, 0),
    "hx_call": (errno.ETIMEDOUT, errno.ENOENT, errno.ECONNREFUSED, errno.ECONNRESET, errno.EPROTO, errno.EMSGSIZE,
                errno.EINVAL, 0),
    "hx_io_execv": (errno.ENOENT, errno.ENOMEM, 0),
}


def declared():
    """The operations in the headers of the boundary."""
    found = set()
    for header in sorted((TOP / "src/platform/include").glob("*.h")):
        text = re.sub(r"/\*.*?\*/", "", header.read_text(), flags=re.DOTALL)
        found |= set(re.findall(r"^(?!typedef\b)\w[\w\s*]*?\b(\w+)\([^;{]*\);$", text, re.MULTILINE))
    return found


class Call:
    """One recorded operation; `detail` is what it was asked about."""

    def __init__(self, process, operation, detail):
        self.process = process
        self.operation = operation
        self.detail = detail

    def __repr__(self):
        return f"{self.operation} ({self.detail}) in {self.process}"


def operations(recorded):
    """The operations of a recording. An io object's is about the program or the call that it is made for."""
    known = declared()
    calls = [Call(process, call, detail) for process, call, detail in recorded if call in known]
    for process in {call.process for call in calls}:
        mine = [call for call in calls if call.process == process]
        about = ""
        for call in mine:
            if call.operation == "hx_io_execv":
                about = call.detail
            elif call.operation == "hx_io_read":
                call.detail = about
        about = ""
        for call in reversed(mine):
            if call.operation in ("hx_io_execv", "hx_call"):
                about = call.detail
            elif call.operation in ("hx_io_create", "hx_io_write"):
                call.detail = about
    return calls


# --- What is served ---


class PlatformRequests(Requests):
    def body(self, name):
        if name == "snapshot fetch.resource":
            return {"path": places((self.instance.share / "sub", "/snapshot:sub"))}
        return {"invalid watch": {"index": 3}, "second watch": {"index": 2},
                "long watch": {"index": 2, "text": "x" * 8192}}.get(name) or super().body(name)

    def make_ready(self):
        """Both caches are there and watched."""
        self.prepare("fetch.cache")
        for index, name in ((1, "watch"), (2, "second watch")):
            self.quiet(self.instance.faults)
            if not watches(self.instance, index):
                assert self.ask(name)["error_code"] == 0
        self.quiet(self.instance.faults)


def prepared(instance):
    """Every answer of the platform shows in a reply. Not started."""
    instance.binary = binary_folder() / "tests" / "faults" / "dirwell"
    instance.faults = Faults(instance)
    furnish(instance)
    instance.write_program(FFMPEG, "echo 'Stream #0: Video: hevc (Main)' >&2\n")
    instance.write_host("[ACL]\nenable = 0\nrich = 1\nwin_enable = 1\nwin_support = 1\n"
                        f"[MEDIA]\nlibrary = 1\nrealtime_transcoding = 1\ntranscoded = {instance.share}/clip.mkv\n"
                        f"[SNAPSHOT {instance.share}/sub]\nvolume = 3\nid = 17\nmount = /mnt/snap\n")
    instance.write("var/.application.conf", "[DISABLE]\nmediaLibrary = 1\n")
    instance.requests = PlatformRequests(instance)
    return instance


def heard(instance, since):
    """Tag and message of the lines after the first `since`, whatever the uuid."""
    return [(tag, UUID.sub("UUID", text)) for tag, text in said(instance.lines()[since:])]


class Outcome:
    """What comes of a request: the reply, the lines of the log, and what became of the watches of each cache."""

    def __init__(self, reply, lines, followed):
        self.reply = reply
        self.lines = lines
        self.followed = followed  # cache index: "kept", "renewed" or "none"

    def __eq__(self, other):
        return vars(self) == vars(other)

    def __repr__(self):
        return f"\n  {self.reply}\n  {self.lines}\n  {self.followed}"


def jobs_done(journal):
    """How many jobs the pool's thread has taken and released. What it still released of one before does not count."""
    calls = [call for process, call, _ in journal if process == "threads"]
    return calls[calls.index("hx_io_size"):].count("hx_io_free") if "hx_io_size" in calls else 0


def outcome(instance, name, jobs):
    """Asks, and waits until the jobs of the pool that the request makes are done; no fault is armed behind it. The
    operations that were asked for stand beside what came of it."""
    faults = instance.faults
    since = len(instance.lines())
    before = {index: watches(instance, index) for index in (1, 2)}
    with faults.recorded() as recorded:
        reply = instance.requests.ask(name)
        instance.requests.settle(faults)
        assert wait_until(lambda: jobs_done(faults.journal()) >= jobs), f"{name}: a job does not end"
        faults.disarm()
    instance.requests.quiet(faults)
    followed = {}
    for index in (1, 2):
        now = watches(instance, index)
        assert now == {} or sorted(now.values()) == sorted(before[index].values())
        followed[index] = "kept" if now == before[index] else ("renewed" if now else "none")
    return Outcome(reply, heard(instance, since), followed), operations(recorded)


class Intact:
    """What a request brings about when nothing fails, and the operations that it asks for."""

    def __init__(self, instance, name):
        self.jobs = int(name.split()[-1] in ("create.cache", "watch"))
        instance.requests.make_ready()
        instance.faults.watch_only()
        self.outcome, self.calls = outcome(instance, name, self.jobs)


@pytest.fixture(scope="module")
def tally(pytestconfig):
    """How often each operation has failed."""
    made = collections.Counter()
    yield made
    tell(pytestconfig, f"{made.total()} failures of {len(made)} operations of the platform were injected and survived")


@pytest.fixture(scope="module")
def served(tally):
    """A daemon for nobody's session on a platform that fails as it is told to, and what it does without a failure."""
    with fresh_instance("nobody") as instance:
        prepared(instance).start()
        instance.faults.begin()
        instance.tally = tally
        instance.write_veto("")
        instance.unvetoed = {name: instance.requests.ask(name) for name in LISTINGS}
        instance.write_veto("/secret*/")
        assert instance.call("create.cache", {"path": places(instance.share), "index": 2})["error_code"] == 0
        instance.intact = {name: Intact(instance, name) for name in NAMES}
        instance.descriptors = instance.daemon_descriptors()
        yield instance


# --- What comes of a failure: each of these changes what was expected without it ---


def named(reply, path):
    return next(entry for entry in reply["datas"] if entry["filename"] == os.path.basename(path))


def tool_is_silent(reply, tool):
    if tool == FFMPEG:
        named(reply, "clip.mkv")["is_h265"] = 0
        reply["has_h265"] = 0
    else:
        assert tool == MOUNT_TOOL
        named(reply, "cloud")["cache_folder_is_encypted"] = 0


def no_shares(reply):
    """No entry lies on the mount of a cloud then."""
    for entry in reply["datas"]:
        for key in ("is_cached", "cache_file_status", "cache_priority", "cache_upload_progress", "cache_folder_is_encypted",
                    "cache_folder_is_locked", "cache_root_status", "upload_failed_count"):
            entry[key] = 0


def no_snapshot(reply, path):
    for key in ("snapshot_id", "snapshot_vol_id", "snapshot_mount_path"):
        del named(reply, path)[key]


def no_volume(name, expected):
    expected.lines = [("W", "[cache] no default volume")]
    if name == "create.cache":
        # Not even the uuid can be kept, which is no error of the request's. What is watched is the cache that there was.
        expected.reply = {"error_code": 0, "error_message": ""}
        expected.lines += 2 * [("E", "[cache] unable to open database file")]  # for the tables, and for the uuid
    elif name == "fetch.cache":
        expected.reply = "2 invalid uuid"
        expected.lines += [("W", "[cache] uuid UUID invalid")]
    else:
        expected.reply = "3 uuid not found"
        expected.lines += [("I", "[cache] uuid UUID deleted")]


# The keys of the settings that an operation gives, and what they are without it.
SETTINGS = {
    "Get_Private_Profile_Integer": {"medialib": 1},
    "Is_Realtime_Transcoding_Support": {"rtt_support": 0},
    "Is_MediaLib_Enabled": {"medialib_enable": 0},
    "Is_ACL_Enabled": {},  # the other kind of list is on
    "Is_RichACL_Enabled": {"is_acl_enable": 0},
    "Is_Win_ACL_Enabled": {"is_winacl_enable": 0},
    "Is_Win_ACL_Supported": {"is_winacl_support": 0},
}


def fails_in_request(instance, name, call, expected):
    reply, operation = expected.reply, call.operation
    if operation == "hx_io_read" and not call.detail:
        # A request that cannot be read is an empty one.
        expected.reply = "2 invalid path" if name in LISTINGS else "2 invalid uuid"
        expected.lines = []
        expected.followed[1] = "kept"
    elif operation == "hx_io_alive":
        expected.reply = "502"  # nobody is there to be told
    elif operation in ("hx_io_realloc", "hx_reply"):
        pass  # the reply is whole in itself
    elif operation in ("hx_io_create", "hx_io_write", "hx_call") and call.detail == "watch":
        expected.followed[1] = "kept"  # the client has its reply by then
    elif call.detail == "veto files":
        expected.reply = copy.deepcopy(instance.unvetoed[name])
    elif call.detail == "defVolMP":
        no_volume(name, expected)
    elif isinstance(reply, str):
        pass  # is not asked for any more
    elif operation in ("hx_io_read", "hx_io_create", "hx_io_execv"):
        tool_is_silent(reply, call.detail)
    elif operation == "SMB_Get_Share_Info":
        no_shares(reply)
    elif operation == "NAS_Snapshot_Get_Id_Path":
        no_snapshot(reply, call.detail)
    elif operation == "Get_ACL_User_Group_Security_For_Share":
        named(reply, call.detail)["acl"] = 0
    elif operation == "MediaLib_Transcoding_CheckFile":
        named(reply, call.detail)["trans"] = 0
    else:
        reply.update(SETTINGS[operation])


def fails_in_daemon(instance, name, call, expected):
    assert call.operation == "hx_rest_dispatch"
    if name == "create.cache" and call is not instance.intact[name].calls[0]:
        expected.followed[1] = "kept"  # it is the request of the request process
        return
    expected.reply = "502"
    expected.lines = []
    expected.followed = {1: "kept", 2: "kept"}


def fails_in_threads(instance, name, call, expected):
    index = 2 if name == "long watch" else 1
    if call.operation == "hx_io_read" and not call.detail:
        # A request that cannot be read is an empty one, and asks for the first cache.
        if name != "create.cache":
            expected.reply = {"error_code": 0, "error_message": ""}
        expected.followed = {1: "renewed", 2: "kept"}
    elif call.operation == "hx_io_alive":
        if name != "create.cache":
            expected.reply = "502"
    elif call.operation == "hx_io_write" or (name == "long watch" and call.operation == "hx_io_realloc" and
                                             call is first_of(instance, name, call)):
        # What is left of a long request cannot be kept, and half of it would be another request.
        expected.reply = "502"
        expected.followed = {1: "kept", 2: "kept"}
    elif call.detail == "defVolMP":
        expected.lines = [*expected.lines, ("W", "[cache] no default volume")]
        if expected.followed[index] == "renewed":
            expected.followed[index] = "none"
    else:
        assert call.operation in ("hx_io_realloc", "hx_reply"), call  # the reply is whole in itself


FAILS = {"request": fails_in_request, "daemon": fails_in_daemon, "threads": fails_in_threads, "between": fails_in_threads}


def first_of(instance, name, call):
    return next(each for each in instance.intact[name].calls
                if (each.process, each.operation) == (call.process, call.operation))


def strike(instance, name, calls, first, times, error):
    """The `first`-th of these calls fails, or all from it on."""
    instance.requests.make_ready()
    intact = instance.intact[name]
    expected = copy.deepcopy(intact.outcome)
    struck = calls[first - 1:] if times == 0 else [calls[first - 1]]
    for call in struck:
        FAILS[call.process](instance, name, call, expected)
    process, operation = struck[0].process, struck[0].operation
    jobs = intact.jobs if process != "daemon" else 0
    if name == "create.cache" and process == "request" and expected.followed[1] == "kept":
        jobs = 0
    instance.faults.arm(process, operation, first=first, times=times, error=error)
    try:
        found, _ = outcome(instance, name, jobs)
    finally:
        instance.faults.disarm()
    assert instance.faults.injected >= 1, f"{name}: {operation} {first}"
    instance.tally[operation] += instance.faults.injected
    assert found == expected, f"{name}: {operation} {first} ({times}, {error}): {found}\nexpected {expected}"


@pytest.mark.parametrize("process", ["daemon", "request", "threads", "between"])
@pytest.mark.parametrize("name", NAMES)
def test_an_operation_that_fails_under_a_request(served, name, process):
    calls = {}
    for call in served.intact[name].calls:
        if call.process == process and call.operation not in SURE:
            calls.setdefault(call.operation, []).append(call)
    for operation, made in calls.items():
        errors = ERRORS.get(operation, (errno.ENOMEM,))
        for number in range(1, len(made) + 1):
            for error in errors:
                strike(served, name, made, number, 1, error)
            if number < len(made):
                strike(served, name, made, number, 0, errors[0])
    for following in ("list", name):
        served.requests.make_ready()
        assert outcome(served, following, served.intact[following].jobs)[0] == served.intact[following].outcome
    nothing_is_left(served, served.descriptors)


def test_a_kind_of_access_list_that_is_not_known_is_off(served):
    served.requests.settle(served.faults)
    host = (served.root / "etc/config/host-platform.conf").read_text()
    served.write_host(host.replace("enable = 0\nrich = 1\n", "enable = 1\nrich = 0\n"))
    assert served.requests.ask("fetch.resource")["is_acl_enable"] == 1
    served.requests.settle(served.faults)
    served.faults.arm("request", "Is_ACL_Enabled")
    assert served.requests.ask("fetch.resource")["is_acl_enable"] == 0
    assert served.faults.injected == 1
    served.faults.disarm()
    served.write_host(host)
    assert served.requests.ask("fetch.resource")["is_acl_enable"] == 1


def test_a_client_that_seems_to_have_gone_is_not_waited_for(make_instance):
    """The request process looks now and then; the program that it waits for goes with it."""
    instance = prepared(make_instance("nobody"))
    instance.write_program(FFMPEG, "sleep 60\n")
    instance.faults.hasten(100)
    instance.start()
    instance.faults.begin()
    instance.requests.prepare("fetch.cache")
    instance.requests.quiet(instance.faults)
    instance.faults.arm("request", "hx_io_alive")
    begun = time.monotonic()
    assert instance.requests.ask("fetch.cache") == "502"
    assert time.monotonic() - begun < 8  # a program is ended after 10 seconds
    assert instance.faults.injected == 1
    instance.faults.disarm()
    instance.requests.settle(instance.faults)
    assert wait_until(lambda: len(instance.processes()) == 1), instance.described_processes()
    assert instance.requests.ask("list")["error_code"] == 0


# --- The daemon's own life ---


@pytest.fixture(scope="module")
def living(tally):
    """An instance that the tests start and stop, and what a start and a stop ask for. A dead session's cache lies beside
    those of two living ones."""
    with fresh_instance("nobody") as instance:
        prepared(instance)
        instance.tally = tally
        instance.write("var/run/dirwell/sessions/other", "user = nobody\n")
        instance.start()
        instance.faults.begin()
        instance.stop()
        instance.process = None
        with instance.faults.recorded() as recorded:
            instance.start()
        instance.starting = [call for call in operations(recorded) if call.operation != "hx_rest_dispatch"]
        instance.answer = instance.requests.ask("fetch.resource")
        instance.requests.settle(instance.faults)
        with instance.faults.recorded() as recorded:
            instance.stop()
        instance.stopping = operations(recorded)
        yield instance


def life(instance, operation, first, times, error):
    """A whole life with a failure at its start: the status of its end, its lines, and its answer to a request; None for a
    daemon that serves nobody."""
    faults = instance.faults
    since = len(instance.lines())
    faults.arm("daemon", operation, first=first, times=times, error=error)
    instance.process = None
    instance.launch("--sid", instance.sid)
    answer = None
    assert wait_until(lambda: instance.process.poll() is not None or
                      instance.socket.exists() and instance.requests.ask("list") != "closed", 20)
    if instance.process.poll() is None:
        answer = instance.requests.ask("fetch.resource")
        instance.requests.settle(faults)
        instance.process.terminate()
    status = instance.wait_end()
    faults.disarm()
    assert faults.injected >= 1, f"{operation} {first}"
    instance.tally[operation] += faults.injected
    assert not instance.socket.exists() and not instance.pid_file.exists()
    return status, heard(instance, since), answer


# What is said of a service that cannot be made, and how its loop ends.
CREATE_ERRORS = {errno.ENAMETOOLONG: "the socket's path is longer than the kernel allows", errno.EINVAL: "Invalid argument",
                 errno.EMFILE: "Too many open files", errno.ENOMEM: "Cannot allocate memory"}
START_ERRORS = {errno.EADDRINUSE: "Address already in use", errno.EIO: "Input/output error"}


def lives(instance, call, place, times):
    """The error, the end status, the lines and the answer to a request, for each way in which an operation of the start
    fails."""
    name = instance.name
    told = [("E", f"[session] {instance.sid} be set.")]
    begun = [*told, ("I", f"[{name}] startup service")]
    listed = ("I", "[cache] uuid UUID created")
    ended = ("I", f"[{name}] shutdown service")
    no_volume_line = ("W", "[cache] no default volume")
    if call.operation == "auth_get_session_ex":
        if place == 1 and times == 1:
            # Nobody's identity is known, so no request is served.
            yield errno.ENOMEM, 0, [*begun, ended], "502"
        else:
            yield errno.ENOMEM, 1, [*told, ("E", f"[{name}] {instance.sid} is not alive.")], None
    elif call.operation in ("hx_rest_create", "hx_rest_endpoint"):
        yield errno.ENOMEM, 1, [*begun, ("E", "out of memory")], None
    elif call.operation == "hx_create":
        for error, text in CREATE_ERRORS.items():
            line = f'[{name}] cannot create the bus service below "{instance.root}/var/run": {text}'
            yield error, 1, [*begun, ("E", line), ended], None
    elif call.operation == "hx_start":
        for error, text in START_ERRORS.items():
            serves = error == errno.EIO
            line = ("E", f"[{name}] the bus service ended: {text}")
            yield error, 1, [*begun, *([listed] if serves else []), line, ended], instance.answer if serves else None
    elif call.detail == "defVolMP":
        again = [no_volume_line] if times == 0 else []
        yield errno.ENOMEM, 0, [*begun, no_volume_line, listed, *again, ended], instance.answer
    else:  # what the start looks at beforehand, and each request looks at itself
        assert call.operation in {"SMB_Get_Share_Info", "Get_ACL_User_Group_Security_For_Share", *SETTINGS}, call
        yield errno.ENOMEM, 0, [*begun, listed, ended], instance.answer


def test_an_operation_that_fails_at_the_start(living):
    starting = {}
    for call in living.starting:
        if call.process == "daemon" and call.operation not in SURE:
            starting.setdefault(call.operation, []).append(call)
    assert len(starting) == 15
    for operation, calls in starting.items():
        again = len(calls) > 1 or operation in {call.operation for call in living.stopping}
        for place, times in [*((place, 1) for place in range(1, len(calls) + 1)), *([(1, 0)] if again else [])]:
            for error, status, lines, answer in lives(living, calls[place - 1], place, times):
                folder = living.volume / ".fs"
                folder.rmdir()
                found = life(living, operation, place, times, error)
                assert found == (status, lines, answer), f"{operation} {place} ({times}, {error})"
                assert folder.exists() == (answer is not None and calls[place - 1].detail != "defVolMP")
                folder.mkdir(exist_ok=True)


LEFT = {"own": "{sid}.1", "other": "other.1", "dead": "dead.1"}  # the caches in the folder, by whose they are


def cleaned(instance, clean, operation=None, first=1, times=1):
    """Whose caches are left after a clean-up in which an operation fails, its lines, and the sessions that were asked
    for in vain."""
    folder = instance.volume / ".fs"
    for file in LEFT.values():
        (folder / file.format(sid=instance.sid)).write_bytes(b"")
    if operation is not None:
        instance.faults.arm("daemon", operation, first=first, times=times)
    else:
        instance.faults.watch_only()
    since = len(instance.lines())
    with instance.faults.recorded() as recorded:
        lines = clean() or heard(instance, since)
    instance.faults.disarm()
    if operation is not None:
        instance.tally[operation] += instance.faults.injected
    asked = [call.detail for call in operations(recorded) if call.operation == "auth_get_session_ex"]
    struck = asked[first - 1:(first - 1 + times) if times else None] if operation == "auth_get_session_ex" else []
    left = {path.name for path in folder.iterdir()}
    for path in folder.iterdir():
        path.unlink()
    return {whose for whose, file in LEFT.items() if file.format(sid=instance.sid) in left}, lines, struck


@pytest.mark.parametrize("way", ["stop", "clear"])
def test_an_operation_that_fails_at_the_clean_up(living, way):
    whose = {living.sid: "own", "other": "other", "dead": "dead"}

    def clean():
        if way == "clear":
            status, lines = living.run_to_end("--clear")
            assert status == 0
            return said(lines) or [("", "")]
        living.stop()
        return None

    def run(*failure):
        if way == "stop":
            living.process = None
            living.start()
        return cleaned(living, clean, *failure)

    usual = [("I", f"[{living.name}] shutdown service")] if way == "stop" else [("", "")]
    assert run()[:2] == ({"own", "other"}, usual)
    for first in (1, 2, 3):
        left, lines, struck = run("auth_get_session_ex", first)
        # What is not known to live is removed, and that alone.
        assert len(struck) == 1
        assert (left, lines) == ({"own", "other"} - {whose[struck[0]]}, usual)
    left, lines, struck = run("auth_get_session_ex", 1, 0)
    assert (left, lines, len(struck)) == (set(), usual, 3)
    left, lines, _ = run("Get_Private_Profile_String")
    no_volume_line = [("W", "[cache] no default volume")]
    assert (left, lines) == ({"own", "other", "dead"}, no_volume_line + (usual if way == "stop" else []))


def test_a_session_that_the_platform_does_not_know_any_more_ends_the_daemon(make_instance):
    instance = prepared(make_instance("nobody"))
    instance.faults.hasten(100)
    instance.start()
    instance.faults.begin()
    since = len(instance.lines())
    instance.faults.arm("threads", "auth_get_session_ex")
    assert instance.wait_end() == 0
    assert instance.faults.injected == 1
    instance.faults.disarm()
    assert heard(instance, since) == [("E", f"[session] {instance.sid} is not alive."),
                                      ("I", f"[{instance.name}] shutdown service")]


def test_a_watcher_that_knows_no_vetoed_names_tells_of_every_change(make_instance):
    instance = prepared(make_instance("nobody"))
    instance.start()
    instance.faults.begin()
    instance.stop()
    instance.faults.arm("threads", "Get_Private_Profile_String", times=2)  # one watcher for each cache
    instance.process = None
    instance.start()
    assert wait_until(lambda: instance.faults.injected == 2)
    instance.faults.disarm()
    instance.requests.prepare("fetch.cache")
    instance.requests.quiet(instance.faults)
    next_second()
    assert instance.requests.ask("fetch.cache")["changed"] is False
    make_file(instance.share / "secret too.txt")
    assert wait_until(lambda: instance.requests.ask("fetch.cache")["changed"] is True)


# --- The plan ---


def test_every_operation_of_the_boundary_is_in_the_plan_and_asked_for(served, living):
    """And whatever is asked for, and can fail, fails in the tests above."""
    boundary = declared()
    assert len(boundary) == 38
    assert boundary <= set(served.faults.calls)
    reached = {call.operation for intact in served.intact.values() for call in intact.calls}
    reached |= {call.operation for call in living.starting + living.stopping}
    assert boundary - reached == set(UNASKED)
    assert set(SURE) <= reached
