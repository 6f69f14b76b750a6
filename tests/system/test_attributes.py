"""Storage state: cloud-cache mounts with real extended attributes, encrypted folders, auto-tiering, snapshots."""

import json
import os
import pathlib
import shutil
import tempfile

import pytest

from harness.instance import fresh_instance
from harness.loglines import said
from harness.tree import make_file, make_folder, make_link

TOOL = "/usr/local/bin/remote_mount_tool"
CACHE_KEYS = ["is_cached", "cache_file_status", "cache_priority", "cache_upload_progress", "cache_folder_is_encypted",
              "cache_folder_is_locked", "cache_root_status", "upload_failed_count"]


@pytest.fixture(scope="module")
def cloud():
    """A running instance whose share is a cloud-cache mount.

    Byte 35 of a path, behind which the mount's root ends, is the slash behind the share; byte 20, where the arguments
    of the mount tool begin, lies within the share's name.
    """
    base = pathlib.Path(tempfile.mkdtemp(dir="/tmp", prefix="d-"))
    base.chmod(0o755)
    with fresh_instance() as instance:
        instance.share = base / "twenty-and-fifteen."
        assert len(str(instance.share)) == 35 and str(instance.share)[20:] == "ty-and-fifteen."
        instance.write_shares(("Cloud", instance.share, 1))
        yield instance.start()
    shutil.rmtree(base)


@pytest.fixture
def mount(cloud):
    """The mount, empty and without attributes, tool or snapshots."""
    make_folder(cloud.share)
    yield cloud
    shutil.rmtree(cloud.share)
    (cloud.root / TOOL.lstrip("/")).unlink(missing_ok=True)
    cloud.write_host("")


def states(reply):
    return {entry["filename"]: [entry[key] for key in CACHE_KEYS] for entry in reply["datas"]}


def set_state(path, **keys):
    os.setxattr(path, "user.cm.meta_status", json.dumps(keys).encode())


def test_entries_without_attributes(mount):
    make_file(mount.share / "file")
    make_folder(mount.share / "folder")
    assert states(mount.fetch()) == {"file": [1, 0, 0, 0, 0, 0, 2000, 0], "folder": [1, 0, 0, 0, 0, 0, 2000, 0]}


def test_entries_elsewhere_ask_for_nothing(make_instance):
    instance = make_instance()
    make_file(instance.share / "file")
    set_state(instance.share / "file", state="uploading", status_code=2000, upload_progress=42.9, priority="pin")
    instance.write_shares(("Cloud", instance.share, 2))
    instance.start()
    assert states(instance.fetch()) == {"file": [0, 0, 0, 0, 0, 0, 0, 0]}


@pytest.mark.parametrize("keys, status, priority, progress", [
    ({"state": "non-cached"}, 1, 0, 0),
    ({"state": "full-cached"}, 2, 0, 0),
    ({"state": "partial-cached"}, 3, 0, 0),
    ({"state": "downloading"}, 4, 0, 0),
    ({"state": "uploading"}, 5, 0, 0),
    ({"state": "error"}, 6, 0, 0),
    ({"state": "wait-for-uploading"}, 9, 0, 0),
    ({"state": "ignored"}, 10, 0, 0),
    ({"state": "nospace"}, 11, 0, 0),
    ({"state": "Uploading"}, -1, 0, 0),
    ({"state": 5}, 0, 0, 0),
    ({"priority": "pin"}, 0, 1, 0),
    ({"priority": "normal"}, 0, 2, 0),
    ({"priority": "low"}, 0, 3, 0),
    ({"priority": "urgent"}, 0, 2, 0),
    ({"priority": 1}, 0, 0, 0),
    ({"state": "uploading", "status_code": 2000, "upload_progress": 42.9}, 5, 0, 42),
    ({"state": "uploading", "status_code": 10000, "upload_progress": 99.99}, 5, 0, 99),
    ({"state": "uploading", "status_code": 2000, "upload_progress": 42}, 5, 0, 0),
    ({"state": "uploading", "status_code": 500, "upload_progress": 42.9}, 5, 0, 0),
    ({"state": "downloading", "status_code": 2000, "upload_progress": 42.9}, 4, 0, 0),
    ({"state": "uploading", "status_code": 4031, "upload_progress": 42.9, "priority": "low"}, 5, 3, 0),
])
def test_the_state_of_a_file(mount, keys, status, priority, progress):
    make_file(mount.share / "file")
    set_state(mount.share / "file", **keys)
    assert states(mount.fetch()) == {"file": [1, status, priority, progress, 0, 0, 2000, 0]}


@pytest.mark.parametrize("value", [b"", b"nonsense", b"[]", b'"text"', b"{", b"\xff", b"5"])
def test_a_state_that_is_no_object_counts_as_none(mount, value):
    make_file(mount.share / "file")
    os.setxattr(mount.share / "file", "user.cm.meta_status", value)
    assert states(mount.fetch()) == {"file": [1, 0, 0, 0, 0, 0, 2000, 0]}


def test_a_state_longer_than_its_buffer_counts_as_none(mount):
    for name, length in (("fits", 1000), ("too long", 1500)):
        make_file(mount.share / name)
        set_state(mount.share / name, state="downloading", msg="x" * length)
    set_state(mount.share / "fits", state="downloading", msg="x" * 900)
    assert states(mount.fetch()) == {"fits": [1, 4, 0, 0, 0, 0, 2000, 0], "too long": [1, 0, 0, 0, 0, 0, 2000, 0]}


@pytest.mark.parametrize("value, status", [
    (b'{"status": 0}', 0), (b'{"status": 4031, "msg": "x"}', 4031), (b'{"status": -7}', -7), (b'{"status": "1"}', -1),
    (b'{"status": 1.5}', -1), (b"{}", -1), (b"[]", -1), (b"nonsense", -1), (b"", -1),
    (b'{"status": 1, "msg": "' + b"x" * 600 + b'"}', -1),
])
def test_the_state_of_the_mount(mount, value, status):
    make_file(mount.share / "file")
    os.setxattr(mount.share, "user.cm.global_error", value)
    assert states(mount.fetch()) == {"file": [1, 0, 0, 0, 0, 0, status, 0]}


@pytest.mark.parametrize("value, count", [(b"7", 7), (b"-3", -3), (b" 12 files", 12), (b"none", 0), (b"", 0),
                                          (b"4294967297", 1)])
def test_the_count_of_failed_uploads(mount, value, count):
    make_file(mount.share / "file")
    os.setxattr(mount.share, "trusted.cm.failed_files_count", value)
    assert states(mount.fetch()) == {"file": [1, 0, 0, 0, 0, 0, 2000, count]}


def test_trusted_attributes_are_hidden_from_ordinary_session_users(mount, make_instance):
    make_file(mount.share / "file")
    os.setxattr(mount.share, "trusted.cm.failed_files_count", b"7")
    assert states(mount.fetch()) == {"file": [1, 0, 0, 0, 0, 0, 2000, 7]}
    instance = make_instance("nobody")
    instance.write_shares(("Cloud", mount.share, 1))
    instance.start()
    assert states(instance.fetch(mount.share)) == {"file": [1, 0, 0, 0, 0, 0, 2000, 0]}


def test_an_entry_too_short_for_the_cut_is_its_own_mount(make_instance):
    """A path without a slash behind byte 35 is taken whole."""
    instance = make_instance()
    folder = pathlib.Path(tempfile.mkdtemp(dir="/tmp", prefix="d-"))
    try:
        make_file(folder / "file")
        assert len(str(folder / "file")) < 35
        os.setxattr(folder / "file", "user.cm.global_error", b'{"status": 5}')
        instance.write_shares(("Cloud", folder, 1))
        instance.start()
        assert states(instance.fetch(folder)) == {"file": [1, 0, 0, 0, 0, 0, 5, 0]}
    finally:
        shutil.rmtree(folder)


# --- Encrypted folders ---


@pytest.mark.parametrize("status, locked", [(1, 0), (-2, -2), (0, 1), (2, 1), (-1, 1)])
def test_an_encrypted_folder(mount, status, locked):
    folder = make_folder(mount.share / "secret")
    make_folder(mount.share / "plain")
    make_file(mount.share / "file")
    notes = mount.root / "arguments"
    notes.unlink(missing_ok=True)
    answer = json.dumps({"data": {"encrypted_folder": str(folder), "status": status}})
    mount.write_program(TOOL, f"printf '[%s]' \"$@\" >>{notes}\necho >>{notes}\necho '{answer}'\n")
    reply = states(mount.fetch())
    assert reply == {"secret": [1, 0, 0, 0, 1, locked, 2000, 0], "plain": [1, 0, 0, 0, 0, 0, 2000, 0],
                     "file": [1, 0, 0, 0, 0, 0, 2000, 0]}
    assert sorted(notes.read_text().splitlines()) == [
        "[--func][get_encrypted_folder_runtime_status][ty-and-fifteen.][--uuid][plain]",
        "[--func][get_encrypted_folder_runtime_status][ty-and-fifteen.][--uuid][secret]"]


@pytest.mark.parametrize("script", [
    "true", "echo nonsense", "echo '[]'", "echo '{}'", "echo '{\"data\":5}'",
    "echo '{\"data\":{\"encrypted_folder\":\"@\"}}'", "echo '{\"data\":{\"encrypted_folder\":\"@\",\"status\":\"1\"}}'",
    "echo '{\"data\":{\"encrypted_folder\":5,\"status\":1}}'",
    "echo '{\"data\":{\"encrypted_folder\":\"@\",\"status\":1}}' >&2",
])
def test_an_answer_that_is_not_whole_leaves_a_folder_plain(mount, script):
    folder = make_folder(mount.share / "secret")
    mount.write_program(TOOL, script.replace("@", str(folder)) + "\n")
    assert states(mount.fetch()) == {"secret": [1, 0, 0, 0, 0, 0, 2000, 0]}


def test_without_the_tool_a_folder_is_plain(mount):
    make_folder(mount.share / "secret")
    assert states(mount.fetch()) == {"secret": [1, 0, 0, 0, 0, 0, 2000, 0]}


def test_a_path_too_short_for_the_tools_second_argument_gives_an_empty_one(make_instance):
    instance = make_instance()
    base = pathlib.Path(tempfile.mkdtemp(dir="/tmp", prefix="d-"))
    try:
        make_folder(base / "0123456789")
        assert len(str(base)) == 15
        notes = instance.root / "arguments"
        instance.write_program(TOOL, f"printf '[%s]' \"$@\" >{notes}\n")
        instance.write_shares(("Cloud", base, 1))
        instance.start()
        assert states(instance.fetch(base)) == {"0123456789": [1, 0, 0, 0, 0, 0, 2000, 0]}
        assert notes.read_text() == "[--func][get_encrypted_folder_runtime_status][456789][--uuid][]"
    finally:
        shutil.rmtree(base)


# --- Auto-tiering ---


def test_links_into_the_tiered_area_are_told(daemon, share):
    top = pathlib.Path("/share/external/.autotier")
    made = [folder for folder in (top, *top.parents) if not folder.exists()]
    top.mkdir(parents=True, exist_ok=True)
    area = pathlib.Path(tempfile.mkdtemp(dir=top, prefix="dirwell-test-"))
    try:
        make_file(area / "file")
        make_folder(area / "folder")
        make_link(share / "deep file", area / "file")
        make_link(share / "deep folder", area / "folder")
        make_link(share / "directly inside", area)
        make_link(share / "elsewhere", "/tmp")
        make_link(share / "dangling", area / "nothing")
        make_file(share / "no link")
        entries = {entry["filename"]: entry["is_autotier"] for entry in daemon.fetch(share)["datas"]}
    finally:
        shutil.rmtree(area)
        for folder in made:
            folder.rmdir()
    assert entries == {"deep file": 1, "deep folder": 1, "directly inside": 0, "elsewhere": 0, "dangling": 0,
                       "no link": 0}


# --- Snapshots ---


def test_snapshots_are_named(make_instance):
    instance = make_instance()
    inner = make_folder(instance.share / "inner")
    make_file(inner / "a")
    make_file(instance.share / "b")
    instance.write_host(f"[SNAPSHOT {instance.share}]\nvolume = 3\nid = 17\nmount = /mnt/snap 17\n"
                        f"[SNAPSHOT {inner}]\nvolume = 4\nid = 18\nmount = /mnt/x\n")
    instance.start()

    def snapshots(folder, alias):
        return [[entry.get(key) for key in ("snapshot_id", "snapshot_vol_id", "snapshot_mount_path")]
                for entry in instance.fetch((folder, alias))["datas"]]

    assert snapshots(instance.share, "/snapshot:1") == [[17, 3, "/mnt/snap 17"], [18, 4, "/mnt/x"]]
    assert snapshots(inner, "/snapshot_vault:x/y") == [[18, 4, "/mnt/x"]]
    assert list(instance.fetch((inner, "/snapshot:"))["datas"][0])[-4:] == [
        "upload_failed_count", "snapshot_id", "snapshot_vol_id", "snapshot_mount_path"]
    for alias in ("/Public", "/snapshot", "/snapshots:", "snapshot", "/mnt/snapshot/1", "/x/snapshot:"):
        assert snapshots(inner, alias) == [[None, None, None]], alias
    # A snapshot path that no snapshot is known for, or whose id is -1, names none.
    outside = make_folder(instance.root / "outside")
    make_file(outside / "a")
    assert snapshots(outside, "/snapshot:1") == [[None, None, None]]
    instance.write_host(f"[SNAPSHOT {instance.share}]\nvolume = 3\nid = -1\nmount = /mnt/x\n")
    assert snapshots(inner, "/snapshot:1") == [[None, None, None]]


def test_a_cloud_cache_mount_is_never_a_snapshot(mount):
    make_file(mount.share / "a")
    mount.write_host(f"[SNAPSHOT {mount.share}]\nvolume = 3\nid = 17\nmount = /mnt/x\n")
    assert "snapshot_id" not in mount.fetch((mount.share, "/snapshot:1"))["datas"][0]


def test_the_first_share_whose_path_is_a_prefix_decides(make_instance):
    instance = make_instance()
    public = make_folder(instance.root / "Public")
    make_file(public / "a")
    instance.start()
    pub = instance.root / "Pub"  # no folder of this name need exist

    def cached(*shares):
        instance.write_shares(*shares)
        return instance.fetch(public)["datas"][0]["is_cached"]

    assert cached(("Pub", pub, 1), ("Public", public, 0)) == 1
    assert cached(("Public", public, 0), ("Pub", pub, 1)) == 0
    assert cached(("Public", public, 1)) == 1
    assert cached(("homes", public, 1)) == 0
    assert cached(("printers", public, 1), ("print$", public, 1), ("global", public, 1)) == 0
    assert cached() == 0


def test_no_listing_of_a_mount_complains(mount):
    make_file(mount.share / "file")
    make_folder(mount.share / "folder")
    mount.fetch()
    assert {tag for tag, message in said(mount.lines()) if "be set" not in message} == {"I", "W"}
