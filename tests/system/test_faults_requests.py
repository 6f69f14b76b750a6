"""Every call that a request makes fails once: in the daemon, in its threads, in the request process and in the program
that this starts. The client gets the right answer, an honest error, or word from the bus that there is none; and the
daemon goes on as if nothing had been.

A test takes some occurrences of each call; DIRWELL_FAULTS=all takes every one, each with every error.
"""

import collections
import errno
import os

import pytest

from harness.fault_requests import Requests, chosen, differences, furnish, nothing_is_left, tell
from harness.faults import Faults
from harness.instance import fresh_instance, wait_until
from harness.tree import make_file

ALL = os.environ.get("DIRWELL_FAULTS") == "all"
MOST = 10**9 if ALL else 4  # occurrences of one call
MOST_ALLOCATIONS = 10**9 if ALL else 30

ERRORS = {
    "open": (errno.EMFILE, errno.ENFILE, errno.EIO, errno.ENOMEM, errno.EACCES),
    "fopen": (errno.EMFILE, errno.ENOMEM),
    "opendir": (errno.EMFILE, errno.ENOMEM),
    "fdopendir": (errno.ENOMEM, errno.EIO),
    "readdir": (errno.EIO, errno.ENOMEM),
    "stat": (errno.ENOMEM, errno.EIO, errno.EACCES),
    "fstatat": (errno.ENOMEM, errno.EIO, errno.EACCES),
    "read": (errno.EIO, errno.EISDIR),
    "write": (errno.EPIPE, errno.ENOSPC, errno.EIO),
    "pwrite": (errno.ENOSPC, errno.EIO),
    "ftruncate": (errno.ENOSPC, errno.EIO),
    "mmap": (errno.ENOMEM,),
    "malloc": (errno.ENOMEM,),
    "fork": (errno.EAGAIN, errno.ENOMEM),
    "clone": (errno.EAGAIN, errno.ENOMEM),
    "pthread_create": (errno.EAGAIN,),
    "pipe": (errno.EMFILE, errno.ENFILE),
    "socket": (errno.EMFILE, errno.ENOBUFS),
    "socketpair": (errno.EMFILE, errno.ENOBUFS),
    "accept": (errno.EMFILE, errno.ENFILE, errno.ENOMEM, errno.ECONNABORTED),
    "connect": (errno.ECONNREFUSED, errno.EAGAIN),
    "send": (errno.EPIPE, errno.ENOBUFS),
    "sendmsg": (errno.EPIPE, errno.ENOBUFS),
    "recv": (errno.ECONNRESET, errno.ENOMEM),
    "setgroups": (errno.EPERM, errno.ENOMEM),
    "setegid": (errno.EPERM, errno.EINVAL),
    "seteuid": (errno.EPERM, errno.EAGAIN),
    "raw_execve": (errno.ENOMEM, errno.E2BIG, errno.EACCES),
    "raw_setresuid": (errno.EAGAIN, errno.EPERM),
    "waitpid": (errno.EINTR,),
    "poll": (errno.ENOMEM, errno.EINTR),
    "epoll_wait": (errno.EINTR,),
}
# Their last occurrence is at the watchdog's end, which then waits for its next tick, 5 seconds away.
SLOW = {"timerfd_settime"}

# --- What an answer may lack, call by call: what nobody could find out has the value that says so. ---

ENTRIES = {"entries", "order", "total", "cluster", "has_h265"}  # a folder, or an entry, that cannot be read is left out
PROGRAM = {"datas is_h265", "has_h265", "datas cache_folder_is_encypted", "datas cache_folder_is_locked"}
SETTINGS = {"more", "total", "cluster", "medialib", "rtt_support", "medialib_enable", "is_acl_enable",
            "is_winacl_enable", "is_winacl_support",  # a configuration file that cannot be read is one that says nothing
            "datas is_cached", "datas cache_file_status", "datas cache_priority", "datas cache_root_status",
            "datas cache_upload_progress", "datas cache_folder_is_encypted", "datas cache_folder_is_locked"}
UNKEPT = {"cluster", "uuid", "total"}  # a listing that cannot be kept at all has no uuid
MISSING = {
    "open": ENTRIES | SETTINGS | PROGRAM | UNKEPT,
    "read": SETTINGS | PROGRAM | UNKEPT,
    "fstat": SETTINGS | UNKEPT | PROGRAM,
    "stat": SETTINGS | PROGRAM | UNKEPT | {"datas filesize", "datas isfolder"},
    "fdopendir": ENTRIES,
    "readdir": ENTRIES,
    "fstatat": ENTRIES,
    "access": {"datas acl"} | PROGRAM,
    "getxattr": {"datas cache_root_status", "datas cache_file_status", "datas cache_priority",
                 "datas cache_upload_progress", "datas upload_failed_count"},
    "getpwuid_r": {"datas owner"},
    "getgrgid_r": {"datas group"},
    "pread": UNKEPT,
    "pwrite": UNKEPT,
    "fcntl": UNKEPT | PROGRAM,
    "malloc": UNKEPT | PROGRAM,
    **{call: PROGRAM for call in ("ioctl", "mmap", "memfd_create", "pipe", "clone", "poll", "waitpid", "raw_pidfd_open",
                                  "raw_setsid", "raw_setresgid", "raw_setresuid", "raw_capset", "prctl", "raw_dup3",
                                  "raw_close_range", "raw_execve")},
}
STORE = {"open", "read", "stat", "fstat", "pread", "pwrite", "fcntl", "malloc", "ftruncate", "mmap", "access", "unlink"}
STORE_ERRORS = {"3 cache failure", "2 invalid uuid", "3 uuid not found"}
NO_FALLBACK = {"setgroups", "setegid", "seteuid"}  # without the user's identity there is no answer


class Tally:
    """What was injected, and what came of it."""

    def __init__(self):
        self.rows = collections.defaultdict(collections.Counter)

    def note(self, process, call, outcome):
        self.rows[process, call][outcome] += 1

    @property
    def injected(self):
        return sum(sum(row.values()) for row in self.rows.values())

    def table(self):
        yield f"{'process':8} {'call':18} {'faults':>7}  outcomes"
        for (process, call), row in sorted(self.rows.items()):
            outcomes = ", ".join(f"{outcome} {count}" for outcome, count in row.most_common())
            yield f"{process:8} {call:18} {sum(row.values()):7}  {outcomes}"


@pytest.fixture(scope="module")
def tally(pytestconfig):
    made = Tally()
    yield made
    tell(pytestconfig, f"{made.injected} faults were injected and survived", *(made.table() if ALL else ()))


@pytest.fixture(scope="module")
def served():
    """An instance for nobody's session whose calls fail as they are told to."""
    with fresh_instance("nobody") as instance:
        instance.faults = Faults(instance)
        furnish(instance).start()
        instance.faults.begin()
        instance.requests = Requests(instance)
        instance.expected = {}
        for name in ("list", "fetch.resource", "create.cache", "fetch.cache", "delete.cache", "watch"):
            instance.requests.prepare(name)
            instance.expected[name] = instance.requests.ask(name)
            assert instance.expected[name]["error_code"] == 0
        assert len(instance.expected["fetch.resource"]["datas"]) == 11
        assert len(instance.expected["fetch.cache"]["datas"]) == 11
        instance.descriptors = instance.daemon_descriptors()
        yield instance


def judged(name, process, call, reply, expected):
    """The outcome in a word; fails when it is none that may be."""
    place = f"{name}: {call} fails in {process}"
    if isinstance(reply, str):
        if reply == "closed":
            assert process == "daemon", place
            return "connection closed"
        if reply[0] in "45" and len(reply) == 3:
            # A request whose rest cannot be read is half a request to the bus.
            assert reply in ("502", "503") or (reply, call, process) == ("400", "recv", "daemon"), f"{place}: {reply}"
            return reply
        assert call in STORE and process == "request" and reply in STORE_ERRORS, f"{place}: {reply}"
        return f'error "{reply[2:]}"'
    lacking = differences(reply, expected)
    assert not lacking or process in ("request", "tool"), f"{place}: {lacking}"
    assert lacking <= MISSING.get(call, set()), f"{place}: {lacking}"
    assert not (lacking & {"entries", "more"} and call == "malloc"), f"{place}: {lacking}"
    assert call not in NO_FALLBACK, place
    return "complete" if not lacking else "without what cannot be read"


def strike(instance, tally, name, process, call, number, error):
    """One fault; what comes of it, and whether there was one."""
    faults, requests = instance.faults, instance.requests
    requests.prepare(name)
    requests.settle(faults)
    faults.arm(process, call, first=number, error=error)
    reply = requests.ask(name)
    requests.settle(faults)
    if process == "threads":
        wait_until(lambda: faults.injected, 0.2, 0.005)
    faults.disarm()
    assert instance.process.poll() is None, f"{name}: {call} {number} in {process} ended the daemon: {instance.log()[-3000:]}"
    if faults.injected:
        tally.note(process, call, judged(name, process, call, reply, instance.expected[name]))
    else:
        assert differences(reply, instance.expected[name]) == set()


def intact(instance, name):
    """The next answers are right, and nothing is left behind."""
    for following in ("list", name):
        instance.requests.prepare(following)
        assert differences(instance.requests.ask(following), instance.expected[following]) == set()
    nothing_is_left(instance, instance.descriptors)


def sweep(instance, tally, name, process, calls=None):
    """Every call that the request makes in that process."""
    instance.requests.prepare(name)
    # Jobs of the watch requests before have processes between too.
    (instance.requests.quiet if process == "between" else instance.requests.settle)(instance.faults)
    instance.faults.watch_only()
    assert differences(instance.requests.ask(name), instance.expected[name]) == set()
    instance.requests.settle(instance.faults)
    if process in ("daemon", "threads"):
        wait_until(lambda: False, 0.2)  # the watch job of a new cache comes behind the reply
    counts = instance.faults.counts(process)
    assert counts
    before = tally.injected
    for call, count in counts.items():
        if (call == "malloc") != (calls == "malloc"):
            continue
        most = MOST_ALLOCATIONS if call == "malloc" else (1 if call in SLOW and not ALL else MOST)
        errors = ERRORS.get(call, (errno.EIO,))
        for place, number in enumerate(chosen(count, most)):
            for error in errors if ALL else (errors[place % len(errors)],):
                strike(instance, tally, name, process, call, number, error)
        intact(instance, name)
    return tally.injected - before


# The numbers are the fewest faults that a sweep must bring about.
@pytest.mark.parametrize("name, fewest", [("fetch.resource", 60), ("create.cache", 60), ("fetch.cache", 50), ("delete.cache", 30)])
def test_calls_of_the_request_process(served, tally, name, fewest):
    assert sweep(served, tally, name, "request") >= fewest


@pytest.mark.parametrize("name, fewest", [("list", 10), ("fetch.resource", 15), ("create.cache", 15), ("watch", 10)])
def test_calls_of_the_bus(served, tally, name, fewest):
    assert sweep(served, tally, name, "daemon") >= fewest


def test_calls_between_the_daemon_and_the_request_process(served, tally):
    assert sweep(served, tally, "fetch.resource", "between") >= 12


@pytest.mark.parametrize("name, fewest", [("watch", 5), ("create.cache", 5)])
def test_calls_of_the_daemons_threads(served, tally, name, fewest):
    assert sweep(served, tally, name, "threads") >= fewest


def test_calls_in_front_of_a_program(served, tally):
    assert sweep(served, tally, "fetch.resource", "tool") >= 20


@pytest.mark.parametrize("name, process", [
    ("fetch.resource", "request"), ("create.cache", "request"), ("fetch.cache", "request"), ("delete.cache", "request"),
    ("list", "daemon"), ("fetch.resource", "daemon"), ("watch", "daemon"), ("fetch.resource", "between"),
    ("watch", "threads"), ("create.cache", "threads"),
])
def test_allocations(served, tally, name, process):
    if not served.faults.fails_memory:
        pytest.skip("a sanitizer brings its own allocator: in this build no allocation can be made to fail")
    assert sweep(served, tally, name, process, "malloc") >= 4


@pytest.mark.parametrize("name", ["fetch.resource", "create.cache", "fetch.cache", "delete.cache"])
@pytest.mark.parametrize("call, error", [("open", errno.EMFILE), ("read", errno.EIO), ("stat", errno.ENOMEM), ("malloc", errno.ENOMEM),
                                         ("pwrite", errno.ENOSPC), ("write", errno.EPIPE)])
def test_calls_that_fail_from_some_time_on(served, tally, name, call, error):
    faults, requests = served.faults, served.requests
    if call == "malloc" and not faults.fails_memory:
        pytest.skip("a sanitizer brings its own allocator: in this build no allocation can be made to fail")
    requests.prepare(name)
    requests.settle(faults)
    faults.watch_only()
    requests.ask(name)
    requests.settle(faults)
    count = faults.counts("request").get(call, 0)
    for number in chosen(count, MOST_ALLOCATIONS if call == "malloc" else MOST):
        requests.prepare(name)
        requests.settle(faults)
        faults.arm("request", call, first=number, times=0, error=error)
        reply = requests.ask(name)
        requests.settle(faults)
        faults.disarm()
        if faults.injected:
            tally.note("request", f"{call} from then on", judged(name, "request", call, reply, served.expected[name]))
    intact(served, name)


def test_a_long_reply_that_breaks_off_is_no_reply(make_instance):
    """It may break off anywhere, also where the rest could be written again."""
    instance = make_instance("nobody")
    faults = Faults(instance)
    for number in range(400):
        make_file(instance.share / f"file {number}")
    instance.start("--level", "5", "--sid", instance.sid)  # no line of the request's own
    faults.begin()
    requests = Requests(instance)
    requests.listing["limit"] = 2000
    faults.watch_only()
    expected = requests.ask("fetch.resource")
    assert len(expected["datas"]) == 400
    requests.settle(faults)
    count = faults.counts("request")["write"]
    assert count >= 4
    for number in range(1, count + 1):
        for error in (errno.EIO, errno.ENOBUFS):
            faults.arm("request", "write", first=number, error=error)
            assert requests.ask("fetch.resource") in ("502", "closed")
            requests.settle(faults)
            assert faults.injected == 1
    faults.disarm()
    assert requests.ask("fetch.resource") == expected
