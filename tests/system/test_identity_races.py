"""A path that changes under our feet gives nobody what they could not read themselves."""

import contextlib
import ctypes
import os
import subprocess
import sys
import threading
import time

import pytest

from harness.caches import give_volume, opened, watched
from harness.instance import fresh_instance, wait_until
from harness.tree import make_file, make_folder

NOBODY = 65534
SECRET_SIZE = 7_654_321
SECONDS = 2

libc = ctypes.CDLL(None, use_errno=True)
RENAME_EXCHANGE = 2


class Swapping(threading.Thread):
    """Exchanges two names without a pause, at once, so that there is always one of the two; use as a context."""

    def __init__(self, one, other):
        super().__init__()
        self.names = os.fsencode(one), os.fsencode(other)
        self.finished = threading.Event()
        self.count = 0

    def swap(self):
        done = libc.renameat2(-100, self.names[0], -100, self.names[1], RENAME_EXCHANGE)
        assert done == 0, os.strerror(ctypes.get_errno())
        self.count += 1

    def run(self):
        while not self.finished.is_set():
            self.swap()
            time.sleep(0.0002)

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *_):
        self.finished.set()
        self.join()
        if self.count % 2:
            self.swap()  # as it was
        assert self.count > 20, "hardly anything changed"


@pytest.fixture(scope="module")
def nobodys():
    with fresh_instance("nobody") as instance:
        give_volume(instance)
        (instance.root / "open to all").mkdir()
        yield instance.start("--level", "3", "--sid", instance.sid)


@pytest.fixture
def place(nobodys):
    """A folder "path" that is open, another of root's alone, and a link to the latter to put in the former's place."""
    base = make_folder(nobodys.share / "base")
    closed = make_folder(nobodys.root / "closed", mode=0o700)
    for name in ("secret.bin", "secret.txt"):
        make_file(closed / name, SECRET_SIZE)
    make_file(make_folder(closed / "sub") / "secret below")
    make_folder(base / "path")
    for name in ("public.bin", "public.txt"):
        make_file(base / "path" / name, 5)
    make_file(make_folder(base / "path" / "sub") / "public below")
    (base / "link").symlink_to(closed)
    yield base
    for path in (base, closed):
        subprocess.run(["rm", "-r", str(path)], check=True)


def for_a_while(action):
    """All that the action gave, time after time."""
    begin = time.monotonic()
    given = []
    while time.monotonic() < begin + SECONDS or (len(given) < 20 and time.monotonic() < begin + 10 * SECONDS):
        given.append(action())
    assert len(given) >= 20
    return given


@pytest.mark.parametrize("below", ["", "/.", "/sub", "/../path", "/sub/.."])
def test_a_listing_never_shows_what_stands_behind_the_link(nobodys, place, below):
    with Swapping(place / "path", place / "link"):
        listings = for_a_while(lambda: frozenset(nobodys.names(f"{place}/path{below}", recursive=True)))
    public = {"public.bin", "public.txt", "sub", "public below"}
    assert set().union(*listings) <= public
    assert frozenset() in listings or any("public below" in names for names in listings)
    assert len(set(listings)) > 1, "it was always the same that was found"


def test_a_recursive_walk_never_descends_into_the_link(nobodys, place):
    with Swapping(place / "path" / "sub", place / "link"):
        listings = for_a_while(lambda: frozenset(nobodys.names(place / "path", recursive=True)))
    outside = {"public.bin", "public.txt", "sub"}
    assert all(outside <= names <= outside | {"public below"} for names in listings)
    assert outside in listings and outside | {"public below"} in listings, "it was always the same that was found"


def test_a_description_never_tells_of_what_stands_behind_the_link(nobodys, place):
    """The status is the entry's own, and what is asked about it later is asked with the user's rights."""
    notes = make_folder(nobodys.root / "notes")
    notes.chmod(0o777)
    make_file(place / "path" / "public.mkv", 5)
    make_file(nobodys.root / "closed" / "secret.mkv", SECRET_SIZE)
    nobodys.write_program("/usr/bin/ffmpeg", f"wc -c <\"$3\" >>{notes}/read 2>/dev/null\necho ': hevc (' >&2\n")
    (place / "to secret.mkv").symlink_to(nobodys.root / "closed" / "secret.mkv")
    with Swapping(place / "path" / "public.mkv", place / "to secret.mkv"):
        replies = for_a_while(lambda: nobodys.fetch(place / "path", name="public.mkv"))
    entries = [entry for reply in replies for entry in reply["datas"]]
    assert len(entries) > 5
    assert {int(entry["filesize"]) for entry in entries} <= {0, 5}  # a link has none
    assert {entry["acl"] for entry in entries} <= {0, 4}
    read = (notes / "read").read_text().split()
    assert read and set(read) == {"5"}
    (nobodys.root / "usr/bin/ffmpeg").unlink()


def test_a_cache_never_lies_behind_a_link(nobodys, place):
    """The folder of the caches is swapped with a link to a folder where only root may write."""
    volume = nobodys.volume
    (volume / "link").symlink_to(nobodys.root / "closed")
    before = sorted(os.listdir(nobodys.root / "closed"))
    times = os.stat(nobodys.root / "closed").st_mtime_ns
    body = {"path": [{"full_path": str(place / "path"), "alias": "/S"}]}

    def keep_and_read():
        reply = nobodys.call("create.cache", body)
        if "uuid" in reply:
            nobodys.call("fetch.cache", {"uuid": reply["uuid"]})
        nobodys.call("watch")
        nobodys.call("delete.cache", {"uuid": reply.get("uuid", "x")})
        return "uuid" in reply

    with Swapping(volume / ".fs", volume / "link"):
        kept = for_a_while(keep_and_read)
    assert any(kept)
    assert sorted(os.listdir(nobodys.root / "closed")) == before
    assert os.stat(nobodys.root / "closed").st_mtime_ns == times
    for name in (volume / ".fs").iterdir():
        assert name.stat().st_uid == NOBODY
    (volume / "link").unlink()


def test_a_watch_never_follows_the_link(nobodys, place):
    """Folders below a path that is swapped while the daemon puts its watches there."""
    closed = nobodys.root / "closed"
    allowed = {path.stat().st_ino for path in (place / "path", place / "path" / "sub")}
    forbidden = {path.stat().st_ino for path in (closed, closed / "sub")}
    link = (place / "link").lstat().st_ino
    paths = [{"full_path": f"{place}/path{below}", "alias": "/S"} for below in ("/sub", "", "/sub/.")]
    reply = nobodys.call("create.cache", {"path": paths})
    assert reply["error_code"] == 0
    assert wait_until(lambda: set(watched(nobodys, 1)) == allowed)
    seen = set()

    def watch_anew():
        for request in ({}, {"index": 2}):  # the second answers when the first is done
            assert nobodys.call("watch", request)["error_code"] == 0
        seen.update(watched(nobodys, 1))

    with Swapping(place / "path", place / "link"):
        for_a_while(watch_anew)
    assert seen & allowed
    assert not seen & forbidden
    assert seen <= allowed | {link}


def test_planted_links_in_the_cache_folder_reach_nothing(nobodys, place):
    """For each name that the daemon or a request may open there: root's file stays as it is, to the last byte and bit."""
    target = make_file(nobodys.root / "closed" / "target", b"root's alone" * 100, mode=0o600)
    folder = nobodys.volume / ".fs"
    body = {"path": [{"full_path": str(place / "path"), "alias": "/S"}]}
    uuid = nobodys.call("create.cache", body)["uuid"]
    before = os.stat(target)
    for plant in (os.symlink, os.link):
        for suffix in ("", "-journal", "-wal", "-shm"):
            name = folder / f"{nobodys.sid}.1{suffix}"
            name.unlink(missing_ok=True)
            plant(target, name)
            for endpoint, request in (("fetch.cache", {"uuid": uuid}), ("delete.cache", {"uuid": uuid}), ("watch", {}),
                                      ("watch", {"index": 2}), ("create.cache", body)):
                nobodys.call(endpoint, request, timeout=10)
            with contextlib.suppress(FileNotFoundError):
                name.unlink()
            after = os.stat(target)
            assert target.read_bytes() == b"root's alone" * 100
            assert (after.st_mode, after.st_uid, after.st_mtime_ns) == (
                before.st_mode, before.st_uid, before.st_mtime_ns), (plant, suffix)
    for left in folder.iterdir():
        assert left.stat().st_uid == NOBODY


def test_a_planted_database_shows_only_what_the_user_may_read(nobodys, place):
    """Rows that name root's files are described from what the row says, with the rights that the user has."""
    body = {"path": [{"full_path": str(place / "path"), "alias": "/S"}]}
    uuid = nobodys.call("create.cache", body)["uuid"]
    with opened(nobodys.volume / ".fs" / f"{nobodys.sid}.1") as connection:
        connection.execute("UPDATE cache SET path = ? WHERE path != ''", (str(nobodys.root / "closed"),))
        connection.execute("UPDATE entry SET name = 'secret.txt'")
    entries = nobodys.call("fetch.cache", {"uuid": uuid})["datas"]
    assert entries and {entry["acl"] for entry in entries} == {0}
    assert SECRET_SIZE not in {int(entry["filesize"]) for entry in entries}


# --- The session's record ---

CALL = "import socket, sys; s = socket.socket(socket.AF_UNIX); s.connect(sys.argv[1]); " \
       "s.sendall(b'GET / HTTP/1.1\\r\\nHost: x\\r\\nConnection: close\\r\\n\\r\\n'); print(s.recv(99).split()[1].decode())"


def status_as_nobody(instance):
    told = subprocess.run([sys.executable, "-c", CALL, str(instance.socket)], user=NOBODY, group=NOBODY, extra_groups=[],
                          capture_output=True, check=True, cwd="/", timeout=30)
    return int(told.stdout)


def replaced_by_link(record):
    record.rename(record.with_name("moved"))
    record.symlink_to("moved")


def replaced_by_pipe(record):
    record.unlink()
    os.mkfifo(record, 0o644)


def replaced_by_folder(record):
    record.unlink()
    record.mkdir()


SPOILT = {
    "group may write": lambda record: record.chmod(0o664),
    "all may write": lambda record: record.chmod(0o646),
    "owned by the user": lambda record: os.chown(record, NOBODY, NOBODY),
    "owned by another": lambda record: os.chown(record, 1, 1),
    "a link": replaced_by_link,
    "a pipe": replaced_by_pipe,
    "a folder": replaced_by_folder,
    "gone": lambda record: record.unlink(),
    "empty": lambda record: record.write_text(""),
    "over": lambda record: record.write_text("user = nobody\nexpires = 1000000000\n"),
    "another's": lambda record: record.write_text("user = games\n"),
}


@pytest.mark.parametrize("how", SPOILT)
def test_a_record_that_is_none_any_more_admits_its_user_no_more(make_instance, how):
    """From the next connection on, long before the daemon looks at its session again; and no start goes on from it."""
    instance = make_instance("nobody")
    instance.start()
    assert status_as_nobody(instance) == 200
    SPOILT[how](instance.session_file)
    assert status_as_nobody(instance) == 403
    instance.stop()
    if how != "another's":
        assert instance.run_to_end("--sid", instance.sid)[0] == 1
