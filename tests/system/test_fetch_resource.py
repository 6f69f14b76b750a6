"""Listing a folder: the whole reply, paging, and where entries come from."""

import os
import pathlib
import shutil
import tempfile
import time

import pytest

from harness.tree import WHEN, make_file, make_folder, make_link

REPLY_KEYS = ["cluster", "uuid", "datas", "total", "changed", "has_h265", "medialib", "rtt_support", "medialib_enable",
              "is_acl_enable", "is_winacl_enable", "is_winacl_support", "error_code", "error_message"]

ENTRY_KEYS = ["filename", "filepath", "filesize", "isfolder", "group", "owner", "privilege", "mt", "epochmt",
              "sticky_bit", "is_h265", "mp4_240", "mp4_360", "mp4_480", "mp4_720", "mp4_1080", "mp4_org", "mp3", "play",
              "has_thumbnail", "acl", "trans", "randno", "projection_type", "encrypt_folder", "is_link", "is_cached",
              "is_autotier", "cache_file_status", "cache_priority", "cache_upload_progress",
              "cache_folder_is_encypted", "cache_folder_is_locked", "cache_root_status", "upload_failed_count"]

PLAIN = {"isfolder": 0, "group": "root", "owner": "root", "privilege": "644", "mt": "2020-09-13 12:26:40",
         "epochmt": 1600000000, "sticky_bit": 0, "is_h265": 0, "mp4_240": 0, "mp4_360": 0, "mp4_480": 0, "mp4_720": 0,
         "mp4_1080": 0, "mp4_org": 0, "mp3": 0, "play": 1, "has_thumbnail": 0, "acl": 6, "trans": 0,
         "projection_type": 0, "encrypt_folder": 0, "is_link": 0, "is_cached": 0, "is_autotier": 0,
         "cache_file_status": 0, "cache_priority": 0, "cache_upload_progress": 0, "cache_folder_is_encypted": 0,
         "cache_folder_is_locked": 0, "cache_root_status": 0, "upload_failed_count": 0}


# --- The reply ---


def test_the_whole_reply_object(daemon, share):
    make_file(share / "b.txt", "hello")
    make_folder(share / "a folder", mode=0o1777)
    folder_size = (share / "a folder").stat().st_size
    reply = daemon.fetch((share, "/Some"))
    uuid = reply["uuid"]
    assert list(reply) == REPLY_KEYS
    assert [list(entry) for entry in reply["datas"]] == [ENTRY_KEYS, ENTRY_KEYS]
    assert reply == {
        "cluster": [{"value": "", "count": 2}],
        "uuid": uuid,
        "datas": [
            {**PLAIN, "filename": "a folder", "filepath": "/Some/a folder", "filesize": folder_size, "isfolder": 1,
             "privilege": "777", "acl": 7, "randno": f"{folder_size}1600000000"},
            {**PLAIN, "filename": "b.txt", "filepath": "/Some/b.txt", "filesize": 5, "randno": "51600000000"},
        ],
        "total": 2, "changed": False, "has_h265": 0, "medialib": 1, "rtt_support": 0, "medialib_enable": 0,
        "is_acl_enable": 0, "is_winacl_enable": 0, "is_winacl_support": 0, "error_code": 0, "error_message": "",
    }
    assert len(uuid) == 36 and [len(piece) for piece in uuid.split("-")] == [8, 4, 4, 4, 12]
    assert set(uuid) <= set("0123456789abcdef-")


def test_the_reply_is_compact_and_escapes_slashes(daemon, share):
    make_file(share / "a")
    body = daemon.exchange("POST", "/fetch.resource",
                           b'{"path":[{"full_path":"%s","alias":"/x"}]}' % str(share).encode()).body
    assert b'"filepath":"\\/x\\/a"' in body
    assert b'"changed":false,"has_h265":0' in body
    assert b": " not in body.replace(b"2020-09-13 12:26:40", b"")


def test_each_reply_has_a_uuid_of_its_own(daemon, share):
    assert len({daemon.fetch(share)["uuid"] for _ in range(5)}) == 5


def test_an_empty_folder(daemon, share):
    reply = daemon.fetch(share)
    assert list(reply) == REPLY_KEYS
    assert (reply["datas"], reply["total"], reply["cluster"], reply["changed"]) == ([], 0, [], False)


def test_settings_come_from_the_machine(make_instance):
    instance = make_instance()
    instance.start()
    keys = REPLY_KEYS[5:12]

    def settings():
        reply = instance.fetch()
        return [reply[key] for key in keys]

    assert settings() == [0, 1, 0, 0, 0, 0, 0]
    instance.write("var/.application.conf", "[DISABLE]\nmediaLibrary = 1\n")
    instance.write_host("[ACL]\nenable = 1\nwin_enable = 1\n[MEDIA]\nrealtime_transcoding = 1\n")
    assert settings() == [0, 0, 1, 0, 1, 1, 0]
    instance.write("var/.application.conf", "[DISABLE]\nmediaLibrary = 0\n")
    instance.write_host("[acl]\nRICH = 1\nwin_support = 1\n[media]\nlibrary = 1\n")
    assert settings() == [0, 1, 0, 1, 1, 0, 1]


def test_links_are_described_by_what_they_lead_to(daemon, share):
    make_file(share / "target.txt", "0123456789")
    folder = make_folder(share / "sub")
    make_link(share / "to file", "target.txt", mtime=5)
    make_link(share / "to folder", "sub")
    make_link(share / "to nothing", "nowhere")
    by_name = {entry["filename"]: entry for entry in daemon.fetch(share)["datas"]}
    assert by_name["to file"] == {**PLAIN, "filename": "to file", "filepath": "/Share/to file", "filesize": 10,
                                  "privilege": "777", "mt": "1970-01-01 00:00:05", "epochmt": 5, "is_link": 1,
                                  "randno": "105"}  # the link's own size and time
    assert by_name["to folder"] == {**PLAIN, "filename": "to folder", "filepath": "/Share/to folder",
                                    "filesize": folder.stat().st_size, "isfolder": 1, "privilege": "777", "acl": 7,
                                    "is_link": 1, "randno": "31600000000"}
    assert by_name["to nothing"] == {**PLAIN, "filename": "to nothing", "filepath": "/Share/to nothing", "filesize": 0,
                                     "privilege": "777", "acl": 0, "is_link": 1, "randno": "71600000000"}


def test_the_text_that_names_a_version_is_size_and_time_side_by_side(daemon, share):
    make_file(share / "empty", b"", mtime=5)
    make_file(share / "full", 1024)
    assert [entry["randno"] for entry in daemon.fetch(share)["datas"]] == ["05", "10241600000000"]


def test_permission_bits_are_shown_without_the_special_ones(daemon, share):
    for mode in (0o000, 0o007, 0o4755, 0o2640, 0o1777):
        make_file(share / f"{mode:04o}", mode=mode)
    assert [entry["privilege"] for entry in daemon.fetch(share)["datas"]] == ["000", "007", "777", "640", "755"]


def test_owner_and_group_are_names_or_three_hyphens(daemon, share):
    make_file(share / "a", uid=65534, gid=65534)
    make_file(share / "b", uid=1, gid=1)
    make_file(share / "c", uid=3_000_000_001, gid=3_000_000_002)
    entries = daemon.fetch(share)["datas"]
    assert [(entry["owner"], entry["group"]) for entry in entries] == [
        ("nobody", "nogroup"), ("daemon", "daemon"), ("---", "---")]


@pytest.mark.parametrize("zone, text", [
    ("UTC0", "2020-09-13 12:26:40"),
    ("XXX-5:30", "2020-09-13 17:56:40"),
    ("XXX8", "2020-09-13 04:26:40"),
    ("EST5EDT,M3.2.0,M11.1.0", "2020-09-13 08:26:40"),  # the clock of the wall, daylight saving included
])
def test_times_are_shown_in_local_time(instance, zone, text):
    make_file(instance.share / "a")
    instance.start(TZ=zone)
    assert instance.fetch()["datas"][0]["mt"] == text
    assert instance.fetch()["datas"][0]["epochmt"] == WHEN


def test_times_before_1970(daemon, share):
    make_file(share / "a", mtime=-86401)
    entry = daemon.fetch(share)["datas"][0]
    assert (entry["mt"], entry["epochmt"], entry["randno"]) == ("1969-12-30 23:59:59", -86401, "0-86401")


def test_times_that_have_no_text_leave_it_empty(daemon):
    """A file system in memory keeps times that others do not."""
    times = {"last": 253402300799, "first without": 253402300800, "beyond any year": 2**58}
    folder = pathlib.Path(tempfile.mkdtemp(dir="/dev/shm"))
    try:
        for name, when in times.items():
            make_file(folder / name, mtime=when)
            assert os.stat(folder / name).st_mtime_ns // 10**9 == when
        reply = daemon.fetch(folder, sort="date")
        grouped = daemon.fetch(folder, cluster="date", date=[">=288230376151711744"])
    finally:
        shutil.rmtree(folder)
    assert [(e["filename"], e["mt"], e["epochmt"]) for e in reply["datas"]] == [
        ("last", "9999-12-31 23:59:59", 253402300799), ("first without", "", 253402300800),
        ("beyond any year", "", 288230376151711744)]
    assert grouped["cluster"] == [{"value": "", "count": 1}]


# --- Requests that are no objects, and parameters over them ---


@pytest.mark.parametrize("body", [b"", b"nonsense", b"[]", b'[{"path":[]}]', b'"text"', b"5", b"null", b"true",
                                  b'{"path":', b"\xff\xfe", b"\0\0\0", b'{"path":[]} trailing', b"[" * 5000])
def test_a_body_that_is_no_object_runs_with_the_bus_parameters_alone(daemon, body):
    assert daemon.call("fetch.resource", body) == {"error_code": 2, "error_message": "invalid path"}
    assert daemon.call("fetch.resource", body, "?path=x") == {"error_code": 2, "error_message": "invalid path type"}


def test_a_bus_parameter_wins_over_a_key_of_the_body(daemon, share):
    for name in ("one", "two", ".three"):
        make_file(share / name)
    request = {"path": [{"full_path": str(share), "alias": "/S"}], "name": "one", "hidden": True}
    assert [e["filename"] for e in daemon.call("fetch.resource", request)["datas"]] == ["one"]
    reply = daemon.call("fetch.resource", request, "?name=t*")
    assert [e["filename"] for e in reply["datas"]] == ["two"]
    reply = daemon.call("fetch.resource", request, "?name=*&hidden=0&sort=name:desc")
    assert [e["filename"] for e in reply["datas"]] == [".three", "two", "one"]


# --- Errors: each text to the letter, and nothing beside it ---

PATH = [{"full_path": "/nonexistent-folder", "alias": "/x"}]


@pytest.mark.parametrize("request_object, message", [
    ({}, "invalid path"),
    ({"path": "text"}, "invalid path type"),
    ({"path": {}}, "invalid path type"),
    ({"path": None}, "invalid path type"),
    ({"path": ["text"]}, "invalid path array item"),
    ({"path": PATH + [5]}, "invalid path array item"),
    ({"path": [{}]}, "invalid full_path object format"),
    ({"path": [{"full_path": 5, "alias": "/x"}]}, "invalid full_path object format"),
    ({"path": [{"alias": "/x"}]}, "invalid full_path object format"),
    ({"path": [{"full_path": "/x"}]}, "invalid alias object format"),
    ({"path": [{"full_path": "/x", "alias": []}]}, "invalid alias object format"),
    ({"path": PATH, "limit": 49}, "invalid limit"),
    ({"path": PATH, "limit": 2001}, "invalid limit"),
    ({"path": PATH, "limit": "49"}, "invalid limit"),
    ({"path": PATH, "limit": "many"}, "invalid limit"),
    ({"path": PATH, "limit": True}, "invalid limit"),
    ({"path": PATH, "limit": None}, "invalid limit"),
    ({"path": PATH, "limit": 100.0}, "invalid limit"),
    ({"path": PATH, "lang": "EN"}, "invalid lang"),
    ({"path": PATH, "lang": "ENGL"}, "invalid lang"),
    ({"path": PATH, "lang": ""}, "invalid lang"),
    ({"path": PATH, "lang": 5}, "invalid lang"),
    ({"path": PATH, "name": 5}, "invalid name"),
    ({"path": PATH, "name": ["a"]}, "invalid name"),
    ({"path": PATH, "type": 5}, "invalid type"),
    ({"path": PATH, "type": "Music"}, "invalid type"),
    ({"path": PATH, "type": "document"}, "invalid type"),
    ({"path": PATH, "type": "music:"}, "invalid type"),
    ({"path": PATH, "type": "music "}, "invalid type"),
    ({"path": PATH, "date": ">=5"}, "invalid date"),
    ({"path": PATH, "date": [5]}, "invalid date"),
    ({"path": PATH, "date": ["5"]}, "invalid date"),
    ({"path": PATH, "date": [">=5", "!=5"]}, "invalid date"),
    ({"path": PATH, "date": [">=-5"]}, "invalid date"),
    ({"path": PATH, "size": 10}, "invalid size"),
    ({"path": PATH, "size": "10K"}, "invalid size"),
    ({"path": PATH, "size": "!=5"}, "invalid size"),
    ({"path": PATH, "size": "=5"}, "invalid size"),
    ({"path": PATH, "size": ">=10k"}, "invalid size"),
    ({"path": PATH, "size": ">=10KB"}, "invalid size"),
    ({"path": PATH, "size": [">=10"]}, "invalid size"),
    ({"path": PATH, "owner": 0}, "invalid owner"),
    ({"path": PATH, "owner": "no-such-account-here"}, "invalid owner"),
    ({"path": PATH, "owner": ""}, "invalid owner"),
    ({"path": PATH, "group": 0}, "invalid group"),
    ({"path": PATH, "group": "no-such-group-here"}, "invalid group"),
    ({"path": PATH, "sort": 5}, "invalid sort"),
    ({"path": PATH, "sort": "Name"}, "invalid sort"),
    ({"path": PATH, "sort": "name:"}, "invalid sort"),
    ({"path": PATH, "sort": "name:up"}, "invalid sort"),
    ({"path": PATH, "sort": "colour:asc"}, "invalid sort"),
    ({"path": PATH, "cluster": True}, "invalid cluster"),
    ({"path": PATH, "cluster": "none"}, "invalid cluster"),
    ({"path": PATH, "cluster": "name:DESC"}, "invalid cluster"),
])
def test_a_bad_parameter_is_named_and_nothing_else_is_replied(daemon, request_object, message):
    assert daemon.call("fetch.resource", request_object) == {"error_code": 2, "error_message": message}


def test_the_first_bad_parameter_is_the_one_that_is_named(daemon):
    bad = {"limit": 1, "lang": "xx", "path": "x", "name": 1, "type": 1, "date": 1, "size": 1, "owner": 1, "group": 1,
           "sort": 1, "cluster": 1}
    for key, good in (("limit", 50), ("lang", "ENG"), ("path", PATH), ("name", "*"), ("type", "file"), ("date", []),
                      ("size", ">1"), ("owner", "root"), ("group", "root"), ("sort", "name"), ("cluster", "name")):
        reply = daemon.call("fetch.resource", bad)
        expected = "invalid path type" if key == "path" else f"invalid {key}"
        assert reply == {"error_code": 2, "error_message": expected}
        bad[key] = good
    assert daemon.call("fetch.resource", bad)["error_code"] == 0


@pytest.mark.parametrize("keys", [{"uuid": "nonsense"}, {"index": 9}, {"reach_limit": 1}, {"offset": "x"},
                                  {"reach_time": []}, {"recursive": {}}, {"unknown": 1}, {"type": "music:xyz"},
                                  {"date": []}, {"lang": "eng"}, {"lang": "Fre"}, {"limit": "100"}, {"limit": 50},
                                  {"limit": 2000}])
def test_what_is_no_error(daemon, share, keys):
    make_file(share / "song.mp3")
    assert daemon.names(share, **keys) == ["song.mp3"]


# --- Roots ---


def test_no_roots_give_an_empty_listing(daemon):
    reply = daemon.call("fetch.resource", {"path": []})
    assert (reply["error_code"], reply["datas"], reply["total"], reply["cluster"]) == (0, [], 0, [])


def test_a_missing_folder_gives_an_empty_listing(daemon, share):
    reply = daemon.fetch(share / "none")
    assert (reply["error_code"], reply["error_message"], reply["datas"], reply["total"]) == (0, "", [], 0)


def test_a_file_in_place_of_a_folder_gives_an_empty_listing(daemon, share):
    assert daemon.names(make_file(share / "file")) == []


def test_several_roots_are_listed_as_one(daemon, share):
    first, second = make_folder(share / "1"), make_folder(share / "2")
    make_file(first / "b")
    make_file(second / "a")
    make_file(second / "c")
    reply = daemon.fetch((first, "/One"), (second, "/Two"))
    assert [entry["filepath"] for entry in reply["datas"]] == ["/Two/a", "/One/b", "/Two/c"]


def test_a_missing_second_root_leaves_the_first_unsorted(daemon, share):
    for n in range(40):
        make_file(share / f"{n * 7919 % 1000:03}")
    in_folder_order = os.listdir(share)
    assert in_folder_order != sorted(in_folder_order)
    assert daemon.names(share, share / "none") == in_folder_order
    assert daemon.names(share) == sorted(in_folder_order)


def test_the_listing_ends_at_a_missing_root(daemon, share):
    make_file(share / "a")
    assert daemon.names(share / "none", share) == []


def test_an_alias_may_be_empty_or_relative(daemon, share):
    make_file(share / "a")
    assert [e["filepath"] for e in daemon.fetch((share, ""))["datas"]] == ["/a"]
    assert [e["filepath"] for e in daemon.fetch((share, "Public/x"))["datas"]] == ["/Public/x/a"]
    assert [e["filepath"] for e in daemon.fetch((share, "/x/"))["datas"]] == ["/x//a"]


def test_recursion_reads_breadth_first_but_never_through_links(daemon, share):
    sub = make_folder(share / "sub")
    make_file(sub / "inner")
    deep = make_folder(sub / "deep")
    make_file(deep / "innermost")
    make_link(share / "link", "sub")
    reply = daemon.fetch(share, recursive=True)
    assert [entry["filepath"] for entry in reply["datas"]] == [
        "/Share/sub/deep", "/Share/sub/inner", "/Share/sub/deep/innermost", "/Share/link", "/Share/sub"]
    assert daemon.names(share, recursive=False) == ["link", "sub"]
    for value, count in ((1, 5), (0, 2), ("true", 5), ("TRUE", 5), ("1", 2), (-1, 2), ([], 2), (None, 2)):
        assert len(daemon.names(share, recursive=value)) == count, value


def test_folders_that_are_left_out_are_still_searched(daemon, share):
    hidden = make_folder(share / ".hidden")
    make_file(hidden / "found")
    make_file(hidden / ".not found")
    assert daemon.names(share, recursive=True) == ["found"]
    assert daemon.names(share, recursive=True, type="file") == ["found"]


@pytest.mark.parametrize("value, shown", [(True, False), (1, False), (-1, False), ("1", False), (False, True), (0, True),
                                          ("0", True), ("yes", True), ("", True), (None, True), ([], True)])
def test_hidden_entries(daemon, share, value, shown):
    for name in (".git", "desktop.ini", "Desktop.ini", "$Recycle.Bin", "System Volume Information", "plain"):
        make_file(share / name)
    everything = [".git", "$Recycle.Bin", "desktop.ini", "Desktop.ini", "plain", "System Volume Information"]
    assert daemon.names(share, hidden=value) == (everything if shown else ["Desktop.ini", "plain"])
    assert daemon.names(share) == ["Desktop.ini", "plain"]


# --- Paging and bounds ---


def test_paging(daemon, share):
    for n in range(700):
        make_file(share / f"file{n}")
    reply = daemon.fetch(share)
    assert ([e["filename"] for e in reply["datas"]], reply["total"]) == ([f"file{n}" for n in range(500)], 700)
    reply = daemon.fetch(share, offset=650)
    assert ([e["filename"] for e in reply["datas"]], reply["total"]) == ([f"file{n}" for n in range(650, 700)], 700)
    reply = daemon.fetch(share, offset="698")
    assert [e["filename"] for e in reply["datas"]] == ["file698", "file699"]
    reply = daemon.fetch(share, offset=700)
    assert (reply["datas"], reply["total"], reply["cluster"]) == ([], 700, [{"value": "", "count": 700}])
    assert len(daemon.fetch(share, offset=-5)["datas"]) == 500


def test_a_limit_bounds_the_page_and_the_entries_read(daemon, share):
    for n in range(100):
        make_file(share / f"{n:03}")
    reply = daemon.fetch(share, limit=60)
    names = [e["filename"] for e in reply["datas"]]
    assert (len(names), reply["total"], reply["cluster"]) == (60, 60, [{"value": "", "count": 60}])
    assert names == sorted(os.listdir(share)[:60])
    assert len(daemon.names(share, limit=60, reach_limit=10)) == 60


def test_a_deadline_ends_the_reading(daemon, share):
    for n in range(500):
        make_file(share / f"{n}")
    roots = [(share, "/S")] * 8000  # far more than one or two seconds of reading
    begin = time.monotonic()
    reply = daemon.fetch(*roots, reach_time=1, name="nothing like it")
    seconds = time.monotonic() - begin
    assert (reply["error_code"], reply["datas"]) == (0, [])
    assert 0.9 <= seconds <= 3.5


# --- Names ---


def test_a_listing_of_every_kind_of_file(daemon, share):
    make_file(share / "file")
    make_folder(share / "folder")
    make_link(share / "link", "file")
    os.mkfifo(share / "pipe")
    os.mknod(share / "block", 0o600 | 0o060000, os.makedev(7, 200))
    os.mknod(share / "character", 0o600 | 0o020000, os.makedev(1, 3))
    import socket
    unix = socket.socket(socket.AF_UNIX)
    unix.bind(str(share / "socket"))
    unix.close()
    assert daemon.names(share) == ["block", "character", "file", "folder", "link", "pipe", "socket"]
    # Both masks ask for any bit in common.
    assert daemon.names(share, type="file") == ["file", "link", "socket"]
    assert daemon.names(share, type="folder") == ["block", "folder", "socket"]


def test_names_that_are_no_utf8_are_listed_with_replacement_characters(daemon, share):
    base = os.fsencode(share)
    for name in (b"\xff\xfe", b"a\xe9b", b"cut\xe2\x82", b"\xed\xa0\x80", b"\xc0\xaf", b"ok\xc3\xa9"):
        make_file(base + b"/" + name, "x")
    reply = daemon.fetch(share, cluster="name")
    shown = {entry["filename"]: entry for entry in reply["datas"]}
    assert set(shown) == {"��", "a�b", "cut�", "���", "��", "oké"} or set(shown) == {
        "��", "a�b", "cut�", "���", "oké"}
    assert reply["total"] == 6 and len(reply["datas"]) == 6
    for entry in reply["datas"]:
        assert entry["filepath"] == "/Share/" + entry["filename"]
        assert (entry["filesize"], entry["acl"]) == (1, 6)  # the file behind the name was reached


def test_control_characters_and_quotes_in_names_are_escaped(daemon, share):
    names = ["line\nfeed", "tab\there", "quote\"s", "back\\slash", "\x01\x1f", "del\x7f", "\u2028", "\U0001f600"]
    for name in names:
        make_file(share / name)
    assert sorted(daemon.names(share)) == sorted(names)


def test_names_of_the_greatest_length(daemon, share):
    names = ["x" * 255, "é" * 127, "😀" * 63]
    for name in names:
        make_file(share / name)
    assert sorted(daemon.names(share)) == sorted(names)


def test_a_root_deeper_than_a_path_may_be_gives_an_empty_listing(daemon):
    reply = daemon.fetch("/" + "d/" * 5000)
    assert (reply["error_code"], reply["datas"]) == (0, [])


def test_a_root_with_a_zero_byte_is_no_text(daemon, share):
    make_file(share / "a")
    body = b'{"path":[{"full_path":"%s\\u0000/x","alias":"/x"}]}' % str(share).encode()
    assert daemon.call("fetch.resource", body) == {"error_code": 2, "error_message": "invalid path"}


# --- Vetoed names ---


def veto_of(share, count):
    """A list of that many bytes whose last pattern is the only one that matters."""
    last = b"/last.*/"
    filler = b"/pattern-%04d"
    value = b"".join(filler % n for n in range(count // 13 + 1))
    return value[:count - len(last)] + last


def test_vetoed_names_are_neither_listed_nor_searched(make_instance):
    instance = make_instance()
    for name in (".DS_Store", ".ds_store", "a.tmp", "b.txt", "back\\slash"):
        make_file(instance.share / name)
    make_file(make_folder(instance.share / "lost+found") / "inside")
    make_file(make_folder(instance.share / "folder") / "c.tmp")
    instance.start()
    assert sorted(instance.names(hidden=0, recursive=True)) == [
        ".DS_Store", ".ds_store", "a.tmp", "b.txt", "back\\slash", "c.tmp", "folder", "inside", "lost+found"]
    instance.write_veto("/.DS_Store/lost+found/*.tmp/")
    assert sorted(instance.names(hidden=0, recursive=True)) == [".ds_store", "b.txt", "back\\slash", "folder"]
    # A changed list counts from the next listing on; slashes at the ends may be missing or doubled.
    instance.write_veto("b.???//back\\s*")
    assert sorted(instance.names(type="file")) == ["a.tmp"]
    instance.write_veto("")
    assert len(instance.names(hidden=0, recursive=True)) == 9


def test_a_veto_list_of_4000_bytes_is_read_whole(make_instance):
    instance = make_instance()
    make_file(instance.share / "last.txt")
    make_file(instance.share / "kept")
    instance.start()
    value = veto_of(instance.share, 4000)
    assert len(value) == 4000
    instance.write_veto(value)
    assert instance.names() == ["kept"]
    # The buffer holds 4,095 bytes of it: what lies beyond is cut.
    value = veto_of(instance.share, 4103)
    assert value[4095:] == b"/last.*/"
    instance.write_veto(value)
    assert instance.names() == ["kept", "last.txt"]


def test_veto_patterns_are_bytes(make_instance):
    instance = make_instance()
    make_file(os.fsencode(instance.share) + b"/bad\xff")
    make_file(instance.share / "é")
    make_file(instance.share / "ab")
    instance.write_veto(b"/bad\xff/")
    instance.start()
    assert instance.names() == ["ab", "é"]
    instance.write_veto(b"/??/")  # two bytes, which é is
    assert instance.names() == ["bad�"]
