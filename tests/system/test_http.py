"""The bus from the client's side: what it serves, what it refuses, and how."""

import concurrent.futures
import json
import subprocess
import sys
import time

import pytest

from harness.bus import parse_json
from harness.instance import fresh_instance
from harness.tree import make_file

MIB = 1024 * 1024


@pytest.fixture(scope="module")
def daemon():
    with fresh_instance() as instance:
        for name in ("one.txt", "two.txt"):
            make_file(instance.share / name, name)
        yield instance.start()


@pytest.fixture
def listing(daemon):
    """The body of a small valid request, and the names that it answers."""
    return json.dumps({"path": [{"full_path": str(daemon.share), "alias": "/Share"}]}).encode()


def names(reply):
    assert reply.status == 200, reply
    return [entry["filename"] for entry in reply.json()["datas"]]


def post(body, target="/fetch.resource", extra=b"", version=b"HTTP/1.1"):
    return (b"POST " + target.encode() + b" " + version + b"\r\nHost: localhost\r\n" + extra
            + b"Content-Length: %d\r\n\r\n" % len(body) + body)


def assert_problem(reply, status):
    assert reply.status == status, reply
    assert reply.content_type == "application/problem+json"
    problem = reply.json()
    assert problem["status"] == status
    assert isinstance(problem["title"], str) and problem["title"]


# --- What is served ---


def test_curl_gets_the_whole_reply_object(daemon):
    body = '{"path":[{"full_path":"%s","alias":"/Some"}]}' % daemon.share
    result = subprocess.run(["curl", "-sS", "-i", "--unix-socket", str(daemon.socket),
                             "http://localhost/fetch.resource", "-d", body], capture_output=True, timeout=30)
    assert result.returncode == 0, result.stderr
    head, _, content = result.stdout.partition(b"\r\n\r\n")
    assert head.startswith(b"HTTP/1.1 200 OK\r\n")
    assert b"content-type: application/json; charset=utf-8" in head.lower()
    reply = parse_json(content)
    assert list(reply) == ["cluster", "uuid", "datas", "total", "changed", "has_h265", "medialib", "rtt_support",
                           "medialib_enable", "is_acl_enable", "is_winacl_enable", "is_winacl_support", "error_code",
                           "error_message"]
    assert [entry["filepath"] for entry in reply["datas"]] == ["/Some/one.txt", "/Some/two.txt"]


def test_query_parameters_reach_the_endpoint_as_texts(daemon, listing):
    reply = daemon.exchange("POST", "/fetch.resource?name=ONE*", listing)
    assert names(reply) == ["one.txt"]


def test_query_parameters_are_percent_decoded(daemon, listing):
    assert names(daemon.exchange("POST", "/fetch.resource?name=%2A%74wo%2etxt", listing)) == ["two.txt"]
    assert names(daemon.exchange("POST", "/fetch.resource?n%61me=two*", listing)) == ["two.txt"]


def test_the_last_of_a_repeated_query_parameter_counts(daemon, listing):
    assert names(daemon.exchange("POST", "/fetch.resource?name=one*&sort=name&name=two*", listing)) == ["two.txt"]


def test_a_connection_is_kept_for_further_requests(daemon, listing):
    connection = daemon.connection()
    connection.connect()
    kept = connection.sock
    for _ in range(5):
        connection.request("POST", "/fetch.resource", listing)
        assert len(json.loads(connection.getresponse().read())["datas"]) == 2
        connection.request("GET", "/")
        assert connection.getresponse().read().startswith(b"watch\n")
        assert connection.sock is kept
    connection.close()


def test_a_client_may_ask_for_the_end_of_the_connection(daemon, listing):
    with daemon.raw() as raw:
        raw.send(post(listing, extra=b"Connection: close\r\n"))
        assert names(raw.response()) == ["one.txt", "two.txt"]
        assert raw.at_end()


def test_pipelined_requests_are_answered_in_order(daemon, listing):
    with daemon.raw() as raw:
        raw.send(post(listing, "/fetch.resource?name=one*") + b"GET / HTTP/1.1\r\nHost: localhost\r\n\r\n"
                 + post(listing, "/fetch.resource?name=two*") + b"OPTIONS /none HTTP/1.1\r\nHost: localhost\r\n\r\n"
                 + post(b"[]"))
        assert names(raw.response()) == ["one.txt"]
        assert raw.response().body.startswith(b"watch\n")
        assert names(raw.response()) == ["two.txt"]
        assert raw.response().status == 404
        assert raw.response().json()["error_message"] == "invalid path"


def test_a_request_may_arrive_byte_by_byte(daemon, listing):
    with daemon.raw() as raw:
        for byte in post(listing):
            raw.send(bytes([byte]))
        assert names(raw.response()) == ["one.txt", "two.txt"]


def test_a_request_body_may_be_chunked(daemon, listing):
    chunks = b"".join(b"%x;note=1\r\n%s\r\n" % (len(listing[i:i + 7]), listing[i:i + 7])
                      for i in range(0, len(listing), 7))
    with daemon.raw() as raw:
        raw.send(b"POST /fetch.resource HTTP/1.1\r\nHost: localhost\r\nTransfer-Encoding: chunked\r\n\r\n" + chunks
                 + b"0\r\nTrailer: x\r\n\r\n")
        assert names(raw.response()) == ["one.txt", "two.txt"]
        raw.send(post(listing))
        assert names(raw.response()) == ["one.txt", "two.txt"]


def test_a_client_that_expects_100_continue_gets_it(daemon, listing):
    with daemon.raw() as raw:
        raw.send(b"POST /fetch.resource HTTP/1.1\r\nHost: localhost\r\nExpect: 100-continue\r\n"
                 b"Content-Length: %d\r\n\r\n" % len(listing))
        assert raw.response().status == 100
        raw.send(listing)
        assert names(raw.response()) == ["one.txt", "two.txt"]


def test_a_client_that_has_only_ended_its_sending_gets_its_reply(daemon, listing):
    with daemon.raw() as raw:
        raw.send(post(listing))
        raw.end_sending()
        assert names(raw.response()) == ["one.txt", "two.txt"]
        assert raw.at_end()


def test_replies_of_any_size_arrive_whole_at_a_slow_reader(daemon, make_instance):
    instance = make_instance()
    for n in range(2000):
        make_file(instance.share / f"{n:04}{'x' * 250}", b"")
    instance.start()
    with instance.raw() as raw:
        raw.send(post(json.dumps({"path": [{"full_path": str(instance.share), "alias": "/S"}],
                                  "limit": 2000}).encode()))
        raw.socket.setsockopt(1, 8, 2048)  # SOL_SOCKET, SO_RCVBUF
        time.sleep(0.5)  # the reply is far larger than the socket's buffers: the bus has to wait for us
        reply = raw.response()
    assert len(reply.body) > 2_000_000
    assert len(reply.json()["datas"]) == 2000


def test_a_body_of_exactly_one_mebibyte_is_taken(daemon, listing):
    assert names(daemon.exchange("POST", "/fetch.resource", listing + b" " * (MIB - len(listing)))) == [
        "one.txt", "two.txt"]


# --- What is refused ---


def test_a_body_beyond_one_mebibyte_is_refused(daemon):
    with daemon.raw() as raw:
        raw.send(b"POST /fetch.resource HTTP/1.1\r\nHost: localhost\r\nContent-Length: %d\r\n\r\n" % (MIB + 1))
        assert_problem(raw.response(), 413)
        assert raw.at_end()


def test_a_body_beyond_one_mebibyte_is_refused_before_it_is_asked_for(daemon):
    with daemon.raw() as raw:
        raw.send(b"POST /fetch.resource HTTP/1.1\r\nHost: localhost\r\nExpect: 100-continue\r\n"
                 b"Content-Length: %d\r\n\r\n" % (MIB + 1))
        assert_problem(raw.response(), 413)


def test_a_chunked_body_beyond_one_mebibyte_is_refused(daemon):
    with daemon.raw() as raw:
        raw.send(b"POST /fetch.resource HTTP/1.1\r\nHost: localhost\r\nTransfer-Encoding: chunked\r\n\r\n")
        chunk = b"10000\r\n" + b" " * 65536 + b"\r\n"
        for _ in range(16):
            raw.send(chunk)
        raw.send(b"1\r\n \r\n")
        assert_problem(raw.response(), 413)


def test_a_header_beyond_16_kibibytes_is_refused(daemon):
    with daemon.raw() as raw:
        raw.send(b"GET / HTTP/1.1\r\nHost: localhost\r\nX: " + b"a" * (16 * 1024) + b"\r\n\r\n")
        assert_problem(raw.response(), 431)
    with daemon.raw() as raw:
        raw.send(b"GET / HTTP/1.1\r\nHost: localhost\r\nX: " + b"a" * (15 * 1024) + b"\r\n\r\n")
        assert raw.response().status == 200


@pytest.mark.parametrize("data", [
    b"nonsense\r\n\r\n",
    b"GET / HTTP/9.9.9\r\n\r\n",
    b"GET / HTTP/1.1\r\nHost: localhost\r\nbroken header\r\n\r\n",
    b"POST /watch HTTP/1.1\r\nHost: localhost\r\nContent-Length: -5\r\n\r\n",
    b"POST /watch HTTP/1.1\r\nHost: localhost\r\nContent-Length: many\r\n\r\n",
    b"POST /watch HTTP/1.1\r\nHost: localhost\r\nContent-Length: 2\r\nContent-Length: 3\r\n\r\n{} ",
    b"POST /watch HTTP/1.1\r\nHost: localhost\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n\r\n",
    b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03\r\n\r\n",
    b"\0\0\0\0\r\n\r\n",
])
def test_what_is_no_http_is_refused(daemon, data):
    with daemon.raw() as raw:
        raw.send(data)
        assert_problem(raw.response(), 400)
        assert raw.at_end()


@pytest.mark.parametrize("method, target", [("POST", "/nothing"), ("OPTIONS", "/nothing"),
                                            ("POST", "/fetch.resource/"), ("POST", "/FETCH.RESOURCE"),
                                            ("POST", "/fetch.resource/x"), ("POST", "//fetch.resource")])
def test_an_unknown_endpoint_is_refused(daemon, method, target):
    assert_problem(daemon.exchange(method, target, b"{}"), 404)


@pytest.mark.parametrize("method", ["GET", "PUT", "DELETE", "PATCH", "TRACE"])
def test_other_methods_are_refused(daemon, method):
    reply = daemon.exchange(method, "/fetch.resource")
    assert_problem(reply, 405)
    assert {name.strip() for name in reply.headers["allow"].split(",")} == {"OPTIONS", "POST"}


def test_a_head_request_is_refused_without_a_body(daemon):
    reply = daemon.exchange("HEAD", "/fetch.resource")
    assert (reply.status, reply.body) == (405, b"")


def test_the_connection_goes_on_after_a_refusal_that_leaves_the_stream_whole(daemon, listing):
    with daemon.raw() as raw:
        raw.send(post(b"{}", "/nothing"))
        assert raw.response().status == 404
        raw.send(post(listing))
        assert names(raw.response()) == ["one.txt", "two.txt"]


def test_a_client_that_leaves_amid_its_request_harms_nobody(daemon, listing):
    for cut in (1, 20, 60, len(post(listing)) - 1):
        with daemon.raw() as raw:
            raw.send(post(listing)[:cut])
    assert names(daemon.exchange("POST", "/fetch.resource", listing)) == ["one.txt", "two.txt"]


# --- Time limits, all in one go, since each takes its time ---


def test_time_limits_of_a_connection(daemon, listing):
    def timed(action):
        begin = time.monotonic()
        result = action()
        return result, time.monotonic() - begin

    def unfinished(data):
        with daemon.raw() as raw:
            raw.send(data)
            return raw.response(), raw.at_end()

    def trickling():
        with daemon.raw() as raw:
            try:
                for byte in b"GET / HTTP/1.1\r\nX: " + b"a" * 30:
                    raw.send(bytes([byte]))
                    time.sleep(0.4)
            except BrokenPipeError:
                pass
            return raw.response(), raw.at_end()

    def silent():
        with daemon.raw() as raw:
            return raw.rest()

    def idle_between_requests():
        with daemon.raw() as raw:
            raw.send(b"GET / HTTP/1.1\r\nHost: localhost\r\n\r\n")
            assert raw.response().status == 200
            time.sleep(11.5)
            raw.send(post(listing))
            return names(raw.response())

    with concurrent.futures.ThreadPoolExecutor(5) as pool:
        header = pool.submit(timed, lambda: unfinished(b"POST /fetch.resource HTTP/1.1\r\nHost: lo"))
        body = pool.submit(timed, lambda: unfinished(post(listing)[:-3]))
        slow = pool.submit(timed, trickling)
        nothing = pool.submit(timed, silent)
        idle = pool.submit(idle_between_requests)
        for refused in (header, body, slow):
            (reply, ended), seconds = refused.result()
            assert_problem(reply, 408)
            assert ended
            assert 9 <= seconds <= 13.5
        _, seconds = nothing.result()  # with or without a word: the connection is closed
        assert 9 <= seconds <= 12
        assert idle.result() == ["one.txt", "two.txt"]


# --- Who may call ---

ASK = """
import socket, sys
s = socket.socket(socket.AF_UNIX)
s.settimeout(20)
s.connect(sys.argv[1])
if sys.argv[2] == "ask":
    s.sendall(b"GET / HTTP/1.1\\r\\nHost: localhost\\r\\nConnection: close\\r\\n\\r\\n")
data = b""
while True:
    more = s.recv(65536)
    if not more:
        break
    data += more
sys.stdout.buffer.write(data)
"""


def ask_as(instance, user, how="ask"):
    result = subprocess.run([sys.executable, "-c", ASK, str(instance.socket), how], user=user, group=65534,
                            extra_groups=[], capture_output=True, timeout=30, cwd="/")
    assert result.returncode == 0, result.stderr
    head, _, body = result.stdout.partition(b"\r\n\r\n")
    return int(head.split(b" ")[1]), head, body


def test_root_the_session_user_and_the_named_accounts_are_admitted(make_instance):
    instance = make_instance("games")
    instance.write_host("[BUS]\nusers = man  no-such-account mail\n")
    instance.start()
    for user in ("root", "games", "man", "mail"):
        assert ask_as(instance, user)[0] == 200, user
    for user in ("nobody", "daemon"):
        status, head, body = ask_as(instance, user)
        assert status == 403, user
        assert b"application/problem+json" in head
        assert json.loads(body)["status"] == 403


def test_a_caller_that_is_not_admitted_is_refused_before_anything_is_read(daemon):
    begin = time.monotonic()
    status, head, body = ask_as(daemon, "nobody", "say nothing")
    assert (status, json.loads(body)["status"]) == (403, 403)
    assert time.monotonic() - begin < 5


def test_at_most_128_connections_are_served_at_once(make_instance):
    instance = make_instance()
    instance.start()
    question = b"GET / HTTP/1.1\r\nHost: localhost\r\n\r\n"
    admitted = []
    try:
        for _ in range(128):
            raw = instance.raw()
            admitted.append(raw)
            raw.send(question)
            assert raw.response().status == 200
        with instance.raw() as waiting:
            waiting.send(question)
            assert waiting.silent_for(1)
            # Refusals take no place, and need none.
            assert ask_as(instance, "nobody")[0] == 403
            assert waiting.silent_for(0.2)
            admitted.pop().close()
            assert waiting.response().status == 200
    finally:
        for raw in admitted:
            raw.close()
    assert instance.exchange("GET", "/").status == 200


# --- Endpoints whose work is not the listing: admission and parameters alone ---

UUID = "01234567-89ab-cdef-0123-456789abcdef"


@pytest.mark.parametrize("endpoint, request_object, message", [
    ("watch", {"index": 0}, "invalid index"),
    ("watch", {"index": 3}, "invalid index"),
    ("watch", {"index": -1}, "invalid index"),
    ("fetch.cache", {}, "invalid uuid"),
    ("fetch.cache", {"uuid": UUID.upper()}, "invalid uuid"),
    ("fetch.cache", {"uuid": "{" + UUID + "}"}, "invalid uuid"),
    ("fetch.cache", {"uuid": UUID.replace("-", "")}, "invalid uuid"),
    ("fetch.cache", {"uuid": 5}, "invalid uuid"),
    ("fetch.cache", {"uuid": "x", "limit": 1, "index": 9}, "invalid uuid"),
    ("fetch.cache", {"uuid": UUID, "limit": 49, "index": 9}, "invalid limit"),
    ("fetch.cache", {"uuid": UUID, "limit": 50, "index": 9}, "invalid index"),
    ("delete.cache", {}, "invalid uuid"),
    ("delete.cache", {"uuid": UUID, "index": "0"}, "invalid index"),
    ("create.cache", {"index": 3}, "invalid index"),
    ("create.cache", {"index": 2}, "invalid path"),
    ("create.cache", {"index": "2"}, "invalid path"),
    ("create.cache", {"index": "x"}, "invalid index"),
    ("create.cache", {"index": True, "limit": 1}, "invalid limit"),
    ("create.cache", {"path": "x"}, "invalid path type"),
])
def test_bad_parameters_of_the_other_endpoints(daemon, endpoint, request_object, message):
    assert daemon.call(endpoint, request_object) == {"error_code": 2, "error_message": message}
