"""The database file of a cache, read back by other programs than the daemon."""

import os
import struct
import subprocess

import pytest

from harness.caches import caching_instance, database, delete, give_volume, made, names, next_second, page, rows
from harness.loglines import said
from harness.tree import make_file, make_folder, make_link

SCHEMA = (b"CREATE TABLE cache ( uuid TEXT NOT NULL DEFAULT '', path TEXT NOT NULL DEFAULT '', alias TEXT NOT NULL "
          b"DEFAULT '' )",
          b"CREATE TABLE entry ( path INT NOT NULL DEFAULT 0, name TEXT NOT NULL DEFAULT '', stat BLOB NOT NULL DEFAULT "
          b"'', cluster TEXT NOT NULL DEFAULT '' )")


@pytest.fixture(scope="module")
def daemon():
    with caching_instance() as instance:
        yield instance


def program(path, *statements):
    """What the sqlite3 program prints, a line each."""
    result = subprocess.run(["sqlite3", "-batch", "-init", "/dev/null", str(path), *statements],
                            stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=20, check=False)
    assert (result.returncode, result.stderr) == (0, ""), result
    return result.stdout.splitlines()


# --- The file ---


def test_the_file_is_named_by_session_and_index(daemon, share):
    made(daemon, share)
    made(daemon, share, index=2)
    folder = daemon.volume / ".fs"
    assert sorted(path.name for path in folder.iterdir()) == [f"{daemon.sid}.1", f"{daemon.sid}.2"]
    assert folder.stat().st_mode & 0o7777 == 0o777
    status = database(daemon).stat()
    assert (status.st_mode, status.st_uid, status.st_gid) == (0o100644, 0, 0)


def test_the_file_belongs_to_the_session_user(share):
    with caching_instance("nobody") as instance:
        made(instance, share)
        status = database(instance).stat()
        assert (status.st_mode, status.st_uid, status.st_gid) == (0o100644, 65534, 65534)


def test_the_cache_folder_is_open_to_everyone_whatever_the_umask(make_instance):
    instance = give_volume(make_instance())
    before = os.umask(0o077)
    try:
        instance.start()
    finally:
        os.umask(before)
    assert (instance.volume / ".fs").stat().st_mode & 0o7777 == 0o777


def test_the_volumes_path_counts_as_it_is_configured(make_instance, share):
    """No root in front, blanks and other letters inside, read anew whenever it is needed."""
    instance = make_instance()
    instance.start()
    volume = make_folder(instance.root / "my völume, $HOME %s")
    make_folder(volume / ".fs", mode=0o777)
    instance.write_default_volume(volume)
    make_file(share / "a")
    uuid = made(instance, share)
    assert (volume / ".fs" / f"{instance.sid}.1").is_file()
    assert names(page(instance, uuid)) == ["a"]


# --- What it holds ---


def test_the_sqlite_program_reads_a_cache(daemon, share):
    make_file(share / "b", "12345")
    make_file(share / "a")
    uuid = made(daemon, (share, "/Some"), cluster="name")
    path = database(daemon)
    assert program(path, "PRAGMA integrity_check", "PRAGMA page_size", "PRAGMA auto_vacuum", "PRAGMA encoding",
                   "PRAGMA journal_mode", "PRAGMA user_version") == ["ok", "32768", "1", "UTF-8", "delete", "0"]
    assert program(path, "SELECT type, name, tbl_name FROM sqlite_master ORDER BY rowid") == [
        "table|cache|cache", "table|entry|entry"]
    assert tuple(line.encode() for line in program(path, "SELECT sql FROM sqlite_master ORDER BY rowid")) == SCHEMA
    assert program(path, "SELECT rowid, * FROM cache") == [f"1|{uuid}||", f"2|{uuid}|{share}|/Some"]
    assert program(path, "SELECT rowid, path, name, length(stat), typeof(stat), cluster FROM entry") == [
        "1|2|a|144|blob|a", "2|2|b|144|blob|b"]
    assert path.stat().st_size % 32768 == 0


def test_an_empty_listing_is_its_placeholder(daemon, share):
    uuid = made(daemon, share).encode()
    assert rows(database(daemon), "SELECT rowid, * FROM cache") == [(1, uuid, b"", b"")]
    assert rows(database(daemon), "SELECT * FROM entry") == []
    assert tuple(sql for sql, in rows(database(daemon), "SELECT sql FROM sqlite_master ORDER BY rowid")) == SCHEMA


def test_each_run_of_entries_of_one_folder_has_a_row(daemon, share):
    one, two = make_folder(share / "1"), make_folder(share / "2")
    for path in (one / "a", one / "b", two / "c", one / "d"):
        make_file(path)
    uuid = made(daemon, (one, "/One"), (two, "/Two")).encode()
    first, second = bytes(one), bytes(two)
    assert rows(database(daemon), "SELECT rowid, * FROM cache") == [
        (1, uuid, b"", b""), (2, uuid, first, b"/One"), (3, uuid, second, b"/Two"), (4, uuid, first, b"/One")]
    assert rows(database(daemon), "SELECT rowid, path, name FROM entry") == [
        (1, 2, b"a"), (2, 2, b"b"), (3, 3, b"c"), (4, 4, b"d")]


def test_folders_below_a_root_are_joined_to_it_and_to_its_alias(daemon, share):
    make_folder(share / "sub")
    make_folder(share / "sub" / "deep")
    make_file(share / "sub" / "deep" / "a")
    make_file(share / "sub" / "deep" / "b")
    uuid = made(daemon, (share, "/Some"), recursive=True).encode()
    top = bytes(share)
    assert rows(database(daemon), "SELECT rowid, * FROM cache") == [
        (1, uuid, b"", b""), (2, uuid, top + b"/sub/deep", b"/Some/sub/deep"),
        (3, uuid, top + b"/sub", b"/Some/sub"), (4, uuid, top, b"/Some")]
    assert rows(database(daemon), "SELECT path, name FROM entry") == [(2, b"a"), (2, b"b"), (3, b"deep"), (4, b"sub")]


def test_names_are_kept_byte_by_byte(daemon, share):
    odd = [b"\x01\x02", b"a\xffb", "é".encode()]
    for name in odd:
        with open(bytes(share) + b"/" + name, "wb"):
            pass
    made(daemon, share)
    assert sorted(name for name, in rows(database(daemon), "SELECT name FROM entry")) == odd


def test_a_status_is_the_kernels_record_of_the_entry_itself(daemon, share):
    make_file(share / "file", "hello", mode=0o4751, uid=12, gid=345)
    os.link(share / "file", share / "hard")
    os.utime(share / "file", ns=(1_500_000_000_123_456_789, -2_000_000_001))
    make_folder(share / "folder", mode=0o1777)
    make_file(share / "huge", 5_000_000_000)
    make_link(share / "link", "file", mtime=7)
    os.mknod(share / "null", 0o020600, os.makedev(1, 3))
    os.mkfifo(share / "pipe")
    made(daemon, share)
    blobs = dict(rows(database(daemon), "SELECT name, stat FROM entry"))
    assert sorted(blobs) == [b"file", b"folder", b"hard", b"huge", b"link", b"null", b"pipe"]
    for name, blob in blobs.items():
        status = os.lstat(bytes(share) + b"/" + name)
        assert len(blob) == 144
        fields = struct.unpack("<QQQIII4xQqqqqqqqqq24x", blob)
        assert fields == (status.st_dev, status.st_ino, status.st_nlink, status.st_mode, status.st_uid, status.st_gid,
                          status.st_rdev, status.st_size, status.st_blksize, status.st_blocks,
                          status.st_atime_ns // 10**9, status.st_atime_ns % 10**9,
                          status.st_mtime_ns // 10**9, status.st_mtime_ns % 10**9,
                          status.st_ctime_ns // 10**9, status.st_ctime_ns % 10**9), name
        assert blob[36:40] == bytes(4) and blob[120:] == bytes(24)
    # The places once more, by values that the test chose.
    assert struct.unpack_from("<QIII", blobs[b"file"], 16) == (2, 0o104751, 12, 345)
    assert struct.unpack_from("<q", blobs[b"huge"], 48) == (5_000_000_000,)
    assert struct.unpack_from("<Q", blobs[b"null"], 40) == (0x103,)
    assert struct.unpack_from("<qqqq", blobs[b"file"], 72) == (1_500_000_000, 123_456_789, -3, 999_999_999)
    assert struct.unpack_from("<I", blobs[b"link"], 24) == (0o120777,)


def test_a_deleted_cache_leaves_its_entries_until_the_next_one(daemon, share):
    make_file(share / "a")
    make_file(share / "b")
    uuid = made(daemon, share)
    assert delete(daemon, uuid)["error_code"] == 0
    assert rows(database(daemon), "SELECT * FROM cache") == []
    assert rows(database(daemon), "SELECT name FROM entry") == [(b"a",), (b"b",)]
    (share / "a").unlink()
    made(daemon, share)
    assert rows(database(daemon), "SELECT rowid, name FROM entry") == [(1, b"b")]


def test_a_new_cache_is_a_new_file(daemon, share):
    made(daemon, share)
    with open(database(daemon), "rb") as old:
        made(daemon, share)
        assert os.fstat(old.fileno()).st_nlink == 0
        assert os.fstat(old.fileno()).st_ino != database(daemon).stat().st_ino


def test_reading_a_cache_leaves_its_file_as_it_was(daemon, share):
    make_file(share / "a")
    uuid = made(daemon, share)
    before = database(daemon).read_bytes()
    next_second()
    stamp = database(daemon).stat().st_mtime_ns
    page(daemon, uuid)
    daemon.call("watch")
    assert database(daemon).read_bytes() == before
    assert database(daemon).stat().st_mtime_ns == stamp
    assert sorted(path.name for path in (daemon.volume / ".fs").iterdir()) in (
        [f"{daemon.sid}.1"], [f"{daemon.sid}.1", f"{daemon.sid}.2"])  # no journal, no lock file


def test_the_trace_of_a_listing(make_instance):
    instance = give_volume(make_instance())
    make_file(instance.share / "a", "12345")
    instance.start("--level", "8", "--sid", instance.sid)
    uuid = made(instance, instance.share)
    told = [line for line in said(instance.lines()) if "[cache]" in line[1]]
    assert [(tag, message.partition("[cache] ")[2]) for tag, message in told][:3] == [
        ("D", f"initial db {database(instance)}"),
        ("T", f"{instance.share}/a isdir=0, size=5, modify=2020-9-13"),
        ("I", f"uuid {uuid} created")]
