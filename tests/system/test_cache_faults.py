"""Lasting caches when their files, their volume or their clients fail."""

import os
import pathlib
import random
import shutil
import sqlite3
import subprocess
import threading
import time

import pytest

from harness.caches import (UNKNOWN, cache_files, caching_instance, changed, create, database, delete, followed, give_volume, heard,
                            made, names, next_second, opened, outcome, page, rows, small_disk, wait_watched, watched)
from harness.instance import wait_until
from harness.tree import make_file, make_folder

NOBODY = 65534
INVALID = {"error_code": 2, "error_message": "invalid uuid"}
NOT_FOUND = {"error_code": 3, "error_message": "uuid not found"}
FAILED = {"error_code": 3, "error_message": "cache failure"}
NOTHING = {"error_code": 0, "error_message": ""}  # not even the uuid could be written


@pytest.fixture(scope="module")
def daemon():
    with caching_instance() as instance:
        yield instance


def crowded(folder, count, length):
    """A folder of many files in memory, with names of that length."""
    folder.mkdir()
    with small_disk(folder, 64 << 20):
        for number in range(count):
            os.close(os.open(folder / f"{number:04d}".ljust(length, "x"), os.O_CREAT | os.O_WRONLY, 0o644))
        yield folder
    folder.rmdir()


@pytest.fixture(scope="module")
def large(daemon):
    """A folder whose listing takes some 4 MB: more than SQLite keeps in memory before it writes."""
    yield from crowded(daemon.root / "large", 9000, 245)


@pytest.fixture(scope="module")
def medium(daemon):
    """A folder whose listing takes 27 pages: less than SQLite keeps in memory before it writes."""
    yield from crowded(daemon.root / "medium", 2000, 204)


@pytest.fixture
def nobodys():
    with caching_instance("nobody") as instance:
        make_file(instance.share / "a")
        yield instance


@pytest.fixture(autouse=True)
def tidy(request):
    """Whatever a test made of the cache folder and the volume, the next one finds them empty and in place."""
    yield
    if "daemon" in request.fixturenames:
        instance = request.getfixturevalue("daemon")
        instance.write_default_volume(instance.volume)
        for path in (instance.volume / ".fs").iterdir():
            shutil.rmtree(path) if path.is_dir() and not path.is_symlink() else path.unlink()


def told(instance, since):
    """What the cache said, without places in the source."""
    return [(tag, message.partition("[cache] ")[2]) for tag, message in heard(instance, since)]


def works_again(instance):
    """The next create starts anew, whatever lay there."""
    make_file(instance.share / "again")
    uuid = made(instance, instance.share)
    assert "again" in names(page(instance, uuid))
    assert delete(instance, uuid) == NOTHING


# --- The file ---


def test_a_missing_file_stays_missing(daemon, share):
    uuid = made(daemon, share)
    database(daemon).unlink()
    since = len(daemon.lines())
    assert page(daemon, uuid) == INVALID
    assert delete(daemon, uuid) == NOT_FOUND
    assert outcome(daemon.call("watch")) == (0, "")
    wait_watched(daemon, 1)
    assert ("W", f"uuid {uuid} invalid") in told(daemon, since) and ("I", f"uuid {uuid} deleted") in told(daemon, since)
    assert cache_files(daemon) == []
    works_again(daemon)


def test_a_missing_cache_folder_is_a_missing_file(daemon, share):
    uuid = made(daemon, share)
    os.rename(daemon.volume / ".fs", daemon.volume / "away")
    try:
        assert page(daemon, uuid) == INVALID
        assert delete(daemon, uuid) == NOT_FOUND
        assert create(daemon, share) == NOTHING
        assert not (daemon.volume / ".fs").exists()
    finally:
        os.rename(daemon.volume / "away", daemon.volume / ".fs")
    assert names(page(daemon, uuid)) == []


@pytest.mark.parametrize("content", [
    b"", b"\0", b"S", b"SQLite format 3\0", b"no database at all, but text\n" * 100, bytes(100_000),
    random.Random(1).randbytes(100), random.Random(2).randbytes(200_000),
], ids=["empty", "zero byte", "one byte", "head alone", "text", "zeroes", "few random bytes", "many random bytes"])
def test_a_file_that_is_no_database(daemon, share, content):
    make_file(share / "a")
    uuid = made(daemon, share)
    database(daemon).write_bytes(content)
    assert page(daemon, uuid) == INVALID
    assert delete(daemon, uuid) == NOT_FOUND
    assert database(daemon).read_bytes() == content
    assert cache_files(daemon) == [f"{daemon.sid}.1"]
    works_again(daemon)


def test_a_truncated_file(daemon, medium):
    """Of 27 pages only the first are left; where all are there but for some bytes, those bytes read as zeroes."""
    uuid = made(daemon, medium)
    whole = database(daemon).read_bytes()
    assert len(whole) == 884_736
    listing = names(page(daemon, uuid, limit=2000))
    for size in (1, 100, 512, 32_767, 32_768, 40_000, 65_536, 98_304, 131_072, 500_000, 851_968):
        database(daemon).write_bytes(whole[:size])
        assert page(daemon, uuid) == INVALID, size
        assert delete(daemon, uuid) == NOT_FOUND, size
        assert database(daemon).stat().st_size == size
    database(daemon).write_bytes(whole[:-1])
    assert names(page(daemon, uuid, limit=2000))[:100] == listing[:100]
    works_again(daemon)


def test_damaged_pages_cost_no_more_than_the_reply(daemon, medium):
    """Random damage, the same in every run: each reply is a page of names or a refusal, never a broken one."""
    uuid = made(daemon, medium)
    whole = database(daemon).read_bytes()
    dice = random.Random(3)
    seen = set()
    for _ in range(60):
        broken = bytearray(whole)
        for _ in range(dice.choice((1, 10, 1000))):
            broken[dice.randrange(len(broken))] = dice.randrange(256)
        database(daemon).write_bytes(broken)
        reply = page(daemon, uuid, limit=50, offset=dice.randrange(2000))
        seen.add(outcome(reply))
        assert len(reply.get("datas", [])) <= 50
        assert outcome(delete(daemon, uuid)) in ((0, ""), (3, "uuid not found"))
    # Rows that cannot be read make no page, however many came before.
    assert {(0, ""), (2, "invalid uuid")} <= seen <= {(0, ""), (2, "invalid uuid"), (3, "cache failure")}
    works_again(daemon)


def test_a_folder_in_place_of_the_file(daemon, share):
    uuid = made(daemon, share)
    database(daemon).unlink()
    make_folder(database(daemon))
    make_file(database(daemon) / "inside")
    assert page(daemon, uuid) == INVALID
    assert delete(daemon, uuid) == NOT_FOUND
    since = len(daemon.lines())
    assert create(daemon, share) == NOTHING
    assert told(daemon, since)[:4] == [("D", f"initial db {database(daemon)}"),
                                       ("E", "unable to open database file"),
                                       ("D", "commit failed: unable to open database file"),
                                       ("E", "unable to open database file")]
    assert sorted(path.name for path in database(daemon).iterdir()) == ["inside"]
    shutil.rmtree(database(daemon))
    works_again(daemon)


# --- Links ---


def test_a_link_to_a_file_of_the_users_own_is_replaced_and_its_target_kept(daemon, share):
    target = make_file(daemon.root / "letter", "dear reader", mode=0o600)
    for link in (target, daemon.root / "nowhere", "/dev/zero", "/dev/null", daemon.volume):
        database(daemon).symlink_to(link)
        assert page(daemon, UNKNOWN) == INVALID
        assert delete(daemon, UNKNOWN) == NOT_FOUND
        assert database(daemon).is_symlink()
        uuid = made(daemon, share)
        assert not database(daemon).is_symlink() and database(daemon).is_file()
        assert names(page(daemon, uuid)) == []
        database(daemon).unlink()
    assert target.read_bytes() == b"dear reader"
    assert not (daemon.root / "nowhere").exists()


def test_a_link_to_a_database_is_not_followed(nobodys):
    """Whoever planted it must not choose which file of the user's is read, and written to, as the cache."""
    uuid = made(nobodys, nobodys.share)
    for mode in (0o600, 0o644, 0o666):
        target = nobodys.root / f"of root {mode:o}"
        shutil.copyfile(database(nobodys), target)
        target.chmod(mode)
        before = target.read_bytes()
        kept = database(nobodys).rename(nobodys.root / "kept")
        database(nobodys).symlink_to(target)
        assert page(nobodys, uuid) == INVALID
        assert delete(nobodys, uuid) == NOT_FOUND
        assert create(nobodys, nobodys.share)["total"] == 1  # in place of the link
        assert target.read_bytes() == before and (target.stat().st_mode, target.stat().st_uid) == (0o100000 | mode, 0)
        kept.rename(database(nobodys))


def test_links_beside_the_database_reach_no_further_than_the_user(nobodys):
    secret = make_file(nobodys.root / "secret", "root's alone", mode=0o600)
    uuid = made(nobodys, nobodys.share)
    for suffix in ("-journal", "-wal", "-shm"):
        side = database(nobodys).with_name(f"{nobodys.sid}.1{suffix}")
        side.symlink_to(secret)
        assert outcome(page(nobodys, uuid)) in ((0, ""), (2, "invalid uuid"))
        assert outcome(delete(nobodys, UNKNOWN)) == (3, "uuid not found")
        uuid = made(nobodys, nobodys.share)
        side.unlink(missing_ok=True)
    assert secret.read_bytes() == b"root's alone" and secret.stat().st_uid == 0


# --- Owners and locks ---


def test_a_file_of_someone_else(nobodys):
    uuid = made(nobodys, nobodys.share)
    os.chown(database(nobodys), 0, 0)
    database(nobodys).chmod(0o644)
    assert names(page(nobodys, uuid)) == ["a"]  # it may be read
    assert delete(nobodys, uuid) == NOT_FOUND
    assert names(page(nobodys, uuid)) == ["a"]
    database(nobodys).chmod(0o600)
    assert page(nobodys, uuid) == INVALID
    assert delete(nobodys, uuid) == NOT_FOUND
    # The folder is everyone's, so a new file can take its place.
    assert names(page(nobodys, made(nobodys, nobodys.share))) == ["a"]
    assert database(nobodys).stat().st_uid == NOBODY


def test_a_file_that_cannot_be_replaced(nobodys):
    uuid = made(nobodys, nobodys.share)
    folder = nobodys.volume / ".fs"
    os.chown(database(nobodys), 0, 0)
    folder.chmod(0o755)
    try:
        assert create(nobodys, nobodys.share) == NOTHING
        assert names(page(nobodys, uuid)) == ["a"]  # what was promised is still there
        assert create(nobodys, nobodys.share, index=2) == NOTHING
        assert cache_files(nobodys) == [f"{nobodys.sid}.1"]
    finally:
        folder.chmod(0o777)


def test_a_locked_file_is_refused_at_once(daemon, share):
    make_file(share / "a")
    uuid = made(daemon, share)
    with opened(database(daemon)) as other:
        other.execute("BEGIN EXCLUSIVE")
        begin = time.monotonic()
        assert page(daemon, uuid) == INVALID
        assert delete(daemon, uuid) == NOT_FOUND
        assert time.monotonic() - begin < 1
        other.execute("ROLLBACK")
        assert names(page(daemon, uuid)) == ["a"]
        # Who only writes lets others read, and not write.
        other.execute("BEGIN IMMEDIATE")
        assert names(page(daemon, uuid)) == ["a"]
        assert delete(daemon, uuid) == NOT_FOUND
        other.execute("ROLLBACK")
        # A create makes a file of its own and has nothing to do with the lock.
        other.execute("BEGIN EXCLUSIVE")
        again = made(daemon, share)
        assert names(page(daemon, again)) == ["a"]
    assert page(daemon, uuid) == INVALID


# --- The volume ---


def test_no_default_volume(daemon, share):
    make_file(share / "a")
    uuid = followed(daemon, share)
    daemon.write_default_volume("")
    missing = ("W", "no default volume")
    no_file = "unable to open database file"
    since = len(daemon.lines())
    assert page(daemon, uuid) == INVALID
    assert told(daemon, since) == [missing, ("W", f"uuid {uuid} invalid")]
    since = len(daemon.lines())
    assert delete(daemon, uuid) == NOT_FOUND
    assert told(daemon, since) == [missing, ("D", f"commit failed: {no_file}"), ("I", f"uuid {uuid} deleted")]
    since = len(daemon.lines())
    assert create(daemon, share) == NOTHING
    assert told(daemon, since)[:4] == [missing, ("E", no_file), ("D", f"commit failed: {no_file}"), ("E", no_file)]
    wait_watched(daemon, 1)
    assert daemon.names(share) == ["a"]  # a listing needs none
    daemon.write_default_volume(daemon.volume)
    assert names(page(daemon, uuid)) == ["a"]  # and nothing was lost


@pytest.mark.parametrize("volume", ["/nonexistent/volume", "/dev/null", "/proc", "relative", "/" + "x" * 4000, "%s%n"])
def test_a_default_volume_that_holds_no_files(daemon, share, volume):
    daemon.write_default_volume(volume)
    assert create(daemon, share) == NOTHING
    assert page(daemon, UNKNOWN) == INVALID
    assert delete(daemon, UNKNOWN) == NOT_FOUND
    assert not pathlib.Path("/nonexistent").exists()


def test_a_read_only_volume(make_instance):
    instance = give_volume(make_instance())
    make_file(instance.share / "a")
    with small_disk(instance.volume, 1 << 20):
        instance.start()
        uuid = followed(instance, instance.share)
        subprocess.run(["mount", "-o", "remount,ro", str(instance.volume)], check=True)
        assert names(page(instance, uuid)) == ["a"]
        assert delete(instance, uuid) == NOT_FOUND
        assert create(instance, instance.share) == NOTHING
        assert create(instance, instance.share, index=2) == NOTHING
        assert names(page(instance, uuid)) == ["a"]
        assert cache_files(instance) == [f"{instance.sid}.1"]
        subprocess.run(["mount", "-o", "remount,rw", str(instance.volume)], check=True)
        assert delete(instance, uuid) == NOTHING
        assert create(instance, instance.share)["total"] == 1
        instance.stop()


# --- A full disk ---


def let_go(instance):
    """Returns when a removed file takes no room any more: nobody holds it, neither behind a reply nor for the watch."""
    assert instance.call("watch", {"index": 3})["error_message"] == "invalid index"  # the last of the jobs
    assert wait_until(lambda: instance.request_processes() == [])


def test_a_full_disk(daemon, share, large):
    make_file(share / "a")
    with small_disk(daemon.volume, 128 << 10):  # takes the four pages of a listing of one entry, exactly
        make_folder(daemon.volume / ".fs", mode=0o777)
        uuid = made(daemon, share)
        assert names(page(daemon, uuid)) == ["a"]
        # Larger than the memory SQLite takes: the failure shows at an entry.
        since = len(daemon.lines())
        assert create(daemon, large) == FAILED
        assert told(daemon, since)[:2] == [("D", f"initial db {database(daemon)}"), ("E", "database or disk is full")]
        assert page(daemon, uuid) == INVALID
        let_go(daemon)
        uuid = made(daemon, share)
        assert delete(daemon, uuid) == NOT_FOUND  # there is no room for a journal
        assert names(page(daemon, uuid)) == ["a"]
    with small_disk(daemon.volume, 64 << 10):  # not even the tables have room
        make_folder(daemon.volume / ".fs", mode=0o777)
        since = len(daemon.lines())
        assert create(daemon, share) == NOTHING
        assert ("D", "commit failed: database or disk is full") in told(daemon, since)
        assert page(daemon, UNKNOWN) == INVALID
        assert delete(daemon, UNKNOWN) == NOT_FOUND
        database(daemon).unlink()
        make_file(daemon.volume / "ballast", b"x" * (64 << 10))  # not a byte is free
        assert create(daemon, large) == NOTHING
        assert page(daemon, UNKNOWN) == INVALID


def test_a_disk_that_is_full_when_the_listing_is_committed(daemon, medium):
    """The end of the transaction is not checked: the reply stands, the log tells, and the listing may be in part."""
    listing = daemon.names(medium, limit=2000)
    with small_disk(daemon.volume, 256 << 10):
        make_folder(daemon.volume / ".fs", mode=0o777)
        since = len(daemon.lines())
        reply = create(daemon, medium)
        assert (reply["cluster"], reply["total"], reply["error_code"]) == ([{"value": "", "count": 2000}], 2000, 0)
        assert told(daemon, since)[:3] == [("D", f"initial db {database(daemon)}"),
                                           ("D", "commit failed: database or disk is full"),
                                           ("I", f"uuid {reply['uuid']} created")]
        fetched = page(daemon, reply["uuid"], limit=2000)
        if fetched["error_code"] == 0:
            assert names(fetched) == listing[:len(fetched["datas"])]
            assert len(fetched["datas"]) < 2000
        else:
            assert fetched in (INVALID, {"error_code": 3, "error_message": "cache failure"})


# --- What rows may hold ---


def hostile(instance, *entries, paths=()):
    """A database as the daemon would have made it but for its columns, which take anything."""
    database(instance).unlink(missing_ok=True)
    with opened(database(instance)) as connection:
        connection.execute("CREATE TABLE cache (uuid, path, alias)")
        connection.execute("CREATE TABLE entry (path, name, stat, cluster)")
        connection.execute("INSERT INTO cache VALUES (?, '', '')", (UNKNOWN,))
        for path in paths:
            connection.execute("INSERT INTO cache VALUES (?, ?, ?)", (UNKNOWN, *path))
        for entry in entries:
            connection.execute("INSERT INTO entry VALUES (?, ?, ?, '')", entry)


def test_a_status_of_another_length_counts_as_far_as_it_goes(daemon, share):
    make_file(share / "a", "12345", mtime=1_000_000_000, mode=0o640)
    made(daemon, share)
    (whole,), = rows(database(daemon), "SELECT stat FROM entry")
    blobs = [whole, whole + b"more" * 1000, whole[:88], whole[:48], whole[:28], whole[:1], b"", None, "text", 7,
             b"\xff" * 144]
    hostile(daemon, *((2, "a", blob) for blob in blobs), paths=[(str(share), "/Share")])
    fetched = page(daemon, UNKNOWN)
    assert (fetched["total"], fetched["error_code"], len(fetched["datas"])) == (11, 0, 11)
    assert [(entry["filesize"], entry["epochmt"], entry["privilege"], entry["isfolder"])
            for entry in fetched["datas"]][:8] == [
        (5, 1_000_000_000, "640", 0), (5, 1_000_000_000, "640", 0), (5, 0, "640", 0), (0, 0, "640", 0),
        (0, 0, "640", 0), (0, 0, "000", 0), (0, 0, "000", 0), (0, 0, "000", 0)]
    assert {entry["filename"] for entry in fetched["datas"]} == {"a"}
    assert {entry["filepath"] for entry in fetched["datas"]} == {"/Share/a"}


def test_columns_of_any_kind_and_length(daemon, share):
    long_name = "n" * 500_000
    hostile(daemon, (2, None, None), (2, long_name, None), (3, "in null", None), (4, "deep", None),
            (2, b"\xff\xfe\0x", None), (2, 12, None), (99, "nowhere", None), (None, "no folder", None), ("2", "text", None),
            paths=[(str(share), "/Share"), (None, None), ("/" + "p" * 500_000, "/" + "q" * 500_000)])
    fetched = page(daemon, UNKNOWN)
    assert fetched["error_code"] == 0
    by_name = {entry["filename"]: entry["filepath"] for entry in fetched["datas"]}
    assert by_name[long_name] == f"/Share/{long_name}"
    assert by_name["deep"] == "/" + "q" * 500_000 + "/deep"
    assert by_name["12"] == "/Share/12"
    assert {"", "in null", "deep", "12"} <= set(by_name)
    assert not {"nowhere", "no folder"} & set(by_name)
    assert delete(daemon, UNKNOWN) == NOTHING
    assert page(daemon, UNKNOWN) == INVALID


def test_what_a_schema_brings_along_is_not_run(daemon, share):
    hostile(daemon)
    with opened(database(daemon)) as connection:
        connection.execute("CREATE TABLE trap (fell)")
        connection.execute("CREATE TRIGGER t BEFORE DELETE ON cache BEGIN INSERT INTO trap VALUES (1); END")
    assert delete(daemon, UNKNOWN) == NOTHING
    assert rows(database(daemon), "SELECT (SELECT count(*) FROM cache), (SELECT count(*) FROM trap)") == [(0, 0)]
    database(daemon).unlink()
    with opened(database(daemon)) as connection:
        connection.execute("CREATE VIEW cache AS WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n) "
                           f"SELECT '{UNKNOWN}' AS uuid, '/' AS path, '/' AS alias FROM n")
        connection.execute("CREATE TABLE entry (path, name, stat, cluster)")
    begin = time.monotonic()
    assert page(daemon, UNKNOWN) == INVALID
    assert delete(daemon, UNKNOWN) == NOT_FOUND
    assert time.monotonic() - begin < 2
    works_again(daemon)


# --- Requests beside each other ---


class SlowFetch:
    """A fetch that is held at its first entry until the test lets it go on."""

    def __init__(self, instance, uuid):
        self.instance = instance
        self.reply = None
        self.thread = threading.Thread(target=self.run, args=(uuid,))

    def run(self, uuid):
        self.reply = page(self.instance, uuid)

    def __enter__(self):
        root = self.instance.root
        self.instance.write_program("/usr/bin/ffmpeg", f"echo >{root}/begun\n"
                                    f"while ! test -e {root}/go; do sleep 0.02; done\n")
        self.thread.start()
        assert wait_until((root / "begun").exists), "the fetch has not come to its first entry"
        return self

    def finish(self):
        (self.instance.root / "go").touch()
        self.thread.join(20)
        return self.reply

    def __exit__(self, *_):
        self.finish()
        for name in ("begun", "go", "usr/bin/ffmpeg"):
            (self.instance.root / name).unlink()


def held_listing(share):
    make_file(share / "0.mkv")
    for number in range(1, 400):
        make_file(share / f"{number:03d}")
    return ["0.mkv"] + [f"{number:03d}" for number in range(1, 400)]


def test_a_file_removed_while_it_is_read(daemon, share):
    listing = held_listing(share)
    with SlowFetch(daemon, made(daemon, share)) as fetch:
        database(daemon).unlink()
        assert names(fetch.finish()) == listing
    assert cache_files(daemon) == []


def test_a_create_while_a_fetch_of_the_same_index_runs(daemon, share):
    listing = held_listing(share)
    other = make_folder(daemon.root / "other")
    make_file(other / "b")
    old = made(daemon, share)
    with SlowFetch(daemon, old) as fetch:
        new = made(daemon, other)
        assert names(page(daemon, new)) == ["b"]
        assert names(fetch.finish()) == listing
    assert page(daemon, old) == INVALID
    shutil.rmtree(other)


def test_a_delete_while_a_fetch_of_the_same_index_runs(daemon, share):
    """The end of the transaction is not checked: the reply stands, the log tells, and the listing stays whole."""
    listing = held_listing(share)
    uuid = made(daemon, share)
    with SlowFetch(daemon, uuid) as fetch:
        since = len(daemon.lines())
        assert delete(daemon, uuid) == NOTHING
        assert told(daemon, since) == [("D", "commit failed: database is locked"), ("I", f"uuid {uuid} deleted")]
        assert names(fetch.finish()) == listing
    assert names(page(daemon, uuid)) == listing
    assert delete(daemon, uuid) == NOTHING


def test_reading_the_folders_for_the_watch_is_in_no_requests_way(daemon, share):
    """Each "watch" has the daemon read the file while requests write to it."""
    for number in range(200):
        make_file(make_folder(share / f"{number:03d}") / "a")
    listing = daemon.names(share, recursive=True, limit=2000)
    over = threading.Event()
    replies = []

    def watch():
        try:
            while not over.is_set():
                replies.append(daemon.call("watch", {"index": 1}))
        except Exception as error:  # is no reply
            replies.append(error)

    watching = threading.Thread(target=watch)
    watching.start()
    try:
        for _ in range(100):
            uuid = made(daemon, share, recursive=True)
            assert names(page(daemon, uuid, limit=2000)) == listing
            assert delete(daemon, uuid) == NOTHING
            assert page(daemon, uuid) == INVALID
    finally:
        over.set()
        watching.join(30)
    assert not watching.is_alive()
    assert len(replies) >= 100 and replies == [NOTHING] * len(replies)


def test_two_creates_of_one_index_at_once(daemon, share):
    folders = []
    for letter, count in (("a", 300), ("b", 200)):
        folder = make_folder(share / letter)
        for number in range(count):
            make_file(folder / f"{letter}{number:03d}")
        folders.append((folder, [f"{letter}{number:03d}" for number in range(count)]))
    replies = [None, None]

    def run(number, start):
        start.wait()
        replies[number] = create(daemon, folders[number][0])

    succeeded = 0
    for _ in range(40):
        start = threading.Barrier(2)
        threads = [threading.Thread(target=run, args=(number, start)) for number in range(2)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(30)
        for reply, (_, listing) in zip(replies, folders):
            if "uuid" not in reply:
                assert reply in (NOTHING, FAILED)
                continue
            succeeded += 1
            assert (reply["total"], reply["cluster"]) == (len(listing), [{"value": "", "count": len(listing)}])
            fetched = page(daemon, reply["uuid"])
            if fetched != INVALID:
                assert (names(fetched), fetched["total"]) == (listing, len(listing))
        # One that could not write goes on with a journal, until it closes the file behind its reply.
        assert wait_until(lambda: set(cache_files(daemon)) <= {f"{daemon.sid}.1"}), cache_files(daemon)
        try:
            uuids = rows(database(daemon), "SELECT DISTINCT uuid FROM cache")
        except sqlite3.OperationalError:  # no tables: the one kept the other from committing
            assert "commit failed: database is locked" in daemon.log()
        else:
            assert len(uuids) <= 1, "a mixture of listings"
    assert succeeded >= 40
    works_again(daemon)


def test_creates_and_fetches_in_a_crowd(daemon, share):
    """Eight clients on both indexes: every reply is whole, and whoever fetches gets their own listing or none."""
    folders = []
    for number in range(8):
        folder = make_folder(share / str(number))
        for entry in range(50 + number):
            make_file(folder / f"{number}-{entry:02d}")
        folders.append((folder, [f"{number}-{entry:02d}" for entry in range(50 + number)]))
    problems = []

    def client(number):
        folder, listing = folders[number]
        index = number % 2 + 1
        for _ in range(12):
            reply = create(daemon, folder, index=index)
            if "uuid" not in reply:
                if reply not in (NOTHING, FAILED):
                    problems.append(reply)
                continue
            if reply["total"] != len(listing) or reply["cluster"] != [{"value": "", "count": len(listing)}]:
                problems.append(reply)
            fetched = page(daemon, reply["uuid"], index=index)
            if fetched != INVALID and (names(fetched) != listing or fetched["total"] != len(listing)):
                problems.append(fetched)

    threads = [threading.Thread(target=client, args=(number,)) for number in range(8)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join(60)
    assert problems == []
    assert wait_until(lambda: daemon.request_processes() == [])


# --- Clients and daemons that go ---


def test_a_client_that_goes_during_a_create(daemon, large):
    """The listing is written all the same, whole and watched; nothing else is left."""
    since = len(daemon.lines())
    body = b'{"path":[{"full_path":"%s","alias":"/L"}]}' % bytes(large)
    with daemon.raw() as raw:
        raw.send(b"POST /create.cache HTTP/1.1\r\nHost: x\r\nContent-Length: %d\r\n\r\n" % len(body) + body)
        assert wait_until(daemon.request_processes, interval=0.001)
    assert wait_until(lambda: any(message.endswith(" created") for _, message in told(daemon, since)))
    assert wait_until(lambda: daemon.request_processes() == [])
    wait_watched(daemon, 1, large)
    assert cache_files(daemon) == [f"{daemon.sid}.1"]
    assert rows(database(daemon), "PRAGMA integrity_check") == [(b"ok",)]
    assert rows(database(daemon), "SELECT count(*) FROM entry") == [(9000,)]
    (uuid,), = rows(database(daemon), "SELECT DISTINCT uuid FROM cache")
    assert len(page(daemon, uuid.decode())["datas"]) == 500


def test_a_request_process_killed_during_a_create(daemon, large):
    """What it leaves is no listing, and no obstacle."""
    body = b'{"path":[{"full_path":"%s","alias":"/L"}]}' % bytes(large)
    with daemon.raw() as raw:
        raw.send(b"POST /create.cache HTTP/1.1\r\nHost: x\r\nContent-Length: %d\r\n\r\n" % len(body) + body)
        assert wait_until(database(daemon).exists, interval=0.001)
        for pid in daemon.request_processes():
            os.kill(pid, 9)
        assert raw.response().status in (200, 502)
    assert outcome(page(daemon, UNKNOWN)) == (2, "invalid uuid")
    works_again(daemon)


def test_a_daemon_killed_between_create_and_fetch(make_instance):
    instance = give_volume(make_instance())
    make_file(instance.share / "a")
    instance.start("--level", "7", "--sid", instance.sid)
    first = followed(instance, instance.share)
    second = followed(instance, instance.share, index=2)
    instance.leftovers_expected = True
    instance.process.kill()
    instance.wait_end()
    assert cache_files(instance) == [f"{instance.sid}.1", f"{instance.sid}.2"]
    instance.process = None
    instance.start("--level", "7", "--sid", instance.sid)
    for uuid, index in ((first, 1), (second, 2)):
        fetched = page(instance, uuid, index=index)
        assert (names(fetched), fetched["changed"]) == (["a"], False)
    # The watches went with the old daemon; a watch request brings them back.
    assert watched(instance, 1) == watched(instance, 2) == []
    assert outcome(instance.call("watch")) == (0, "")
    wait_watched(instance, 1, instance.share)
    next_second()
    make_file(instance.share / "b")
    assert wait_until(lambda: changed(instance, first))
    assert changed(instance, second, index=2) is False
    assert delete(instance, first) == NOTHING
    assert page(instance, first) == INVALID
    instance.leftovers_expected = False
