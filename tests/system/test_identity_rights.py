"""What the session's user may not read is not listed, whoever the daemon is: real accounts, groups and access lists."""

import os
import struct

import pytest

from harness.accounts import ALICE, BOB, ROOTS, STAFF, TEAM, give_accounts
from harness.instance import fresh_instance
from harness.tree import make_file, make_folder

READ, SEARCH = 4, 1


@pytest.fixture(scope="module")
def alices():
    """An instance for a session of alice's, whose daemon has more groups than she has."""
    with fresh_instance("alice") as instance:
        give_accounts(instance)
        instance.run_as = {"user": 0, "group": 0, "extra_groups": [0, ROOTS]}
        yield instance.start()


@pytest.fixture(scope="module")
def bobs():
    """The same for bob, who is in no group but his own."""
    with fresh_instance("bob") as instance:
        yield give_accounts(instance).start()


@pytest.fixture
def shelf(alices):
    """A place for folders that each test makes for itself."""
    place = make_folder(alices.share / "shelf")
    yield place
    for folder, folders, files in os.walk(place, topdown=False):
        for name in files:
            os.unlink(os.path.join(folder, name))
        for name in folders:
            path = os.path.join(folder, name)
            os.unlink(path) if os.path.islink(path) else os.rmdir(path)
    place.rmdir()


def folder_with_file(path, mode, uid=0, gid=0):
    make_folder(path)
    make_file(path / "inside")
    os.chown(path, uid, gid)
    path.chmod(mode)
    return path


# --- Mode bits ---


@pytest.mark.parametrize("mode, uid, gid, seen", [
    (0o755, 0, 0, True),
    (0o700, 0, 0, False),
    (0o770, 0, 0, False),       # the group of root is not hers
    (0o705, 0, 0, True),
    (0o700, ALICE, 0, True),
    (0o077, ALICE, 0, False),   # an owner has the owner's rights alone
    (0o500, BOB, 0, False),
    (0o750, 0, STAFF, True),    # her own group
    (0o750, 0, TEAM, True),     # a supplementary one
    (0o707, 0, TEAM, False),    # a member has the group's rights alone
    (0o750, 0, BOB, False),
    (0o750, 0, ROOTS, False),   # a group that only the daemon has
    (0o711, 0, 0, False),       # to pass through, not to read
    (0o744, 0, 0, False),       # names without their files say nothing
])
def test_a_folder_is_listed_if_its_mode_lets_the_user(alices, shelf, mode, uid, gid, seen):
    folder = folder_with_file(shelf / "folder", mode, uid, gid)
    assert alices.names(folder) == (["inside"] if seen else [])
    # A search from above goes the same way.
    reply = alices.fetch(shelf, recursive=True, name="inside")
    assert [entry["filename"] for entry in reply["datas"]] == (["inside"] if seen else [])


def test_a_folder_below_one_that_may_not_be_searched_is_not_listed(alices, shelf):
    folder_with_file(make_folder(shelf / "closed") / "open to all", 0o777)
    for mode, seen in ((0o700, []), (0o744, []), (0o711, ["inside"]), (0o755, ["inside"])):
        (shelf / "closed").chmod(mode)
        assert alices.names(shelf / "closed" / "open to all") == seen, oct(mode)
        assert alices.names(f"{shelf}/closed/../closed/open to all/.") == seen, oct(mode)


def test_a_link_leads_no_further_than_the_user_may_go(alices, shelf):
    closed = folder_with_file(shelf / "closed", 0o700)
    (shelf / "link").symlink_to(closed)
    (shelf / "to inside").symlink_to(closed / "inside")
    assert alices.names(shelf / "link") == []
    assert alices.names(shelf / "link" / ".") == []
    rights = {entry["filename"]: entry["acl"] for entry in alices.fetch(shelf)["datas"]}
    assert rights == {"closed": 0, "link": 0, "to inside": 0}


def test_what_the_kernel_keeps_for_root_is_not_shown(alices):
    """Places where root's process, as which the test runs, sees something and the user's must not."""
    for place in ("/proc/1/fd", "/proc/1/task/1/fd", f"/proc/{alices.process.pid}/fd", "/root"):
        assert os.listdir(place) != [], place
        assert alices.names(place, hidden=0) == [], place


# --- Groups ---


def test_supplementary_groups_count_for_whoever_has_them(alices, bobs, shelf):
    folder = folder_with_file(shelf / "of the team", 0o750, gid=TEAM)
    assert alices.names(folder) == ["inside"]
    assert bobs.names(folder) == []
    assert [entry["acl"] for entry in alices.fetch(shelf)["datas"]] == [READ + SEARCH]
    assert [entry["acl"] for entry in bobs.fetch(shelf)["datas"]] == [0]


def test_membership_counts_as_it_is_at_the_request(alices, shelf):
    folder = folder_with_file(shelf / "of the team", 0o750, gid=TEAM)
    groups = alices.root / "accounts/group"
    before = groups.read_text()
    assert alices.names(folder) == ["inside"]
    try:
        with open(groups, "r+", encoding="utf-8") as file:  # the same file, which lies over the machine's
            file.write(before.replace("team:x:61010:alice", "team:x:61010:carla"))
        assert alices.names(folder) == []
    finally:
        with open(groups, "r+", encoding="utf-8") as file:
            file.write(before)
    assert alices.names(folder) == ["inside"]


def test_the_groups_that_the_daemon_was_started_with_do_not_count(alices, shelf):
    """They are the daemon's: the kernel says so."""
    with open(f"/proc/{alices.process.pid}/status", encoding="utf-8") as status:
        assert [line.split()[1:] for line in status if line.startswith("Groups:")] == [["0", str(ROOTS)]]
    assert alices.names(folder_with_file(shelf / "daemon's group", 0o750, gid=ROOTS)) == []
    assert alices.names(folder_with_file(shelf / "root's group", 0o750, gid=0)) == []
    reply = alices.fetch(shelf)
    assert [entry["acl"] for entry in reply["datas"]] == [0, 0]


# --- Access lists ---

OWNER, USER, OWNING_GROUP, GROUP, MASK, OTHER = 0x01, 0x02, 0x04, 0x08, 0x10, 0x20
NOBODYS = 0xFFFFFFFF


def set_list(path, *entries):
    """A POSIX access list as the kernel keeps it; each entry a kind, rights, and the account's or group's number."""
    value = struct.pack("<I", 2)
    for kind, rights, *number in entries:
        value += struct.pack("<HHI", kind, rights, *(number or [NOBODYS]))
    os.setxattr(path, "system.posix_acl_access", value)


ALL = READ + 2 + SEARCH


@pytest.mark.parametrize("named, mask, other, seen", [
    ([(USER, READ + SEARCH, ALICE)], ALL, 0, True),
    ([(USER, READ + SEARCH, BOB)], ALL, 0, False),
    ([(GROUP, READ + SEARCH, TEAM)], ALL, 0, True),
    ([(GROUP, READ + SEARCH, STAFF)], ALL, 0, True),
    ([(GROUP, READ + SEARCH, ROOTS)], ALL, 0, False),
    ([(USER, READ + SEARCH, ALICE)], SEARCH, 0, False),                      # what the mask takes away
    ([(USER, 0, ALICE)], ALL, READ + SEARCH, False),                         # shut out though others may
    ([(GROUP, 0, TEAM)], ALL, READ + SEARCH, False),
    ([(USER, 0, ALICE), (GROUP, READ + SEARCH, TEAM)], ALL, 0, False),       # the user's own entry decides
    ([(USER, 0, BOB), (GROUP, 0, ROOTS)], ALL, READ + SEARCH, True),
])
def test_access_lists_decide(alices, shelf, named, mask, other, seen):
    folder = folder_with_file(shelf / "folder", 0o700)
    set_list(folder, (OWNER, ALL), *[entry for entry in named if entry[0] == USER], (OWNING_GROUP, 0),
             *[entry for entry in named if entry[0] == GROUP], (MASK, mask), (OTHER, other))
    assert alices.names(folder) == (["inside"] if seen else [])
    assert [entry["acl"] for entry in alices.fetch(shelf)["datas"]] in ([READ + SEARCH], [0], [SEARCH])
    assert ([entry["acl"] for entry in alices.fetch(shelf)["datas"]] == [READ + SEARCH]) is seen


# --- Caches ---


def test_a_kept_listing_is_the_users_own(alices, shelf):
    """Made, read and found again as the user, in a file of the user's."""
    volume = make_folder(alices.root / "volume", mode=0o755)
    make_folder(volume / ".fs", mode=0o777)
    (volume / ".fs").chmod(0o777)
    alices.write_default_volume(volume)
    folder_with_file(shelf / "closed", 0o700)
    folder_with_file(shelf / "team", 0o750, gid=TEAM)
    paths = [{"full_path": str(shelf / name), "alias": "/S"} for name in ("team", "closed")]
    reply = alices.call("create.cache", {"path": paths})
    assert (reply["error_code"], reply["total"]) == (0, 1)
    kept, = (volume / ".fs").iterdir()
    status = kept.stat()
    assert (status.st_uid, status.st_gid) == (ALICE, STAFF)
    assert status.st_mode & 0o022 == 0, "others may write it"
    page = alices.call("fetch.cache", {"uuid": reply["uuid"]})
    assert [entry["filename"] for entry in page["datas"]] == ["inside"]
    # What has become unreadable since is shown from the kept status, with the rights of now.
    (shelf / "team").chmod(0o700)
    page = alices.call("fetch.cache", {"uuid": reply["uuid"]})
    assert [entry["acl"] for entry in page["datas"]] == [0]


def test_a_kept_listing_that_the_user_may_not_read_is_none(alices):
    """A file of root's, a link to one, a pipe and a folder in the cache's place."""
    volume = make_folder(alices.root / "other volume")
    place = make_folder(volume / ".fs")
    place.chmod(0o777)
    alices.write_default_volume(volume)
    make_file(alices.share / "a")
    uuid = alices.call("create.cache", {"path": [{"full_path": str(alices.share), "alias": "/S"}]})["uuid"]
    kept, = place.iterdir()
    hidden = alices.root / "hidden"
    kept.rename(hidden)
    os.chown(hidden, 0, 0)
    hidden.chmod(0o600)
    secret = hidden.read_bytes()
    for plant in (lambda: kept.symlink_to(hidden), lambda: os.link(hidden, kept), lambda: os.mkfifo(kept, 0o666),
                  lambda: kept.mkdir(0o777)):
        plant()
        for endpoint in ("fetch.cache", "delete.cache"):
            reply = alices.call(endpoint, {"uuid": uuid}, timeout=10)
            assert reply["error_code"] != 0, endpoint
        assert alices.call("watch")["error_code"] == 0
        assert alices.call("watch", {"index": 2})["error_code"] == 0  # ends after the one before it
        assert hidden.read_bytes() == secret
        if kept.is_dir() and not kept.is_symlink():
            kept.rmdir()
        else:
            kept.unlink()
    # A new cache replaces what is planted, and follows nothing.
    for plant in (lambda: kept.symlink_to(hidden), lambda: os.link(hidden, kept)):
        plant()
        reply = alices.call("create.cache", {"path": [{"full_path": str(alices.share), "alias": "/S"}]})
        assert reply["error_code"] == 0
        assert (kept.lstat().st_uid, hidden.stat().st_uid) == (ALICE, 0)
        assert hidden.read_bytes() == secret
        kept.unlink()
    hidden.unlink()
