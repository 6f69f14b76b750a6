"""Lasting caches as a client sees them: create, page, delete, watch, and what each answers."""

import re

import pytest

from harness.caches import (UNKNOWN, caching_instance, changed, create, database, delete, followed, heard, made, names,
                            outcome, page, places, wait_watched, watches)
from harness.instance import wait_until
from harness.tree import make_file, make_folder

SETTINGS = {"has_h265": 0, "medialib": 1, "rtt_support": 0, "medialib_enable": 0, "is_acl_enable": 0,
            "is_winacl_enable": 0, "is_winacl_support": 0}
ENTRY_KEYS = ["filename", "filepath", "filesize", "isfolder", "group", "owner", "privilege", "mt", "epochmt",
              "sticky_bit", "is_h265", "mp4_240", "mp4_360", "mp4_480", "mp4_720", "mp4_1080", "mp4_org", "mp3", "play",
              "has_thumbnail", "acl", "trans", "randno", "projection_type", "encrypt_folder", "is_link", "is_cached",
              "is_autotier", "cache_file_status", "cache_priority", "cache_upload_progress",
              "cache_folder_is_encypted", "cache_folder_is_locked", "cache_root_status", "upload_failed_count"]


@pytest.fixture(scope="module")
def daemon():
    with caching_instance() as instance:
        yield instance


@pytest.fixture(scope="module")
def many(daemon):
    """A folder of 60 files, named 00 to 59."""
    folder = make_folder(daemon.root / "many")
    for number in range(60):
        make_file(folder / f"{number:02d}", number)
    return folder


# --- The replies ---


def test_the_whole_reply_to_a_create(daemon, share):
    make_file(share / "b.txt")
    make_file(share / "a.txt")
    reply = create(daemon, share)
    assert list(reply) == ["cluster", "uuid", "total", "error_code", "error_message"]
    assert re.fullmatch(r"[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}", reply.pop("uuid"))
    assert reply == {"cluster": [{"value": "", "count": 2}], "total": 2, "error_code": 0, "error_message": ""}


def test_the_whole_reply_to_a_fetch(daemon, share):
    make_file(share / "b.txt", "hello", mode=0o640)
    make_folder(share / "a folder")
    uuid = made(daemon, (share, "/Some"))
    reply = page(daemon, uuid)
    assert list(reply) == ["datas", "total", "changed", *SETTINGS, "error_code", "error_message"]
    datas = reply.pop("datas")
    assert reply == {"total": 2, "changed": False, **SETTINGS, "error_code": 0, "error_message": ""}
    assert [list(entry) for entry in datas] == [ENTRY_KEYS, ENTRY_KEYS]
    assert [(entry["filename"], entry["filepath"], entry["isfolder"]) for entry in datas] == [
        ("a folder", "/Some/a folder", 1), ("b.txt", "/Some/b.txt", 0)]
    assert {key: datas[1][key] for key in ("filesize", "privilege", "mt", "epochmt", "owner", "group", "acl")} == {
        "filesize": 5, "privilege": "640", "mt": "2020-09-13 12:26:40", "epochmt": 1600000000, "owner": "root",
        "group": "root", "acl": 6}


def test_a_fetch_describes_entries_as_a_listing_does(daemon, share):
    for name in ("a.mp3", "b.jpg", "c"):
        make_file(share / name, name)
    make_folder(share / "sub")
    make_file(share / "sub" / "d")
    uuid = made(daemon, share, recursive=True)
    assert page(daemon, uuid)["datas"] == daemon.fetch(share, recursive=True)["datas"]


def test_the_replies_to_delete_and_watch_hold_the_outcome_alone(daemon, share):
    uuid = made(daemon, share)
    assert daemon.exchange("POST", "/watch", b"{}").body == b'{"error_code":0,"error_message":""}'
    body = b'{"uuid":"%s"}' % uuid.encode()
    assert daemon.exchange("POST", "/delete.cache", body).body == b'{"error_code":0,"error_message":""}'


def test_an_empty_listing_is_a_cache_all_the_same(daemon, share):
    reply = create(daemon, share)
    assert (reply["cluster"], reply["total"], reply["error_code"]) == ([], 0, 0)
    fetched = page(daemon, reply["uuid"])
    assert (fetched["datas"], fetched["total"], fetched["changed"], fetched["error_code"]) == ([], 0, False, 0)


def test_a_missing_folder_gives_an_empty_cache(daemon, share):
    uuid = made(daemon, share / "nowhere")
    assert names(page(daemon, uuid)) == []


def test_a_cache_is_what_was_listed_then(daemon, share):
    make_file(share / "a", "12345")
    make_file(share / "b")
    uuid = made(daemon, share)
    (share / "b").unlink()
    make_file(share / "c")
    make_file(share / "a", "1", mtime=5)
    fetched = page(daemon, uuid)
    assert [(entry["filename"], entry["filesize"]) for entry in fetched["datas"]] == [("a", 5), ("b", 0)]


def test_names_that_are_no_text_survive(daemon, share):
    name = bytes(share) + b"/\xffodd"
    with open(name, "wb"):
        pass
    fetched = page(daemon, made(daemon, share))
    assert names(fetched) == ["\ufffdodd"]
    assert fetched["datas"][0]["owner"] == "root"


# --- Pages ---


@pytest.mark.parametrize("keys, first, count", [
    ({}, 0, 60),
    ({"limit": 50}, 0, 50),
    ({"limit": 50, "offset": 50}, 50, 10),
    ({"limit": "50", "offset": "7"}, 7, 50),
    ({"limit": 50, "offset": 59}, 59, 1),
    ({"offset": 60}, 0, 0),
    ({"offset": 1_000_000}, 0, 0),
    ({"offset": -1}, 0, 60),
    ({"offset": -4_294_967_293}, 3, 57),  # 3 - 2^32
    ({"offset": 4_294_967_299}, 3, 57),  # 2^32 + 3
    ({"offset": 4_294_967_295}, 0, 60),  # -1 in 32 bits
    ({"offset": 2_147_483_648}, 0, 60),
    ({"offset": 2_147_483_647}, 0, 0),
    ({"limit": 2000, "offset": 1}, 1, 59),
])
def test_a_page_and_the_total_beside_it(daemon, many, keys, first, count):
    uuid = made(daemon, many)
    fetched = page(daemon, uuid, **keys)
    assert names(fetched) == [f"{number:02d}" for number in range(first, first + count)]
    assert fetched["total"] == 60


def test_pages_keep_the_order_of_the_listing(daemon, many):
    uuid = made(daemon, many, sort="size:desc")
    assert names(page(daemon, uuid, limit=50)) == [f"{number:02d}" for number in range(59, 9, -1)]
    assert names(page(daemon, uuid, limit=50, offset=50)) == [f"{number:02d}" for number in range(9, -1, -1)]


def test_the_limit_of_a_create_bounds_the_listing_itself(daemon, many):
    reply = create(daemon, many, limit=50)
    assert reply["total"] == 50
    assert page(daemon, reply["uuid"])["total"] == 50


def test_several_folders_and_their_aliases(daemon, share):
    one, two = make_folder(share / "1"), make_folder(share / "2")
    for path in (one / "b", two / "a", two / "c", one / "d"):
        make_file(path)
    uuid = made(daemon, (one, "/One"), (two, "/Two"))
    fetched = page(daemon, uuid)
    assert [entry["filepath"] for entry in fetched["datas"]] == ["/Two/a", "/One/b", "/Two/c", "/One/d"]
    assert fetched["total"] == 4


# --- Clusters ---


def test_clusters_are_summed_up_in_the_order_of_the_listing(daemon, share):
    for name in ("b1", "b2", "a", "c"):
        make_file(share / name)
    reply = create(daemon, share, cluster="name:desc", sort="name:asc")
    assert reply["cluster"] == [{"value": "c", "count": 1}, {"value": "b", "count": 2}, {"value": "a", "count": 1}]
    assert names(page(daemon, reply["uuid"])) == ["c", "b1", "b2", "a"]


# --- The two indexes ---


def test_the_indexes_are_independent(daemon, share):
    one, two = make_folder(share / "1"), make_folder(share / "2")
    make_file(one / "a")
    make_file(two / "b")
    first = made(daemon, one)
    second = made(daemon, two, index=2)
    assert names(page(daemon, first)) == names(page(daemon, first, index=1)) == ["a"]
    assert names(page(daemon, second, index="2")) == ["b"]
    assert outcome(page(daemon, first, index=2)) == (2, "invalid uuid")
    assert outcome(page(daemon, second)) == (2, "invalid uuid")
    assert outcome(delete(daemon, first, index=2)) == (3, "uuid not found")
    assert outcome(delete(daemon, first)) == (0, "")
    assert names(page(daemon, second, index=2)) == ["b"]


def test_a_new_cache_replaces_the_one_before(daemon, share):
    make_file(share / "a")
    old = made(daemon, share)
    new = made(daemon, share)
    assert old != new
    assert page(daemon, old) == {"error_code": 2, "error_message": "invalid uuid"}
    assert names(page(daemon, new)) == ["a"]


# --- Delete ---


def test_a_deleted_cache_is_gone_and_cannot_be_deleted_twice(daemon, share):
    make_file(share / "a")
    uuid = made(daemon, share)
    before = len(daemon.lines())
    assert delete(daemon, uuid) == {"error_code": 0, "error_message": ""}
    assert page(daemon, uuid) == {"error_code": 2, "error_message": "invalid uuid"}
    assert delete(daemon, uuid) == {"error_code": 3, "error_message": "uuid not found"}
    assert heard(daemon, before) == [("I", f"[cache] uuid {uuid} deleted"),
                                             ("W", f"[cache] uuid {uuid} invalid"),
                                             ("I", f"[cache] uuid {uuid} deleted")]
    assert database(daemon).exists()


def test_a_create_tells_its_database_and_its_uuid(daemon, share):
    before = len(daemon.lines())
    uuid = made(daemon, share, index=2)
    first, *rest = heard(daemon, before)
    assert first[0] == "D"
    assert re.fullmatch(r"\(cache:\d+\) \[cache\] initial db " + re.escape(str(database(daemon, 2))), first[1])
    assert rest == [("I", f"[cache] uuid {uuid} created")]


# --- Refusals ---


@pytest.mark.parametrize("endpoint", ["fetch.cache", "delete.cache"])
@pytest.mark.parametrize("uuid", [None, "", 7, True, UNKNOWN.upper().replace("0", "A"), "{" + UNKNOWN + "}",
                                  UNKNOWN.replace("-", ""), UNKNOWN + "\n", UNKNOWN[:-1], "x" * 36,
                                  "../../../etc/passwd"])
def test_what_is_no_uuid_is_refused(daemon, endpoint, uuid):
    request = {} if uuid is None else {"uuid": uuid}
    before = len(daemon.lines())
    assert daemon.call(endpoint, request) == {"error_code": 2, "error_message": "invalid uuid"}
    assert heard(daemon, before) == []  # no cache was looked at


def test_an_unknown_uuid(daemon, share):
    made(daemon, share)
    assert page(daemon, UNKNOWN) == {"error_code": 2, "error_message": "invalid uuid"}
    assert delete(daemon, UNKNOWN) == {"error_code": 3, "error_message": "uuid not found"}


@pytest.mark.parametrize("index", [0, 3, -1, "0", "3", "x", None, [], 1.0, False, 4_294_967_297])
def test_an_index_is_one_or_two(daemon, share, index):
    refused = {"error_code": 2, "error_message": "invalid index"}
    assert create(daemon, share, index=index) == refused
    assert page(daemon, UNKNOWN, index=index) == refused
    assert delete(daemon, UNKNOWN, index=index) == refused
    assert daemon.call("watch", {"index": index}) == refused


@pytest.mark.parametrize("limit", [49, 2001, 0, -1, "49", True, None, 4_294_967_396])
def test_a_limit_lies_between_50_and_2000(daemon, share, limit):
    refused = {"error_code": 2, "error_message": "invalid limit"}
    assert page(daemon, UNKNOWN, limit=limit) == refused
    assert create(daemon, share, limit=limit) == refused


def test_the_first_refusal_counts(daemon):
    assert outcome(page(daemon, "x", limit=1, index=9)) == (2, "invalid uuid")
    assert outcome(page(daemon, UNKNOWN, limit=1, index=9)) == (2, "invalid limit")
    assert outcome(delete(daemon, "x", index=9)) == (2, "invalid uuid")
    assert outcome(daemon.call("create.cache", {"index": 9})) == (2, "invalid index")
    assert outcome(daemon.call("create.cache", {"limit": 9})) == (2, "invalid limit")


@pytest.mark.parametrize("request_object, message", [
    ({}, "invalid path"),
    ({"path": "/x"}, "invalid path type"),
    ({"path": ["/x"]}, "invalid path array item"),
    ({"path": [{"alias": "/x"}]}, "invalid full_path object format"),
    ({"path": [{"full_path": "/x"}]}, "invalid alias object format"),
    ({"path": [], "lang": "EN"}, "invalid lang"),
    ({"path": [], "sort": "colour"}, "invalid sort"),
    ({"path": [], "cluster": True}, "invalid cluster"),
])
def test_a_refused_create_leaves_the_cache_before_it(daemon, share, request_object, message):
    make_file(share / "a")
    uuid = followed(daemon, share)
    watching = watches(daemon, 1)
    assert daemon.call("create.cache", request_object) == {"error_code": 2, "error_message": message}
    assert names(page(daemon, uuid)) == ["a"]
    assert watches(daemon, 1) == watching


def test_parameters_of_the_bus_count_before_the_body(daemon, share):
    make_file(share / "a")
    uuid = daemon.call("create.cache", {"path": places(share), "index": 1}, query="?index=2")["uuid"]
    assert names(daemon.call("fetch.cache", b"no JSON", query=f"?uuid={uuid}&index=2")) == ["a"]
    assert outcome(daemon.call("delete.cache", {"uuid": UNKNOWN}, query=f"?uuid={uuid}&index=2")) == (0, "")
    assert outcome(daemon.call("watch", {"index": 1}, query="?index=3")) == (2, "invalid index")


# --- The order of reply and watch ---


def test_the_reply_to_a_create_does_not_wait_for_the_watch(daemon, share):
    """The daemon cannot be reached any more once the request runs: the reply is the same, and nothing is watched."""
    make_file(share / "a")
    other = make_folder(share / "other")
    make_file(other / "b")
    followed(daemon, share)  # nothing changes in it from here on
    watching = watches(daemon, 1)
    connection = daemon.connection()
    aside = daemon.socket.with_name("aside")
    try:
        connection.connect()
        daemon.socket.rename(aside)
        connection.request("POST", "/create.cache", body=b'{"path":[{"full_path":"%s","alias":"/O"}]}' % bytes(other))
        body = connection.getresponse().read()
        assert re.fullmatch(rb'\{"cluster":\[\{"value":"","count":1\}\],"uuid":"([0-9a-f-]{36})","total":1,"error_code":0,'
                            rb'"error_message":""\}', body)
        # The process asks for the watch behind its reply, so the way back is given only once it has ended.
        assert wait_until(lambda: not daemon.request_processes())
    finally:
        connection.close()
        aside.rename(daemon.socket)
    uuid = body[body.index(b'"uuid"') + 8:][:36].decode()
    assert watches(daemon, 1) == watching
    assert names(page(daemon, uuid)) == ["b"] and changed(daemon, uuid) is False
    # The watch endpoint makes up for it.
    assert outcome(daemon.call("watch")) == (0, "")
    wait_watched(daemon, 1, other, instead_of=watching)
