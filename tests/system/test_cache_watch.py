"""How a client learns that a cache has gone stale."""

import os
import pathlib
import re
import shutil
import signal

import pytest

from harness.caches import (caching_instance, changed, database, followed, give_volume, made, names,
                            next_second, opened, outcome, page, wait_watched, watched, watches)
from harness.instance import wait_until
from harness.loglines import said
from harness.tree import make_file, make_folder, make_link

NOBODY = 65534


@pytest.fixture(scope="module")
def daemon():
    with caching_instance() as instance:
        yield instance


def becomes_stale(instance, uuid, **keys):
    return wait_until(lambda: changed(instance, uuid, **keys), 5)


def stays_fresh(instance, uuid, seconds=0.3, **keys):
    return not wait_until(lambda: changed(instance, uuid, **keys), seconds, 0.05)


# --- Fresh and stale ---


def test_a_cache_is_fresh_until_something_changes_and_again_after_the_next_create(daemon, share):
    make_file(share / "a")
    uuid = followed(daemon, share)
    assert changed(daemon, uuid) is False
    next_second()
    make_file(share / "b")
    assert becomes_stale(daemon, uuid)
    assert changed(daemon, uuid) is True  # reading a page does not settle it
    assert names(page(daemon, uuid)) == ["a"]
    again = followed(daemon, share)
    assert changed(daemon, again) is False
    assert names(page(daemon, again)) == ["a", "b"]


def test_watching_leaves_no_more_of_the_libraries_in_memory_than_waiting_does(daemon, share):
    def of_files():
        status = pathlib.Path(f"/proc/{daemon.process.pid}/status").read_text(encoding="utf-8")
        return int(re.search(r"RssFile:\s+(\d+) kB", status).group(1))

    make_file(share / "a")
    before = of_files()
    for _ in range(5):
        followed(daemon, share)
    assert wait_until(lambda: of_files() < before + 1024)


def test_the_flag_is_a_boolean(daemon, share):
    uuid = made(daemon, share)
    body = daemon.exchange("POST", "/fetch.cache", b'{"uuid":"%s"}' % uuid.encode()).body
    assert body.startswith(b'{"datas":[],"total":0,"changed":false,"has_h265":0')


CHANGES = {
    "written": lambda share: (share / "a").write_text("more"),
    "removed": lambda share: (share / "a").unlink(),
    "renamed": lambda share: (share / "a").rename(share / "b"),
    "moved out": lambda share: (share / "a").rename(share.parent / f"{share.name}.a"),
    "other rights": lambda share: (share / "a").chmod(0o600),
    "new folder": lambda share: (share / "sub").mkdir(),
    "the folder itself removed": shutil.rmtree,
}


def test_each_kind_of_change_counts(daemon):
    """Each on an index and a daemon of its own would take a second each: here two go together."""
    kinds = sorted(CHANGES)
    for pair in (kinds[n:n + 2] for n in range(0, len(kinds), 2)):
        uuids = {}
        for index, kind in enumerate(pair, start=1):
            folder = make_folder(daemon.root / f"changes {kind}")
            make_file(folder / "a")
            uuids[kind] = followed(daemon, folder, index=index), index, folder
        next_second()
        for kind, (uuid, index, folder) in uuids.items():
            assert changed(daemon, uuid, index=index) is False, kind
            CHANGES[kind](folder)
            assert becomes_stale(daemon, uuid, index=index), kind


def test_reading_and_what_lies_deeper_do_not_count(daemon, share):
    make_file(share / "a", "text")
    make_folder(share / "sub")
    uuid = followed(daemon, share)
    next_second()
    assert (share / "a").read_text() == "text"
    assert sorted(os.listdir(share)) == ["a", "sub"]
    make_file(share / "sub" / "deeper")
    daemon.fetch(share)
    assert stays_fresh(daemon, uuid)


def test_vetoed_names_do_not_count(make_instance):
    instance = give_volume(make_instance())
    instance.write_veto("/*.tmp/.streams/")
    make_file(instance.share / "a")
    make_file(instance.share / "old.tmp")
    instance.start()
    uuid = followed(instance, instance.share)
    assert names(page(instance, uuid)) == ["a"]
    next_second()
    make_file(instance.share / "new.tmp")
    (instance.share / "old.tmp").unlink()
    make_folder(instance.share / ".streams")
    assert stays_fresh(instance, uuid)
    make_file(instance.share / "new.txt")
    assert becomes_stale(instance, uuid)


def test_lost_events_count_as_a_change(make_instance):
    """The kernel keeps 16384 events by default; the vetoed names alone would leave the cache fresh."""
    with open("/proc/sys/fs/inotify/max_queued_events", encoding="ascii") as file:
        limit = int(file.read())
    instance = give_volume(make_instance())
    instance.write_veto("/*.tmp/")
    for name in ("a", "1.tmp", "2.tmp"):
        make_file(instance.share / name)
    instance.start()
    uuid = followed(instance, instance.share)
    next_second()
    instance.process.send_signal(signal.SIGSTOP)
    try:
        os.waitid(os.P_PID, instance.process.pid, os.WSTOPPED | os.WNOWAIT)
        for number in range(limit + 100):  # no two equal events in a row, which the kernel would take for one
            os.utime(instance.share / ("1.tmp" if number % 2 else "2.tmp"))
    finally:
        instance.process.send_signal(signal.SIGCONT)
    assert becomes_stale(instance, uuid)


def test_the_two_indexes_change_independently(daemon, share):
    one, two = make_folder(share / "1"), make_folder(share / "2")
    make_file(one / "a")
    make_file(two / "a")
    first = followed(daemon, one)
    second = followed(daemon, two, index=2)
    assert (watched(daemon, 1), watched(daemon, 2)) == ([one.stat().st_ino], [two.stat().st_ino])
    next_second()
    make_file(two / "b")
    assert becomes_stale(daemon, second, index=2)
    assert changed(daemon, first) is False
    # A fresh cache for one index leaves the other stale.
    first = followed(daemon, one)
    assert changed(daemon, second, index=2) is True
    next_second()
    make_file(one / "b")
    assert becomes_stale(daemon, first)
    second = followed(daemon, two, index=2)
    assert changed(daemon, second, index=2) is False
    assert changed(daemon, first) is True


def test_a_listing_without_a_cache_is_never_stale(daemon, share):
    make_file(share / "a")
    uuid = followed(daemon, share)
    other = followed(daemon, share, index=2)
    next_second()
    make_file(share / "b")
    assert becomes_stale(daemon, uuid) and becomes_stale(daemon, other, index=2)
    assert daemon.fetch(share)["changed"] is False


# --- What is watched ---


def test_every_folder_of_a_recursive_cache_is_watched(daemon, share):
    tree = [share, make_folder(share / "1"), make_folder(share / "1" / "2"), make_folder(share / "1" / "2" / "3")]
    for folder in tree:
        make_file(folder / "file")
    uuid = followed(daemon, share, recursive=True, watching=tree)
    next_second()
    make_file(tree[3] / "new")
    assert becomes_stale(daemon, uuid)


def test_folders_without_entries_are_not_recorded_and_so_not_watched(daemon, share):
    empty = make_folder(share / "empty")
    followed(daemon, share, recursive=True)
    followed(daemon, empty, watching=[])


def test_each_root_is_watched_and_nothing_else_any_more(daemon, share):
    roots = [make_folder(share / str(number)) for number in range(4)]
    for root in roots:
        make_file(root / f"of {root.name}")
    followed(daemon, *roots[:3])
    followed(daemon, *roots[2:])
    uuid = followed(daemon, roots[3])
    next_second()
    make_file(roots[0] / "b")
    assert stays_fresh(daemon, uuid)


def test_a_folder_may_go_before_it_is_watched(daemon, share):
    """The reload of a cache whose folder has gone watches the rest and says how many it could not watch."""
    stays, goes = make_folder(share / "1"), make_folder(share / "2")
    make_file(stays / "a")
    make_file(goes / "b")
    followed(daemon, stays, goes)
    shutil.rmtree(goes)
    before, watching = len(daemon.lines()), watches(daemon, 1)
    assert outcome(daemon.call("watch")) == (0, "")
    wait_watched(daemon, 1, stays, instead_of=watching)
    assert wait_until(lambda: len(daemon.lines()) > before)
    (tag, message), = said(daemon.lines()[before:])
    assert tag == "D" and message.partition(" ")[2] == "[cache] 1 of 2 folders of cache 1 cannot be watched"


def test_a_watch_request_reloads_the_index_it_names(daemon, share):
    make_file(share / "a")
    uuid = followed(daemon, share)
    other = followed(daemon, share, index=2)
    next_second()
    make_file(share / "b")
    assert becomes_stale(daemon, uuid) and becomes_stale(daemon, other, index=2)
    watching = watches(daemon, 2)
    assert daemon.call("watch", {"index": 2, "uuid": "anything"}) == {"error_code": 0, "error_message": ""}
    wait_watched(daemon, 2, share, instead_of=watching)
    assert changed(daemon, other, index=2) is False  # though the cache is as old as before
    assert changed(daemon, uuid) is True


def test_a_watch_request_with_a_wrong_index_touches_no_watch(daemon, share):
    make_file(share / "a")
    uuid = followed(daemon, share)
    followed(daemon, share, index=2)
    before = watches(daemon, 1), watches(daemon, 2)
    next_second()
    make_file(share / "b")
    assert becomes_stale(daemon, uuid)
    for index in (0, 3, -1, "x"):
        assert daemon.call("watch", {"index": index}) == {"error_code": 2, "error_message": "invalid index"}
    assert outcome(daemon.call("watch", {"index": 2})) == (0, "")
    wait_watched(daemon, 2, share, instead_of=before[1])  # the pool has reached the end of its queue
    assert watches(daemon, 1) == before[0]
    assert changed(daemon, uuid) is True


def test_a_deleted_cache_is_watched_until_the_next_reload(daemon, share):
    make_file(share / "a")
    uuid = followed(daemon, share)
    assert outcome(daemon.call("delete.cache", {"uuid": uuid})) == (0, "")
    assert watched(daemon, 1) == [share.stat().st_ino]
    assert outcome(daemon.call("watch")) == (0, "")
    wait_watched(daemon, 1)


def test_many_reloads_and_changes_at_once(daemon, share):
    make_file(share / "a")
    followed(daemon, share)
    descriptors = daemon.daemon_descriptors()
    for number in range(200):
        assert outcome(daemon.call("watch")) == (0, "")
        (share / f"{number % 7}").touch()
        (share / f"{number % 7}").unlink()
    uuid = followed(daemon, share)
    assert changed(daemon, uuid) is False
    assert wait_until(lambda: len(watches(daemon, 1)) == 1)  # jobs that wait may reload once more
    assert wait_until(lambda: daemon.daemon_descriptors() <= descriptors)


# --- Whose rights ---


def test_folders_are_watched_with_the_users_rights(nobodys):
    """Links are planted in the list of paths: nothing that the user may not read is watched."""
    closed = make_folder(nobodys.root / "closed", mode=0o700)
    make_file(closed / "secret")
    link = make_link(nobodys.root / "link", closed)
    to_open = make_link(nobodys.root / "to open", nobodys.share)
    uuid = followed(nobodys, nobodys.share)
    with opened(database(nobodys)) as connection:
        for path in (closed, link, f"{link}/.", closed / "secret", to_open, "relative", ""):
            connection.execute("INSERT INTO cache VALUES (?, ?, '')", (uuid, str(path)))
    before, watching = len(nobodys.lines()), watches(nobodys, 1)
    assert outcome(nobodys.call("watch")) == (0, "")
    # A link is watched as what it is, not as what it leads to.
    assert wait_until(lambda: not set(watches(nobodys, 1)) & set(watching) and watched(nobodys, 1))
    assert wait_until(lambda: len(nobodys.lines()) > before)
    inode = {str(path): path.lstat().st_ino for path in (closed, closed / "secret", nobodys.share, link, to_open)}
    assert not {inode[str(closed)], inode[str(closed / "secret")]} & set(watched(nobodys, 1))
    assert inode[str(nobodys.share)] in watched(nobodys, 1)
    assert set(watched(nobodys, 1)) <= {inode[str(path)] for path in (nobodys.share, link, to_open)}
    (tag, message), = said(nobodys.lines()[before:])
    assert tag == "D"
    assert message.partition(" ")[2].endswith(" of 7 folders of cache 1 cannot be watched")
    assert changed(nobodys, uuid) is False
    next_second()
    make_file(closed / "more")
    assert stays_fresh(nobodys, uuid)


def test_a_database_that_the_user_may_not_read_is_not_read_for_him(nobodys):
    followed(nobodys, nobodys.share)
    path = database(nobodys)
    os.chown(path, 0, 0)
    path.chmod(0o600)
    hidden = path.rename(nobodys.root / "roots own")
    for plant in (lambda: path.symlink_to(hidden), lambda: os.link(hidden, path)):
        plant()
        assert outcome(nobodys.call("watch")) == (0, "")
        wait_watched(nobodys, 1)
        path.unlink()
        followed(nobodys, nobodys.share)
        path.unlink()
    hidden.unlink()


@pytest.mark.parametrize("suffix", ["-journal", "-wal", "-shm"])
def test_side_files_of_a_planted_database_reach_nothing(nobodys, suffix):
    """SQLite looks at files beside a database: links there must not let anyone write or remove what is root's."""
    secret = make_file(nobodys.root / "secret", b"root's alone" * 1000, mode=0o600)
    followed(nobodys, nobodys.share)
    path = database(nobodys)
    if suffix != "-journal":
        with opened(path) as connection:
            connection.execute("PRAGMA journal_mode = WAL")
            connection.execute("PRAGMA wal_autocheckpoint = 0")
            connection.execute("INSERT INTO cache VALUES ('x', '/', '')")
            os.chmod(path, 0o666)
            with open(path, "rb") as file:
                content = file.read()
        path.write_bytes(content)  # a file that says WAL, without its log
        path.chmod(0o666)
    side = path.with_name(path.name + suffix)
    side.symlink_to(secret)
    before = os.stat(secret)
    assert outcome(nobodys.call("watch")) == (0, "")
    assert outcome(nobodys.call("watch", {"index": 2})) == (0, "")  # ends after the one before it
    wait_watched(nobodys, 2)
    after = os.stat(secret)
    assert secret.read_bytes() == b"root's alone" * 1000
    assert (after.st_mode, after.st_uid, after.st_size, after.st_mtime_ns) == (
        before.st_mode, before.st_uid, before.st_size, before.st_mtime_ns)
    for left in path.parent.glob(f"{path.name}-*"):
        assert left.is_symlink() or left.stat().st_uid == NOBODY
        left.unlink()
