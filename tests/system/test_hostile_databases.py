"""What a hostile database can do to the daemon whose "watch" looks into it: nothing."""

import fcntl
import os
import pathlib
import signal
import struct
import time

import pytest

from harness.caches import (caching_instance, changed, create, database, followed, made, names, opened, outcome, page,
                            wait_watched, watched, watches)
from harness.instance import build_setting, wait_until
from harness.intruder import can_do
from harness.loglines import said
from harness.tree import make_file, make_folder

MIB = 1 << 20


@pytest.fixture(scope="module")
def daemon():
    with caching_instance() as instance:
        yield instance


def status_of(pid):
    """Fields of a process's status, or nothing when it has gone."""
    try:
        text = pathlib.Path(f"/proc/{pid}/status").read_text()
    except OSError:
        return {}
    return {key: value.split() for key, value in (line.split(":", 1) for line in text.splitlines())}


def most_data(pid):
    """How much memory of its own a process may have; None where there is no limit."""
    limit, = (line.split()[3] for line in pathlib.Path(f"/proc/{pid}/limits").read_text().splitlines()
              if line.startswith("Max data size"))
    return None if limit == "unlimited" else int(limit)


def data_of(pid):
    """How much of it a process has."""
    return int(pathlib.Path(f"/proc/{pid}/statm").read_text().split()[5]) * os.sysconf("SC_PAGE_SIZE")


def hang_tight(instance):
    """The daemon still serves, watches and listens."""
    make_file(instance.share / "still")
    begin = time.monotonic()
    assert "still" in instance.names(instance.share)
    followed(instance, instance.share, index=2)
    assert time.monotonic() - begin < 4


def wait_reloaded(instance):
    """Jobs run one after the other, and each answers first: the answer to another one is the end of all before it."""
    assert outcome(instance.call("watch", {"index": 2})) == (0, "")


def replace_database(instance, *statements):
    path = database(instance)
    path.unlink(missing_ok=True)
    with opened(path) as connection:
        for statement in statements:
            connection.execute(statement)
    return path


ENDLESS = "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n)"


@pytest.mark.parametrize("statements", [
    (f"CREATE VIEW cache AS {ENDLESS} SELECT '/' AS path FROM n WHERE i < 0",),
    (f"CREATE VIEW cache AS {ENDLESS} SELECT '/nowhere' AS path FROM n",),
    # The value costs tenths of a second, and could cost minutes, within a single instruction that nothing can stop.
    ("CREATE TABLE cache (uuid, path AS (CASE WHEN instr(zeroblob(200000), CAST(zeroblob(100000) || 'b' AS BLOB)) "
     "THEN '' ELSE '/' END), alias)",
     f"{ENDLESS.replace('FROM n)', 'FROM n LIMIT 20)')} INSERT INTO cache(uuid) SELECT i FROM n"),
    ("CREATE VIRTUAL TABLE cache USING fts5(uuid, path, alias)", "INSERT INTO cache VALUES ('x', '/', '')"),
    ("CREATE TABLE cache (uuid, path, alias)", "INSERT INTO cache VALUES ('x', '/', '')"),
], ids=["view without rows", "view of rows", "costly column", "virtual table", "other table"])
def test_tables_of_another_make_are_not_read(daemon, statements):
    make_file(daemon.share / "a")
    followed(daemon, daemon.share)
    replace_database(daemon, *statements)
    begin = time.monotonic()
    assert outcome(daemon.call("watch")) == (0, "")
    wait_watched(daemon, 1)
    hang_tight(daemon)
    assert time.monotonic() - begin < 4
    assert wait_until(lambda: watched(daemon, 1) == [], 1)


def test_a_database_whose_very_schema_is_endless_costs_the_daemon_nothing(daemon):
    """What the library makes of it before the first row takes gigabytes and minutes, and no limit of its stops it."""
    make_file(daemon.share / "a")
    followed(daemon, daemon.share)
    replace_database(
        daemon, "CREATE TABLE cache (uuid, path, alias)", "PRAGMA writable_schema = ON",
        f"{ENDLESS.replace('FROM n)', 'FROM n LIMIT 1000000)')} INSERT INTO sqlite_master "
        "SELECT 'table', 't' || i, 't' || i, 2, 'CREATE TABLE t' || i || '(a, b, c, d, e, f, g, h, i, j)' FROM n")
    memory, descriptors = daemon.daemon_memory(), daemon.daemon_descriptors()
    assert outcome(daemon.call("watch")) == (0, "")
    longest, peak, begin = 0, 0, time.monotonic()
    while time.monotonic() - begin < 3:
        asked = time.monotonic()
        assert "a" in daemon.names(daemon.share)
        longest = max(longest, time.monotonic() - asked)
        peak = max(peak, daemon.daemon_memory())
    wait_reloaded(daemon)
    assert time.monotonic() - begin < 10
    assert longest < 1, "requests wait for the reading of a stranger's file"
    # It would be gigabytes. A sanitizer keeps some of each request in a young daemon.
    assert peak - memory < (64 if build_setting("DIRWELL_SANITIZE") else 8) * 1024
    assert watched(daemon, 1) == []
    assert wait_until(lambda: daemon.daemon_descriptors() <= descriptors)
    assert wait_until(lambda: daemon.daemon_children() == [])
    hang_tight(daemon)


def test_the_reader_of_a_cache_is_the_session_user_and_nobody_else(nobodys):
    """Seen from outside, while it reads for as long as it may."""
    followed(nobodys, nobodys.share)
    path = replace_database(
        nobodys, "CREATE TABLE cache (uuid, path, alias)", "PRAGMA writable_schema = ON",
        f"{ENDLESS.replace('FROM n)', 'FROM n LIMIT 1000000)')} INSERT INTO sqlite_master "
        "SELECT 'table', 't' || i, 't' || i, 2, 'CREATE TABLE t' || i || '(a, b, c, d, e, f, g, h, i, j)' FROM n")
    path.chmod(0o644)
    unbound = most_data(nobodys.process.pid)
    assert outcome(nobodys.call("watch")) == (0, "")
    reader, = wait_until(lambda: [s for s in map(status_of, nobodys.daemon_children()) if s and s["Uid"][0] != "0"])
    # Its memory is bounded, to 256 MiB more than the daemon has; the daemon's is not.
    assert unbound is None
    assert 224 * MIB < most_data(int(reader["Pid"][0])) - data_of(nobodys.process.pid) < 288 * MIB
    assert (reader["Uid"], reader["Gid"], reader["Groups"]) == (["65534"] * 4, ["65534"] * 4, ["65534"])
    assert [reader[name] for name in ("CapPrm", "CapEff", "CapAmb")] == [["0000000000000000"]] * 3
    # It began as the daemon's copy: its user may end it, and see or lead nothing of it.
    assert can_do(int(reader["Pid"][0])) == {"signal"}
    # It is ended when its time is over.
    wait_reloaded(nobodys)
    assert wait_until(lambda: nobodys.daemon_children() == [])


@pytest.mark.parametrize("suffix", ["", "-journal", "-wal"])
def test_a_pipe_in_place_of_a_file_holds_nothing_up(nobodys, suffix):
    uuid = followed(nobodys, nobodys.share)
    path = database(nobodys)
    pipe = path.with_name(path.name + suffix)
    pipe.unlink(missing_ok=True)
    os.mkfifo(pipe)
    pipe.chmod(0o666)
    begin = time.monotonic()
    try:
        assert outcome(nobodys.call("watch", timeout=5)) == (0, "")
        reply = nobodys.call("fetch.cache", {"uuid": uuid}, timeout=5)
        assert outcome(reply) in ((0, ""), (2, "invalid uuid"))
        hang_tight(nobodys)
        assert names(page(nobodys, made(nobodys, nobodys.share))) != []
        assert time.monotonic() - begin < 5
    finally:
        if pipe.is_fifo():
            # Wakes whoever waits for the other end, so that a failure of this test does not hang the rest.
            os.close(os.open(pipe, os.O_RDWR | os.O_NONBLOCK))
            pipe.unlink()


def take_lease(file):
    """Whether the file could be leased: nobody else may have it open, as the making of a cache has until its process ends."""
    try:
        fcntl.fcntl(file, fcntl.F_SETLEASE, fcntl.F_WRLCK)
        return True
    except BlockingIOError:
        return False


def test_a_database_with_a_lease_holds_nothing_up(nobodys):
    """Whoever owns a file can make others wait for it for most of a minute."""
    followed(nobodys, nobodys.share)
    before = signal.signal(signal.SIGIO, signal.SIG_IGN)
    try:
        with open(database(nobodys), "rb+") as file:
            assert wait_until(lambda: take_lease(file))
            begin = time.monotonic()
            assert outcome(nobodys.call("watch", timeout=5)) == (0, "")
            wait_watched(nobodys, 1)
            hang_tight(nobodys)
            assert time.monotonic() - begin < 5
    finally:
        signal.signal(signal.SIGIO, before)


def fill(connection, count, path):
    connection.execute(f"{ENDLESS.replace('FROM n)', f'FROM n LIMIT {count})')} "
                       "INSERT INTO cache SELECT 'x', ?, '' FROM n", (path,))


def test_the_list_of_paths_is_read_up_to_200000(daemon):
    """The placeholder and the folder of the listing are the first two."""
    make_file(daemon.share / "a")
    last = make_folder(daemon.root / "last")
    beyond = make_folder(daemon.root / "beyond")
    uuid = followed(daemon, daemon.share)
    with opened(database(daemon)) as connection:
        fill(connection, 199_997, "/nowhere")
        for path in (last, beyond):
            connection.execute("INSERT INTO cache VALUES ('x', ?, '')", (str(path),))
        assert connection.execute("SELECT count(*) FROM cache").fetchone() == (200_001,)
    before, watching = len(daemon.lines()), watches(daemon, 1)
    assert outcome(daemon.call("watch")) == (0, "")
    wait_watched(daemon, 1, daemon.share, last, instead_of=watching)
    assert wait_until(lambda: len(daemon.lines()) > before)
    assert [message.partition(" ")[2] for _, message in said(daemon.lines()[before:])] == [
        "[cache] 199997 of 199999 folders of cache 1 cannot be watched"]
    assert changed(daemon, uuid) is False


def test_paths_of_any_length_and_form(daemon):
    make_file(daemon.share / "a")
    uuid = followed(daemon, daemon.share)
    with opened(database(daemon)) as connection:
        for path in ("/" + "x" * 500_000, "/x" * 3000, b"\xff\x00\xfe", "a\0b", 7, 1.5, "%n%s", "-", "/proc/self/mem/x"):
            connection.execute("INSERT INTO cache VALUES (?, ?, '')", (uuid, path))
    watching = watches(daemon, 1)
    assert outcome(daemon.call("watch")) == (0, "")
    wait_watched(daemon, 1, daemon.share, instead_of=watching)


def test_a_database_that_is_no_database(daemon):
    make_file(daemon.share / "a")
    path = database(daemon)
    good = None
    for content in (None, b"", b"SQLite format 3\0", os.urandom(100_000), bytes(200_000)):
        followed(daemon, daemon.share)
        good = good or path.read_bytes()
        path.unlink()
        if content is not None:
            path.write_bytes(content)
        assert outcome(daemon.call("watch")) == (0, "")
        wait_reloaded(daemon)
        assert watched(daemon, 1) == []
    # Pages that lead to themselves and beyond the end.
    for number in (2, 3, 4, 5, 2**31 - 1, 2**32 - 1):
        broken = bytearray(good)
        for page_start in range(32768, len(broken), 32768):
            struct.pack_into(">BHHHBI", broken, page_start, 5, 0, 1, 32767, 0, number)
        followed(daemon, daemon.share)
        path.write_bytes(broken)
        assert outcome(daemon.call("watch")) == (0, "")
        wait_reloaded(daemon)
        assert len(watches(daemon, 1)) <= 1
    path.unlink()
    assert outcome(create(daemon, daemon.share)) == (0, "")


def test_a_locked_database_is_not_waited_for(daemon):
    make_file(daemon.share / "a")
    followed(daemon, daemon.share)
    watching = watches(daemon, 1)
    with opened(database(daemon)) as connection:
        connection.execute("BEGIN EXCLUSIVE")
        begin = time.monotonic()
        assert outcome(daemon.call("watch")) == (0, "")
        wait_watched(daemon, 1)
        assert time.monotonic() - begin < 2
    assert outcome(daemon.call("watch")) == (0, "")
    wait_watched(daemon, 1, daemon.share, instead_of=watching)
