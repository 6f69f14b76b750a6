"""Each request runs in a process of its own, under the session user's identity."""

import os
import pathlib
import signal
import socket
import tempfile
import time

import pytest

from harness.instance import PLAIN_CRASHES, wait_until
from harness.intruder import can_do
from harness.loglines import said
from harness.tree import make_file, make_folder

NOBODY = 65534


@pytest.fixture
def nobodys(make_instance):
    """A running instance for a session of nobody's, and an open folder where programs leave what they saw."""
    instance = make_instance("nobody")
    instance.notes = instance.root / "notes"
    instance.notes.mkdir()
    instance.notes.chmod(0o777)
    return instance


def slow_probe(instance, seconds):
    """Makes the description of every video take that long; the probe notes its start and its end."""
    sleep = instance.root / "sleep"  # a path that tells whose process it is
    sleep.symlink_to("/bin/sleep")
    instance.write_program("/usr/bin/ffmpeg", f"echo $$ >{instance.notes}/begun\n"
                                              f"test {seconds} -gt 10 && exec {sleep} {seconds}\n"
                                              f"{sleep} {seconds}\necho $$ >{instance.notes}/ended\n")
    make_file(instance.share / "clip.mkv")


def ask_in_background(instance, body_of=None):
    """A request in flight, as an open raw connection."""
    raw = instance.raw(timeout=60)
    body = b'{"path":[{"full_path":"%s","alias":"/S"}]}' % str(body_of or instance.share).encode()
    raw.send(b"POST /fetch.resource HTTP/1.1\r\nHost: x\r\nContent-Length: %d\r\n\r\n" % len(body) + body)
    return raw


def has_begun(instance):
    assert wait_until((instance.notes / "begun").exists), "the probe was not started"


def identity_of(pid):
    status = dict(line.split(":", 1) for line in pathlib.Path(f"/proc/{pid}/status").read_text().splitlines())
    return {key: status[key].split() for key in ("Uid", "Gid", "Groups", "CapEff")}


# --- Rights ---


def test_files_are_reached_with_the_users_rights(nobodys):
    make_folder(nobodys.share / "closed", mode=0o700)
    make_file(nobodys.share / "closed" / "inside")
    make_folder(nobodys.share / "open", mode=0o755)
    make_folder(nobodys.share / "own", mode=0o700, uid=NOBODY, gid=NOBODY)
    make_file(nobodys.share / "own" / "mine", mode=0o600, uid=NOBODY, gid=NOBODY)
    make_file(nobodys.share / "none", mode=0o600)
    make_file(nobodys.share / "group", mode=0o640, gid=NOBODY)
    make_file(nobodys.share / "read", mode=0o644)
    make_file(nobodys.share / "run", mode=0o755)
    make_file(nobodys.share / "write", mode=0o666)
    os.symlink("none", nobodys.share / "to none")
    nobodys.start()
    rights = {entry["filename"]: entry["acl"] for entry in nobodys.fetch()["datas"]}
    assert rights == {"closed": 0, "open": 5, "own": 7, "none": 0, "group": 4, "read": 4, "run": 5, "write": 6,
                      "to none": 0}
    # A folder that cannot be read is not listed, and ends the walk.
    reply = nobodys.fetch(nobodys.share / "closed")
    assert (reply["error_code"], reply["datas"]) == (0, [])
    assert nobodys.names(nobodys.share / "own") == ["mine"]
    assert nobodys.names(nobodys.share / "own", nobodys.share / "closed", nobodys.share / "open") == ["mine"]


def test_a_tree_with_a_closed_folder_is_listed_up_to_it(nobodys):
    make_folder(nobodys.share / "closed", mode=0o700)
    make_file(nobodys.share / "a")
    nobodys.start()
    assert sorted(nobodys.names(recursive=True)) == ["a", "closed"]


def test_rights_of_root_are_roots(instance):
    make_file(instance.share / "none", mode=0o000)
    make_folder(instance.share / "closed", mode=0o000)
    instance.start()
    assert {entry["filename"]: entry["acl"] for entry in instance.fetch()["datas"]} == {"none": 6, "closed": 7}


def test_the_request_process_has_taken_on_the_users_identity(nobodys):
    slow_probe(nobodys, 1)
    nobodys.start()
    with ask_in_background(nobodys) as raw:
        has_begun(nobodys)
        processes = nobodys.request_processes()
        assert len(processes) == 1
        seen = identity_of(processes[0])
        assert seen["Uid"][1] == seen["Gid"][1] == "65534"
        assert (seen["Groups"], seen["CapEff"]) == (["65534"], ["0000000000000000"])
        assert identity_of(nobodys.process.pid)["Uid"] == ["0", "0", "0", "0"]
        assert raw.response().status == 200
    assert wait_until(lambda: nobodys.request_processes() == [])


def test_the_session_user_can_do_nothing_to_the_processes_that_work_for_him(nobodys):
    """They could become root again: whoever led them would, too. What the programs do is the user's own."""
    slow_probe(nobodys, 3)
    nobodys.start()
    with ask_in_background(nobodys) as raw:
        has_begun(nobodys)
        process, = nobodys.request_processes()
        assert can_do(nobodys.process.pid) == can_do(process) == set()
        program = int((nobodys.notes / "begun").read_text())
        assert can_do(program) >= {"signal", "descriptors", "maps", "environment"}
        assert raw.response().status == 200


def test_programs_have_the_users_identity_alone_and_inherit_nothing(nobodys):
    notes = nobodys.notes
    nobodys.write_program("/usr/bin/ffmpeg",
                          f"cat /proc/$$/status >{notes}/status\nls -l /proc/self/fd >{notes}/fd\n"
                          f"cat >{notes}/input\nprintf '%s\\n' \"$@\" >{notes}/arguments\n")
    make_file(nobodys.share / "clip.mkv")
    nobodys.start()
    assert nobodys.names() == ["clip.mkv"]
    status = dict(line.split(":", 1) for line in (notes / "status").read_text().splitlines())
    for name, value in (("Uid", ["65534"] * 4), ("Gid", ["65534"] * 4), ("Groups", ["65534"])):
        assert status[name].split() == value
    for name in ("CapInh", "CapPrm", "CapEff", "CapAmb"):
        assert int(status[name], 16) == 0
    descriptors = [line.split(" -> ")[0].rsplit(" ", 1)[1] for line in (notes / "fd").read_text().splitlines()
                   if " -> " in line and not line.endswith("/fd") or line.endswith("notes/fd")]
    assert descriptors == ["0", "1", "2"]
    assert (notes / "input").read_bytes() == b""
    assert (notes / "arguments").read_text() == f"-hide_banner\n-i\n{nobodys.share}/clip.mkv\n"


def test_a_request_process_keeps_sockets_and_deleted_files_and_closes_the_rest(instance):
    instance.notes = instance.root
    slow_probe(instance, 2)
    pipe = os.pipe()
    pair = socket.socketpair()
    with open(instance.write("file", "x"), "rb") as file, tempfile.TemporaryFile(dir=instance.root) as deleted:
        to_keep = {0, 1, 2, pair[0].fileno(), deleted.fileno()}
        to_close = {file.fileno(), *pipe}
        instance.handed_over = tuple((to_keep | to_close) - {0, 1, 2})
        instance.start()

        def opened(pid):
            return {int(number) for number in os.listdir(f"/proc/{pid}/fd")}

        assert to_keep | to_close <= opened(instance.process.pid)
        with ask_in_background(instance) as raw:
            has_begun(instance)
            process, = instance.request_processes()
            descriptors = opened(process)
            assert raw.response().status == 200
    for end in pair:
        end.close()
    for end in pipe:
        os.close(end)
    assert to_keep <= descriptors
    assert not to_close & descriptors


# --- The life of a request process ---


def test_requests_run_beside_each_other(nobodys):
    slow_probe(nobodys, 2)
    quick = make_folder(nobodys.root / "quick")
    make_file(quick / "a")
    nobodys.start()
    with ask_in_background(nobodys) as raw:
        has_begun(nobodys)
        begin = time.monotonic()
        assert nobodys.names(quick) == ["a"]
        assert time.monotonic() - begin < 1.5
        assert raw.response().status == 200


@pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGTERM, signal.SIGINT, signal.SIGSEGV])
def test_a_request_process_that_ends_early_concerns_its_client_alone(nobodys, number):
    slow_probe(nobodys, 30)
    quick = make_folder(nobodys.root / "quick")
    make_file(quick / "a")
    nobodys.start(**PLAIN_CRASHES)
    with ask_in_background(nobodys) as raw:
        has_begun(nobodys)
        process, = nobodys.request_processes()
        os.kill(process, number)
        reply = raw.response()
        assert (reply.status, reply.content_type) == (502, "application/problem+json")
        assert reply.json()["status"] == 502
    assert nobodys.names(quick) == ["a"]
    # The program that the process had started is gone with it.
    assert wait_until(lambda: nobodys.processes() == [nobodys.process.pid])
    assert nobodys.daemon_children() == []


def test_a_crash_at_the_highest_level_of_logging_is_reported_by_the_request_process_itself(nobodys):
    slow_probe(nobodys, 30)
    nobodys.start("--level", "8", "--sid", nobodys.sid)
    with ask_in_background(nobodys) as raw:
        has_begun(nobodys)
        process, = nobodys.request_processes()
        os.kill(process, signal.SIGSEGV)
        assert raw.response().status == 502
    assert wait_until(lambda: f"dirwell({process}): Segmentation fault (pid {process}) " in nobodys.log())


def test_a_client_that_goes_away_ends_the_walk_within_seconds(nobodys):
    for n in range(1000):
        make_file(nobodys.share / f"{n}")
    nobodys.start()
    item = b'{"full_path":"%s","alias":"/S"}' % str(nobodys.share).encode()
    body = b'{"name":"nothing like it","path":[' + b",".join([item] * (1_000_000 // (len(item) + 1))) + b"]}"
    raw = nobodys.raw()
    raw.send(b"POST /fetch.resource HTTP/1.1\r\nHost: x\r\nContent-Length: %d\r\n\r\n" % len(body) + body)
    assert wait_until(nobodys.request_processes)
    raw.close()
    begin = time.monotonic()
    time.sleep(2)
    assert len(nobodys.request_processes()) == 1, "the walk was over too soon to show anything"
    assert wait_until(lambda: not nobodys.request_processes(), 6)
    assert 3 <= time.monotonic() - begin <= 6.5


def test_a_listing_that_is_being_described_runs_to_its_end_without_its_client(nobodys):
    slow_probe(nobodys, 7)
    nobodys.start()
    raw = ask_in_background(nobodys)
    has_begun(nobodys)
    raw.close()
    assert wait_until((nobodys.notes / "ended").exists, 9)
    assert wait_until(lambda: not nobodys.request_processes())


def test_a_program_is_ended_after_ten_seconds(nobodys):
    slow_probe(nobodys, 30)
    nobodys.start()
    begin = time.monotonic()
    entry, = nobodys.fetch()["datas"]
    assert 9.5 <= time.monotonic() - begin <= 13
    assert entry["is_h265"] == 0
    assert wait_until(lambda: nobodys.processes() == [nobodys.process.pid])


def test_a_stop_waits_for_requests_in_flight(nobodys):
    slow_probe(nobodys, 2)
    nobodys.start()
    with ask_in_background(nobodys) as raw:
        has_begun(nobodys)
        nobodys.process.terminate()
        assert raw.response().status == 200
    assert nobodys.wait_end() == 0
    assert not nobodys.socket.exists() and not nobodys.pid_file.exists()


def test_a_stop_waits_no_longer_than_five_seconds(nobodys):
    slow_probe(nobodys, 30)
    nobodys.start()
    nobodys.grace = 12  # the request process lives until its program is ended
    with ask_in_background(nobodys):
        has_begun(nobodys)
        begin = time.monotonic()
        nobodys.stop()
        assert 4 <= time.monotonic() - begin <= 7


def test_an_ordinary_user_may_run_an_instance(make_instance):
    """Without any privilege: the session user is the caller, and the kernel grants what it grants."""
    instance = make_instance("games").give_to("games")
    make_file(instance.share / "a", mode=0o600)
    make_file(instance.share / "b", mode=0o666)
    instance.start()
    assert identity_of(instance.process.pid)["Uid"] == ["5", "5", "5", "5"]
    assert [(e["filename"], e["acl"]) for e in instance.fetch()["datas"]] == [("a", 0), ("b", 6)]


def test_without_the_right_to_change_users_another_users_session_touches_no_file(make_instance):
    instance = make_instance("nobody").give_to("games")
    make_file(instance.share / "a")
    instance.start()
    body = b'{"path":[{"full_path":"%s","alias":"/S"}]}' % str(instance.share).encode()
    assert instance.exchange("POST", "/fetch.resource", body).status == 502


# --- The end of the session ---


def test_the_daemon_ends_itself_when_its_session_has_ended(make_instance):
    removed, expired, alive = make_instance(), make_instance(), make_instance()
    expired.write_session("root", expires=int(time.time()) + 5)
    begin = time.monotonic()
    for instance in (removed, expired, alive):
        instance.start()
    removed.session_file.unlink()
    for instance in (removed, expired):
        assert instance.wait_end(40) == 0
        assert 25 <= time.monotonic() - begin <= 36
        assert said(instance.lines())[-3:] == [
            ("E", f"[session] {instance.sid} is not alive."), ("W", "[cache] no default volume"),
            ("I", f"[{instance.name}] shutdown service")]
        assert not instance.socket.exists() and not instance.pid_file.exists()
    assert alive.exchange("GET", "/").status == 200
