"""What each end of an instance, and a clean-up, leave of the caches, and what they say in what order."""

import contextlib
import os
import signal
import subprocess
import threading
import time

import pytest

from harness.caches import (UNKNOWN, cache_files, database, followed, give_volume, made, names, outcome, page,
                            small_disk, wait_watched)
from harness.instance import wait_until
from harness.loglines import parse, said
from harness.tree import make_file, make_folder


@pytest.fixture
def caching(make_instance):
    """An instance with a volume and one file to list, not started."""
    instance = give_volume(make_instance())
    make_file(instance.share / "a")
    return instance


def plant(instance):
    """Cache files of sessions that live, have ended and never were; returns the names that a clean-up keeps."""
    folder = instance.volume / ".fs"
    if not folder.exists():
        make_folder(folder, mode=0o777)
    sessions = instance.session_file.parent
    (sessions / "other").write_text("user = nobody\n")
    (sessions / "past").write_text("user = root\nexpires = 1000000000\n")
    (sessions / "open").write_text("user = root\n")
    (sessions / "open").chmod(0o666)  # anyone could have written it
    kept = ["other.1", "other.2", "other", "other.1-journal", ".hidden", f"{instance.sid}.2", f"{instance.sid}.9.x"]
    gone = ["past.1", "open.1", "deadbeef.3", "abc", "dead.1-journal", "no such.1", "ünknown.1", "x" * 200]
    for name in kept + gone:
        make_file(folder / name, name)
    make_file(instance.root / "letter", "dear reader")
    os.symlink(instance.root / "letter", folder / "link.1")
    make_folder(folder / "folder.1")
    make_file(folder / "folder.1" / "inside")
    return sorted([*kept, "folder.1"]), sorted([*gone, "link.1"])


def removals(lines):
    """The names that the D lines of a clean-up tell, and all other lines."""
    names_told, rest = [], []
    for tag, message in said(lines):
        place, _, text = message.partition(" [cache] remove ")
        if tag == "D" and text:
            assert place.startswith("(cache:") and place.endswith(")")
            names_told.append(text)
        else:
            rest.append((tag, message))
    return names_told, rest


def start_lines(instance):
    return [("E", f"[session] {instance.sid} be set."), ("I", f"[{instance.name}] startup service")]


# --- Signals ---


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_a_stop_keeps_the_caches_of_live_sessions_alone(caching, number):
    caching.start("--level", "7", "--sid", caching.sid)
    uuid = followed(caching, caching.share)
    kept, gone = plant(caching)
    folder = caching.volume / ".fs"
    created = ("I", f"[cache] uuid {uuid} created")
    caching.stop(number)  # status 0, no pid file, no socket
    assert cache_files(caching) == sorted([*kept, f"{caching.sid}.1"])
    assert (caching.root / "letter").read_text() == "dear reader"
    removed, rest = removals(caching.lines())
    # The folder cannot be removed, which nobody hears of.
    assert sorted(removed) == sorted(f"{folder}/{name}" for name in [*gone, "folder.1"])
    assert [line for line in rest if "initial db" not in line[1]] == [
        *start_lines(caching), created, ("I", f"[{caching.name}] shutdown service")]
    assert parse(caching.lines())[-1].message == f"[{caching.name}] shutdown service"
    assert removals(caching.lines()[-len(removed) - 1:-1]) == (removed, [])  # one after the other, right before it
    # The next instance of the session reads on where this one ended.
    caching.process = None
    caching.start("--level", "7", "--sid", caching.sid)
    assert names(page(caching, uuid)) == ["a"]


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_further_stop_signals_do_not_disturb_the_clean_up(caching, number):
    """They arrive from the first removal to the last: no service is there any more that they could stop."""
    caching.start("--level", "7", "--sid", caching.sid)
    folder = caching.volume / ".fs"
    for n in range(20_000):
        os.close(os.open(folder / f"dead{n}.1", os.O_CREAT))
    caching.process.send_signal(signal.SIGTERM)
    assert wait_until(lambda: "[cache] remove" in caching.log(), interval=0.001), "the clean-up has not begun"
    sent = 0
    while caching.process.poll() is None:
        caching.process.send_signal(number)
        sent += 1
        time.sleep(0.0005)
    assert caching.wait_end() == 0
    assert sent > 10, "the clean-up was over too soon to show anything"
    assert cache_files(caching) == []
    assert not caching.socket.exists() and not caching.pid_file.exists()
    assert said(caching.lines())[-1] == ("I", f"[{caching.name}] shutdown service")
    assert len([line for line in caching.lines() if "[cache] remove" in line]) == 20_000


@pytest.mark.parametrize("level, tags", [("6", "EIII"), ("5", "E"), ("2", ""), ("7", "EIDIDI")])
def test_the_level_decides_what_is_told(caching, level, tags):
    caching.start("--level", level, "--sid", caching.sid)
    followed(caching, caching.share)  # no job is left that could say something
    make_file(caching.volume / ".fs" / "dead.1")
    caching.stop()
    assert cache_files(caching) == [f"{caching.sid}.1"]
    assert "".join(line.tag for line in parse(caching.lines())) == tags


def test_a_stop_is_prompt_whatever_is_watched(caching):
    caching.start("--level", "7", "--sid", caching.sid)
    for index in (1, 2):
        followed(caching, caching.share, index=index)
    begin = time.monotonic()
    caching.stop()
    assert time.monotonic() - begin < 0.9
    assert cache_files(caching) == [f"{caching.sid}.1", f"{caching.sid}.2"]


def test_a_stop_while_watch_requests_come_in(caching):
    """Jobs that wait when the daemon ends are dropped, with a status of 0."""
    caching.start()
    made(caching, caching.share)
    stopped = threading.Event()

    def ask():
        while not stopped.is_set():
            with contextlib.suppress(OSError, AssertionError, ValueError):
                caching.call("watch", timeout=5)

    threads = [threading.Thread(target=ask) for _ in range(4)]
    for thread in threads:
        thread.start()
    try:
        time.sleep(0.2)
        begin = time.monotonic()
        caching.stop()
        assert time.monotonic() - begin < 6
    finally:
        stopped.set()
        for thread in threads:
            thread.join()


def test_a_create_in_flight_is_answered_before_the_end(caching):
    """Its watch request comes too late, which changes nothing."""
    folder = make_folder(caching.root / "many")
    with small_disk(folder, 64 << 20):
        for number in range(20_000):
            os.close(os.open(folder / f"{number:05d}", os.O_CREAT | os.O_WRONLY, 0o644))
        caching.start("--level", "7", "--sid", caching.sid)
        replies = []
        thread = threading.Thread(target=lambda: replies.append(made(caching, folder)))
        thread.start()
        assert wait_until(caching.request_processes, interval=0.001)
        caching.stop()
        thread.join(20)
        assert len(replies) == 1
        assert wait_until(lambda: caching.request_processes() == [], 10)
        caching.process = None
        caching.start("--level", "7", "--sid", caching.sid)
        fetched = page(caching, replies[0])
        assert (fetched["total"], len(fetched["datas"])) == (20_000, 500)
        caching.stop()


def test_a_stop_without_a_cache_folder_or_a_volume(caching):
    caching.start("--level", "7", "--sid", caching.sid)
    (caching.volume / ".fs").rmdir()
    caching.stop()
    assert said(caching.lines()) == [*start_lines(caching), ("I", f"[{caching.name}] shutdown service")]
    assert not (caching.volume / ".fs").exists()


# --- The end of the session ---


def test_the_end_of_the_session_ends_the_daemon_and_its_caches(caching):
    """The session is looked at every 30 seconds."""
    begin = time.monotonic()
    caching.start("--level", "7", "--sid", caching.sid)
    uuid = followed(caching, caching.share)
    kept, gone = plant(caching)
    own = [name for name in kept if name.startswith(caching.sid)] + [f"{caching.sid}.1"]
    caching.session_file.unlink()
    assert names(page(caching, uuid)) == ["a"]  # nobody has noticed yet
    assert caching.wait_end(45) == 0
    assert 29 < time.monotonic() - begin < 35
    assert not caching.socket.exists() and not caching.pid_file.exists()
    assert cache_files(caching) == [name for name in kept if not name.startswith(caching.sid)]
    removed, rest = removals(caching.lines())
    folder = caching.volume / ".fs"
    assert sorted(removed) == sorted(f"{folder}/{name}" for name in [*gone, *own, "folder.1"])
    assert [line for line in rest if "initial db" not in line[1]] == [
        *start_lines(caching), ("I", f"[cache] uuid {uuid} created"),
        ("E", f"[session] {caching.sid} is not alive."), ("I", f"[{caching.name}] shutdown service")]
    assert removals(caching.lines()[-len(removed) - 1:-1]) == (removed, [])
    assert caching.run_to_end("--sid", caching.sid)[0] == 1


# --- Clean-up on demand ---


@pytest.mark.parametrize("option", ["-c", "--clear"])
def test_the_clean_up_removes_what_belongs_to_no_live_session(caching, option):
    kept, gone = plant(caching)
    status, lines = caching.run_to_end("--level", "7", option)  # needs no session id
    assert status == 0
    removed, rest = removals(lines)
    assert sorted(removed) == sorted(f"{caching.volume}/.fs/{name}" for name in [*gone, "folder.1"])
    assert rest == []
    assert cache_files(caching) == kept
    assert (caching.root / "letter").read_text() == "dear reader"
    assert (caching.volume / ".fs/folder.1/inside").exists()
    assert not caching.pid_file.exists()


def test_a_second_clean_up_finds_nothing_more(caching):
    kept, _ = plant(caching)
    caching.run_to_end("--clear")
    assert caching.run_to_end("--clear") == (0, [])
    assert cache_files(caching) == kept


@pytest.mark.parametrize("options, told", [
    (["--level", "7", "-c"], 1),
    (["-l7", "--clear"], 1),
    (["--level", "12", "-c"], 1),
    (["--level", "6", "-c"], 0),
    (["-c", "--level", "7"], 0),
    (["--clear", "-l", "7"], 0),
    (["--level", "-3", "-c", "--level", "8"], 0),
])
def test_a_level_counts_for_the_clean_up_where_it_stands_before(caching, options, told):
    make_folder(caching.volume / ".fs")
    make_file(caching.volume / ".fs" / "dead.1")
    status, lines = caching.run_to_end(*options)
    assert (status, removals(lines)) == (0, ([f"{caching.volume}/.fs/dead.1"] * told, []))
    assert cache_files(caching) == []


def test_a_session_id_before_the_clean_up_is_said_and_makes_no_difference(caching):
    make_folder(caching.volume / ".fs")
    for name in (f"{caching.sid}.1", "dead.1"):
        make_file(caching.volume / ".fs" / name)
    status, lines = caching.run_to_end("--sid", caching.sid, "--clear")
    assert (status, said(lines)) == (0, [("E", f"[session] {caching.sid} be set.")])
    assert cache_files(caching) == [f"{caching.sid}.1"]
    # Nor does one that is not alive: the clean-up does not ask.
    caching.session_file.unlink()
    status, lines = caching.run_to_end("--sid", caching.sid, "-c")
    assert (status, said(lines)) == (0, [("E", f"[session] {caching.sid} be set.")])
    assert cache_files(caching) == []


def test_a_clean_up_beside_a_running_instance_leaves_it_alone(caching):
    caching.start()
    uuid = followed(caching, caching.share)
    make_file(caching.volume / ".fs" / "dead.1")
    assert caching.run_to_end("--clear") == (0, [])
    assert cache_files(caching) == [f"{caching.sid}.1"]
    assert caching.pid_file.read_bytes() == str(caching.process.pid).encode()
    assert names(page(caching, uuid)) == ["a"]
    wait_watched(caching, 1, caching.share)


@pytest.mark.parametrize("volume", ["", "   ", None])
def test_a_clean_up_without_a_volume(caching, volume):
    if volume is None:
        (caching.root / "etc/config/def_share.info").unlink()
    else:
        caching.write_default_volume(volume)
    plant(caching)
    before = cache_files(caching)
    status, lines = caching.run_to_end("--level", "7", "--clear")
    assert (status, said(lines)) == (0, [("W", "[cache] no default volume")])
    assert cache_files(caching) == before


@pytest.mark.parametrize("volume", ["/nonexistent/volume", "/dev/null", "/" + "x" * 4000])
def test_a_clean_up_of_a_volume_that_is_not_there(caching, volume):
    caching.write_default_volume(volume)
    assert caching.run_to_end("--level", "7", "--clear") == (0, [])


def test_a_clean_up_that_may_not_remove_goes_on(caching):
    """Failures are ignored: each file is told, none is gone, the status is 0."""
    with small_disk(caching.volume, 1 << 20):
        _, gone = plant(caching)
        before = cache_files(caching)
        subprocess.run(["mount", "-o", "remount,ro", str(caching.volume)], check=True)
        status, lines = caching.run_to_end("--level", "7", "--clear")
        assert (status, len(removals(lines)[0])) == (0, len(gone) + 1)
        assert cache_files(caching) == before


# --- Starts ---


def test_the_cache_folder_is_made_at_the_start_and_opened_to_everyone(caching):
    folder = make_folder(caching.volume / ".fs", mode=0o700, uid=12, gid=34)
    make_file(folder / "dead.1")
    caching.start()
    assert folder.stat().st_mode & 0o7777 == 0o777
    assert cache_files(caching) == ["dead.1"]  # a start cleans nothing up


def test_a_link_in_place_of_the_cache_folder_opens_nothing_up(caching):
    closed = make_folder(caching.root / "closed", mode=0o700)
    (caching.volume / ".fs").symlink_to(closed)
    caching.start()
    assert closed.stat().st_mode & 0o7777 == 0o700


def test_without_a_volume_everything_but_caches_works(make_instance):
    instance = make_instance()
    make_file(instance.share / "a")
    instance.start()
    assert instance.names() == ["a"]
    assert outcome(page(instance, UNKNOWN)) == (2, "invalid uuid")
    assert said(instance.lines())[2] == ("W", "[cache] no default volume")
    assert list(instance.root.rglob(".fs")) == []


def test_sessions_do_not_meet_in_the_cache_folder(make_instance):
    """Two instances on one volume, of two users: each has its own files, and neither's end costs the other any."""
    first, second = give_volume(make_instance()), make_instance("nobody")
    second.volume = first.volume
    second.write_default_volume(first.volume)
    for instance in (first, second):
        for sid, user in ((first.sid, "root"), (second.sid, "nobody")):
            session = instance.session_file.with_name(sid)
            session.write_text(f"user = {user}\n")
            session.chmod(0o644)
        make_file(instance.share / "a")
        instance.start()
    uuids = [made(instance, instance.share) for instance in (first, second)]
    assert cache_files(first) == sorted([f"{first.sid}.1", f"{second.sid}.1"])
    assert outcome(page(first, uuids[1])) == outcome(page(second, uuids[0])) == (2, "invalid uuid")
    second.stop()
    assert names(page(first, uuids[0])) == ["a"]
    assert database(second).exists()
