"""Callers that mean harm: what they may hold, what they may cost, and that the others are served meanwhile."""

import concurrent.futures
import contextlib
import json
import resource
import subprocess
import sys
import threading
import time

import pytest

from harness.bus import exchange
from harness.caches import give_volume
from harness.instance import build_setting, wait_until
from harness.tree import make_file

KIB = 1024
MIB = 1024 * KIB
PLACES = 128
GET = b"GET / HTTP/1.1\r\nHost: x\r\n\r\n"


def post(body, target="/fetch.resource", extra=b""):
    return (b"POST " + target.encode() + b" HTTP/1.1\r\nHost: x\r\n" + extra
            + b"Content-Length: %d\r\n\r\n" % len(body) + body)


def listing(instance):
    return json.dumps({"path": [{"full_path": str(instance.share), "alias": "/S"}]}).encode()


def limited_to(descriptors):
    return {"preexec_fn": lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (descriptors, descriptors))}


class Costs(threading.Thread):
    """Notes the most that the daemon ever held while the test ran; use as a context."""

    def __init__(self, instance):
        super().__init__()
        self.instance = instance
        self.finished = threading.Event()
        self.memory = self.first_memory = instance.daemon_memory()
        self.descriptors = self.first_descriptors = instance.daemon_descriptors()

    def run(self):
        while not self.finished.wait(0.01):
            self.memory = max(self.memory, self.instance.daemon_memory())
            self.descriptors = max(self.descriptors, self.instance.daemon_descriptors())

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *_):
        self.finished.set()
        self.join()
        print(f"memory {self.first_memory} KiB, at most {self.memory}, now {self.instance.daemon_memory()}; "
              f"descriptors {self.first_descriptors}, at most {self.descriptors}")

    def grew_by_less_than(self, kib):
        # What sanitizers keep for themselves is no part of it.
        return bool(build_setting("DIRWELL_SANITIZE")) or self.memory - self.first_memory < kib

    def come_back(self):
        """Whether the daemon is what it was, but for what the allocator keeps: a text or two of each of eight clients."""
        def is_small():
            return bool(build_setting("DIRWELL_SANITIZE")) or self.instance.daemon_memory() <= self.first_memory + 16 * KIB

        return wait_until(lambda: self.instance.daemon_descriptors() <= self.first_descriptors) and wait_until(is_small)


@pytest.fixture
def served(instance):
    """A running instance with one file to list, which has served everything once."""
    give_volume(instance)
    make_file(instance.share / "a")
    instance.start("--level", "3", "--sid", instance.sid)
    instance.names()
    instance.call("watch")
    return instance


# --- Half a request, half a reply ---


def test_half_requests_hold_the_places_for_ten_seconds_and_no_longer(served):
    """Every place is taken by a request that does not end: silent, or with a byte now and then, in head or body."""
    halves = [b"POST /fetch.resource HTT", b"POST /fetch.resource HTTP/1.1\r\nHost: x\r\nX: ",
              b"POST /fetch.resource HTTP/1.1\r\nHost: x\r\nContent-Length: 100000\r\n\r\n{",
              b"POST /fetch.resource HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n1;",
              b"POST /fetch.resource HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n1\r\nx\r\n0\r\nT: "]
    with Costs(served) as costs:
        begin = time.monotonic()
        clients = [served.raw() for _ in range(PLACES)]
        for number, client in enumerate(clients):
            client.send(halves[number % len(halves)])
        with concurrent.futures.ThreadPoolExecutor(1) as pool:
            waiting = pool.submit(served.exchange, "GET", "/")
            while not waiting.done():
                for client in clients[::2]:
                    with contextlib.suppress(BrokenPipeError):
                        client.send(b"x")
                time.sleep(0.2)
            assert waiting.result().status == 200
        assert 9 <= time.monotonic() - begin <= 13.5
        for client in clients:
            reply = client.response()
            assert (reply.status, reply.content_type) == (408, "application/problem+json")
            assert client.at_end()
            client.close()
    assert costs.come_back()


def test_readers_that_stall_lose_their_places_after_thirty_seconds(served):
    """Every place is taken by a client that asks much and reads nothing, but for one that reads a little."""
    usages = b"OPTIONS /fetch.resource HTTP/1.1\r\nHost: x\r\n\r\n" * 400
    with Costs(served) as costs:
        begin = time.monotonic()
        clients = [served.raw(timeout=60) for _ in range(PLACES)]
        for client in clients:
            client.send(usages)
        reader = clients[0]
        with concurrent.futures.ThreadPoolExecutor(1) as pool:
            waiting = pool.submit(served.exchange, "GET", "/", timeout=60)
            texts = 0
            while not waiting.done():
                texts += reader.response().status == 200
                time.sleep(0.25)
            assert waiting.result().status == 200
        assert 27 <= time.monotonic() - begin <= 36
        # The slow reader still gets all of it.
        assert texts < 400
        while texts < 400:
            texts += reader.response().status == 200
        for client in clients[1:]:
            assert client.rest().startswith(b"HTTP/1.1 200 OK\r\n")
        for client in clients:
            client.close()
    assert costs.grew_by_less_than(16 * KIB)
    assert costs.come_back()


# --- Descriptors ---


@pytest.mark.parametrize("descriptors", [64, 256, 1024])
def test_connections_cannot_use_up_the_descriptors(make_instance, descriptors):
    """However few there are: strangers are refused at once, surplus callers too, and what is admitted is served."""
    instance = give_volume(make_instance())
    make_file(instance.share / "a")
    instance.run_as = limited_to(descriptors)
    instance.start()
    with Costs(instance) as costs:
        held = []
        for _ in range(descriptors + 200):
            client = instance.raw()
            held.append(client)
            with contextlib.suppress(BrokenPipeError):
                client.send(GET)
        statuses = []
        for client in held:
            statuses.append(0 if client.silent_for(0.001 if statuses else 1) else client.response().status)
        assert set(statuses) == {200, 0, 503}  # served, waiting, refused
        assert ask_as_stranger(instance, 20) == {403: 20}
        # A place that serves goes on doing so, with all that a request needs.
        client = held[statuses.index(200)]
        for _ in range(3):
            client.send(post(listing(instance), "/create.cache"))
            reply = client.response()
            assert (reply.status, reply.json()["error_code"], reply.json()["total"]) == (200, 0, 1)
        for client in held:
            client.close()
    assert costs.descriptors < descriptors - 4
    assert costs.come_back()
    assert instance.names() == ["a"]


def test_replies_that_are_followed_by_work_cannot_use_up_the_descriptors(make_instance):
    """After its reply "create.cache" goes on, calls the daemon, and its client counts as being there: many such on every
    connection of a daemon that may hold few descriptors."""
    instance = give_volume(make_instance())
    make_file(instance.share / "a")
    instance.run_as = limited_to(200)
    instance.start()
    body = listing(instance)
    with Costs(instance) as costs:
        clients = [instance.raw(timeout=120) for _ in range(12)]
        for client in clients:
            client.send(post(body, "/create.cache") * 20)
        for client in clients:
            for _ in range(20):
                reply = client.response()
                assert reply.status == 200
                assert reply.json()["error_message"] in ("", "cache failure")  # two may meet at one file
        for client in clients:
            client.close()
    assert costs.descriptors < 196
    assert wait_until(lambda: instance.request_processes() == [], 60)
    assert costs.come_back()


# --- Memory ---

DEEP = b"[" * (MIB - 2)
NESTED = b'{"index":1,"x":[' + b"{}," * ((MIB - 40) // 3) + b"{}]}"
KEYS = b"{" + b",".join(b'"%x":0' % n for n in range(95_000)) + b',"index":1}'


def chunked(pieces, target="/fetch.resource"):
    return (b"POST " + target.encode() + b" HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n" + b"".join(pieces))


HOSTILE = {
    "heads that are too long": (b"GET / HTTP/1.1\r\nHost: x\r\nX: " + b"a" * 20_000 + b"\r\n\r\n", {431}, 500),
    "heads of many fields": (b"GET / HTTP/1.1\r\nHost: x\r\n" + b"a:\r\n" * 4000 + b"\r\n", {200}, 500),
    "queries of many parameters": (b"POST /none?" + b"a&" * 8000 + b" HTTP/1.1\r\nHost: x\r\n\r\n", {404}, 500),
    "bodies of a mebibyte": (post(b"x" * MIB, "/none"), {404}, 200),
    "bodies that are too long": (post(b"x" * (MIB + 1), "/none"), {413}, 200),
    "deep texts": (post(DEEP, "/delete.cache"), {200}, 60),
    "chunks of one byte": (chunked([b"1\r\nx\r\n"] * 20_000 + [b"0\r\n\r\n"], "/none"), {404}, 60),
    "endless chunk lines": (chunked([b"1;" + b"y" * 40_000]), {431}, 500),
    "chunks with long extensions": (chunked([b"1;" + b"y" * 15_000 + b"\r\nx\r\n"] * 60 + [b"0\r\n\r\n"], "/none"),
                                    {404, 431}, 100),
    "endless trailers": (chunked([b"0\r\n"] + [b"T: x\r\n"] * 10_000), {400, 431}, 500),
    "lengths that never come": (b"POST /none HTTP/1.1\r\nHost: x\r\nContent-Length: 1048576\r\n\r\n", set(), 1000),
    # More than four mebibytes of them do not wait, and those beyond get no reply of the daemon's.
    "watch requests of many objects": (post(NESTED, "/watch"), {200, 502}, 24),
    "watch requests of many keys": (post(KEYS, "/watch"), {200, 502}, 24),
}


@pytest.mark.parametrize("kind", HOSTILE)
def test_hostile_requests_do_not_make_the_daemon_grow(served, kind):
    """Thrown by eight clients at once, each on connections of its own."""
    request, expected, count = HOSTILE[kind]

    def throw(_):
        with served.raw(timeout=60) as client:
            with contextlib.suppress(BrokenPipeError):
                client.send(request)
            return client.response().status if expected else 0

    def all_at_once(number):
        with concurrent.futures.ThreadPoolExecutor(8) as pool:
            return set(pool.map(throw, range(number)))

    all_at_once(min(16, count))  # what the allocator keeps for the ordinary course of things
    assert wait_until(lambda: served.request_processes() == [])
    with Costs(served) as costs:
        statuses = all_at_once(count)
        assert statuses and statuses <= (expected or {0}), statuses
        assert all_at_once(1) <= (expected or {0}) - {502}
        assert served.names() == ["a"]
    assert costs.grew_by_less_than(32 * KIB)
    assert costs.come_back()


def test_many_pipelined_requests_do_not_make_the_daemon_grow(served):
    """Their answers are read only when all has been sent: the bus must not read on meanwhile."""
    with Costs(served) as costs, served.raw(timeout=60) as client:
        sender = threading.Thread(target=client.send, args=(GET * 20_000,))
        sender.start()
        time.sleep(1)
        assert sender.is_alive(), "all was taken before anything was answered"
        for _ in range(20_000):
            assert client.response().status == 200
        sender.join()
    assert costs.grew_by_less_than(4 * KIB)
    assert costs.come_back()


def test_watch_requests_that_are_left_alone_do_not_pile_up(served):
    """Their clients leave at once, while the pool is busy with each of them."""
    with Costs(served) as costs:
        for number in range(600):
            with served.raw() as client:
                client.send(post(NESTED if number % 3 == 0 else b"{}", "/watch"))
        assert served.names() == ["a"]
    assert costs.grew_by_less_than(32 * KIB)
    assert costs.descriptors - costs.first_descriptors < 300
    assert costs.come_back()
    assert wait_until(lambda: served.call("watch")["error_code"] == 0)


# --- Strangers ---

STRANGER = """
import collections, json, socket, sys
counts = collections.Counter()
request = sys.stdin.buffer.read()
for _ in range(int(sys.argv[2])):
    with socket.socket(socket.AF_UNIX) as s:
        s.settimeout(20)
        s.connect(sys.argv[1])
        try:
            s.sendall(request)
        except (BrokenPipeError, ConnectionResetError):
            pass
        data = b""
        try:
            while more := s.recv(65536):
                data += more
        except ConnectionResetError:
            pass
        head, _, body = data.partition(b"\\r\\n\\r\\n")
        whole = json.loads(body) == {"type": "about:blank", "title": "Forbidden", "status": 403,
                                     "detail": "The caller is not admitted to this service."}
        plain = b"application/problem+json" in head and b"Connection: close" in head and data.count(b"HTTP/1.1 ") == 1
        counts[int(head.split(b" ")[1]) if whole and plain else 0] += 1
print(json.dumps(counts))
"""


def start_stranger(instance, count, user=65534):
    return subprocess.Popen([sys.executable, "-c", STRANGER, str(instance.socket), str(count)], user=user, group=user,
                            extra_groups=[], stdin=subprocess.PIPE, stdout=subprocess.PIPE, cwd="/")


def ask_as_stranger(instance, count, request=b"", user=65534):
    """What so many calls of a user who is not admitted got: status to number; 0 for anything but the one refusal."""
    told, _ = start_stranger(instance, count, user).communicate(request, timeout=120)
    return {int(status): number for status, number in json.loads(told).items()}


@pytest.mark.parametrize("request_text", [
    b"", GET, GET + GET, *(post(b"{}", f"/{name}") + GET for name in (
        "fetch.resource", "create.cache", "fetch.cache", "delete.cache", "watch")),
    b"OPTIONS /watch HTTP/1.1\r\nHost: x\r\n\r\n" * 3, b"nonsense\r\n\r\n" + GET, post(b"x" * 300_000)],
    ids=["nothing", "GET", "pipelined", "fetch.resource", "create.cache", "fetch.cache", "delete.cache", "watch",
         "OPTIONS", "nonsense", "large"])
def test_callers_that_are_not_admitted_get_403_and_nothing_else(served, request_text):
    assert ask_as_stranger(served, 5, request_text) == {403: 5}
    assert wait_until(lambda: served.request_processes() == [])


def test_callers_that_are_not_admitted_are_refused_while_every_place_is_taken(served):
    clients = [served.raw() for _ in range(PLACES + 20)]
    clients[0].send(GET)
    assert clients[0].response().status == 200
    begin = time.monotonic()
    assert ask_as_stranger(served, 50, GET) == {403: 50}
    assert time.monotonic() - begin < 5
    for client in clients:
        client.close()


def test_a_flood_of_strangers_costs_the_others_little_time_and_the_daemon_nothing(served):
    served.write_host("[BUS]\nusers = " + " ".join(f"no-such-account-{n}" for n in range(2000)) + "\n")
    time.sleep(0.2)
    with Costs(served) as costs:
        strangers = [start_stranger(served, 1000) for _ in range(3)]
        for stranger in strangers:
            stranger.stdin.close()
            stranger.stdin = None
        longest = 0
        while any(stranger.poll() is None for stranger in strangers):
            begin = time.monotonic()
            assert exchange(served.socket, "GET", "/").status == 200
            longest = max(longest, time.monotonic() - begin)
        for stranger in strangers:
            assert json.loads(stranger.communicate()[0]) == {"403": 1000}
    print(f"longest wait of an admitted caller: {longest:.3f} s")
    assert longest < 2
    assert costs.descriptors - costs.first_descriptors < 80
    assert costs.grew_by_less_than(4 * KIB)
    assert costs.come_back()
