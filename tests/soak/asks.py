"""What the clients ask, and what they hold each reply to."""

import dataclasses
import json
import random
import threading
import typing

from chronicle import PROCESSES, TOOLS

ALIAS = "/Share"
ENDPOINTS = "watch\nfetch.cache\ndelete.cache\ncreate.cache\nfetch.resource\n"
UNKNOWN = "00000000-0000-4000-8000-000000000000"  # a uuid in form that no listing has
DONE = {"error_code": 0, "error_message": ""}
INVALID_UUID = {"error_code": 2, "error_message": "invalid uuid"}
NOT_FOUND = {"error_code": 3, "error_message": "uuid not found"}
BUSY = {"error_code": 3, "error_message": "cache failure"}
NUMBERED = [f"n{number:03d}.dat" for number in range(700)]
LEAVES = [f"leaf {branch}{number:02d}.txt" for branch in "abcde" for number in range(20)]

# How a reply turned out, for the table.
EXACT = "exact"  # the very reply that is due
POSSIBLE = "possible"  # one of those that the changes at the time allow
REFUSED = "refused"  # the very refusal that is due
CONTENDED = "contended"  # a cache that another client has replaced or holds


@dataclasses.dataclass
class Ask:
    label: str
    body: bytes = b""
    method: str = "POST"
    target: str = ""
    extra: bytes = b""  # header lines
    check: typing.Callable = None  # of a reply and the span of the request; returns the outcome
    closes: bool = False  # the service ends the connection after its answer

    def wire(self, close=False, chunks=None):
        """The bytes of the request; its body in chunks that end at the given places, where there are any."""
        head = f"{self.method} {self.target or '/' + self.label} HTTP/1.1\r\nHost: localhost\r\n".encode() + self.extra
        if close:
            head += b"Connection: close\r\n"
        if chunks is None:
            length = b"Content-Length: %d\r\n" % len(self.body) if self.method == "POST" else b""
            return head + length + b"\r\n" + self.body
        places = [0, *sorted(chunks), len(self.body)]
        pieces = [self.body[begin:end] for begin, end in zip(places, places[1:]) if begin < end]
        return (head + b"Transfer-Encoding: chunked\r\n\r\n"
                + b"".join(b"%x\r\n%s\r\n" % (len(piece), piece) for piece in pieces) + b"0\r\n\r\n")


def same(found, due):
    """Fails, telling the first difference, unless both are the same to the order of keys."""
    if found == due and list(found) == list(due):
        return
    for key in due:
        theirs, ours = found.get(key), due[key]
        if theirs == ours:
            continue
        if isinstance(ours, list) and isinstance(theirs, list) and len(ours) == len(theirs):
            theirs, ours = next(pair for pair in zip(theirs, ours) if pair[0] != pair[1])
        raise AssertionError(f"{key} has {theirs!r} and not {ours!r}"[:2000])
    raise AssertionError(f"the keys are {list(found)} and not {list(due)}")


def names_of(reply):
    return [entry["filename"] for entry in reply["datas"]]


def object_of(reply):
    assert reply.status == 200, f"status {reply.status}: {reply.body[:300]!r}"
    assert reply.content_type == "application/json; charset=utf-8", reply.headers
    return reply.json()


def refusal(status):
    def check(reply, _span):
        assert reply.status == status, f"status {reply.status} and not {status}: {reply.body[:300]!r}"
        assert reply.content_type == "application/problem+json", reply.headers
        assert reply.json()["status"] == status
        return REFUSED
    return check


def exactly(due, outcome=EXACT):
    def check(reply, _span):
        same(object_of(reply), due)
        return outcome
    return check


class Shelf:
    """The uuids of the caches that were made last under an index that all clients share."""

    def __init__(self):
        self.lock = threading.Lock()
        self.made = []

    def add(self, uuid, listing):
        with self.lock:
            self.made = [*self.made[-1:], (uuid, listing)]

    def some(self, chance):
        with self.lock:
            return chance.choice(self.made) if self.made else (UNKNOWN, None)


class Asks:
    """`stable`, `lively` (a list) and `tree`: see shares.py."""

    def __init__(self, stable, lively, tree, chronicle):
        self.stable, self.lively, self.tree, self.chronicle = stable, lively, tree, chronicle
        self.due = {}  # of each ask of a stable folder: the reply that it had when nothing else went on
        self.numbered = {}  # the described entry of each numbered file
        self.shelf = Shelf()
        self.lost_deletes = 0
        self.videos_passed_over = 0  # where the tool could not be run
        self.shapes = self.stable_shapes()

    # --- Listings of stable folders ---

    def stable_shapes(self):
        """Name: (folder, keys of the request, names of the page, total)."""
        stable = self.stable
        mixed = ["apple.txt", "Berry.txt", "closed.pdf", "\u00e9lan.txt", "item 2.bin", "item 10.bin", "sub",
                 "to apple", "to nothing"]
        return {
            "numbered": (stable.numbered, {}, NUMBERED[:500], 700),
            "second page": (stable.numbered, {"offset": 500}, NUMBERED[500:], 700),
            "end": (stable.numbered, {"offset": 690}, NUMBERED[690:], 700),
            "by size": (stable.numbered, {"sort": "size:desc", "offset": 680}, NUMBERED[19::-1], 700),
            "by date": (stable.numbered, {"sort": "date:desc", "name": "n00*"}, NUMBERED[9::-1], 10),
            "pattern": (stable.numbered, {"name": "N?5*.DAT", "cluster": "size"},
                        [name for name in NUMBERED if name[2] == "5"], 70),
            "mixed": (stable.mixed, {}, mixed, 9),
            "hidden": (stable.mixed, {"hidden": 0}, [".hidden", *mixed], 10),
            "folders": (stable.mixed, {"type": "folder"}, ["sub"], 1),
            "sizes": (stable.mixed, {"size": ">=1M", "lang": "GER"}, ["item 10.bin"], 1),
            "clusters": (stable.mixed, {"cluster": "permission", "sort": "name:desc"},
                         ["to nothing", "to apple", "sub", "item 10.bin", "item 2.bin", "apple.txt", "Berry.txt",
                          "closed.pdf", "\u00e9lan.txt"], 9),
            "languages": (stable.mixed, {"lang": "SWE", "sort": "name"}, mixed, 9),
            "tree": (stable.tree, {"recursive": True, "type": "extname:txt"}, LEAVES, 100),
            "media": (stable.media, {}, ["clip h264.mkv", "clip h265.mp4", "photo.jpg", "song.mp3"], 4),
            "empty": (stable.empty, {}, [], 0),
            "closed": (stable.closed, {}, [], 0),
            "missing": (stable.folder / "missing", {}, [], 0),
        }

    def listing_ask(self, shape):
        folder, keys, names, total = self.shapes[shape]

        def check(reply, span):
            found = object_of(reply)
            assert found["error_code"] == 0, found
            assert names_of(found) == names, f"{shape}: listed are {names_of(found)}"[:2000]
            assert found["total"] == total, f"{shape}: the total is {found['total']}"
            found["uuid"] = None
            if shape in self.due:
                due = self.due[shape]
                if shape == "media" and self.chronicle.scarce(span, PROCESSES, TOOLS):
                    assert found["has_h265"] <= due["has_h265"]
                    self.videos_passed_over += due["has_h265"] - found["has_h265"]
                    found, due = without_video_facts(found), without_video_facts(due)
                same(found, due)
            else:
                self.due[shape] = found
            return EXACT

        return Ask("fetch.resource", listing_body([(folder, ALIAS)], **keys), check=check)

    def learn(self, do):
        """Asks for every stable listing while nothing else goes on; the later replies must be the same."""
        for shape in self.shapes:
            do(self.listing_ask(shape))
        for shape in ("numbered", "second page"):
            self.numbered |= {entry["filename"]: entry for entry in self.due[shape]["datas"]}
        facts = {entry["filename"]: entry for entry in self.due["media"]["datas"]}
        assert [facts[name]["is_h265"] for name in ("clip h264.mkv", "clip h265.mp4")] == [0, 1]
        assert facts["photo.jpg"]["has_thumbnail"] == 1 and self.due["media"]["has_h265"] == 1
        rights = {entry["filename"]: entry["acl"] for entry in self.due["mixed"]["datas"]}
        assert [rights[name] for name in ("apple.txt", "Berry.txt", "closed.pdf", "sub")] == [4, 6, 0, 5]
        assert self.numbered["n699.dat"] | {"filepath": "/Share/n699.dat", "filesize": 699, "owner": "root",
                                            "privilege": "644", "epochmt": 1_600_000_699} == self.numbered["n699.dat"]

    # --- Listings of folders that change ---

    def lively_ask(self, chance):
        folder = chance.choice(self.lively)

        def check(reply, span):
            found = object_of(reply)
            assert found["error_code"] == 0, found
            names = names_of(found)
            assert found["total"] == len(names) == sum(group["count"] for group in found["cluster"]), found["cluster"]
            folder.check(names, span, complete=True)
            return POSSIBLE

        keys = {"sort": chance.choice(("name:asc", "size:desc")), "cluster": chance.choice(("type", "name", "size"))}
        return Ask("fetch.resource", listing_body([(folder.folder, ALIAS)], **keys), check=check)

    def lively_tree_ask(self):
        def check(reply, _span):
            found = object_of(reply)
            assert found["error_code"] == 0, found
            self.tree.check([entry["filepath"] for entry in found["datas"]], ALIAS)
            return POSSIBLE

        return Ask("fetch.resource", listing_body([(self.tree.folder, ALIAS)], recursive=True), check=check)

    # --- Caches ---

    def create_ask(self, index, folder, take, **keys):
        """`take` gets the uuid and the total."""
        def check(reply, span):
            found = object_of(reply)
            if found in (BUSY, DONE):  # another request wrote to, or read, the file just then
                return CONTENDED
            assert list(found) == ["cluster", "uuid", "total", "error_code", "error_message"], found
            assert {key: found[key] for key in DONE} == DONE, found
            take(found["uuid"], found["total"], span)
            return EXACT
        return Ask("create.cache", listing_body([(folder, ALIAS)], index=index, **keys), check=check)

    def page_check(self, names, total, contended):
        """Of a page of the numbered files."""
        def check(reply, _span):
            found = object_of(reply)
            if contended and found in (INVALID_UUID, BUSY):  # before the page, or in the middle of its rows
                return CONTENDED
            assert found["error_code"] == 0 and found["total"] == total, str(found)[:2000]
            assert isinstance(found["changed"], bool)
            assert names_of(found) == names, f"the page has {names_of(found)}"[:2000]
            for entry in found["datas"]:
                same(entry, self.numbered[entry["filename"]])
            return EXACT
        return check

    def own_cache(self, do, chance):
        """The life of a cache under index 1, which no other client uses meanwhile: made, paged, watched, deleted."""
        made = []
        newest_first = chance.random() < 0.5
        create = self.create_ask(1, self.stable.numbered, lambda uuid, total, _: made.append((uuid, total)),
                                 sort="date:desc" if newest_first else "name:asc", cluster="type")
        do(create)
        if not made:
            return
        (uuid, total), = made
        assert total == 700
        names = NUMBERED[::-1] if newest_first else NUMBERED
        for _ in range(chance.randrange(4)):
            offset = chance.randrange(720)
            page = names[offset:offset + 50]
            do(Ask("fetch.cache", json_bytes(uuid=uuid, limit=50, offset=offset),
                   check=self.page_check(page, 700, contended=False)))
        deleted = do(Ask("delete.cache", json_bytes(uuid=uuid), check=self.delete_check()))
        if deleted == EXACT:
            do(Ask("fetch.cache", json_bytes(uuid=uuid, index=1), check=self.after_delete_check()))

    def delete_check(self):
        def check(reply, _span):
            found = object_of(reply)
            if found == NOT_FOUND:
                return CONTENDED
            same(found, DONE)
            return EXACT
        return check

    def after_delete_check(self):
        def check(reply, _span):
            found = object_of(reply)
            if found != INVALID_UUID:
                # The daemon read the file for its watches just when the deletion was to be written.
                assert found["error_code"] == 0 and found["total"] == 700, str(found)[:2000]
                self.lost_deletes += 1
                return CONTENDED
            return REFUSED
        return check

    def shared_create_ask(self, chance):
        """Under index 2, where any client may replace it at any time."""
        if chance.random() < 0.5:
            folder = None
            place = self.stable.numbered
        else:
            folder = chance.choice(self.lively)
            place = folder.folder
        return self.create_ask(2, place, lambda uuid, _, span: self.shelf.add(uuid, (folder, span)))

    def shared_fetch_ask(self, chance):
        uuid, listing = self.shelf.some(chance)
        offset = chance.randrange(60)
        body = json_bytes(uuid=uuid, index=2, limit=50, offset=offset)
        if listing is None:
            return Ask("fetch.cache", body, check=exactly(INVALID_UUID, REFUSED))
        folder, listed = listing
        if folder is None:
            return Ask("fetch.cache", body, check=self.page_check(NUMBERED[offset:offset + 50], 700, contended=True))

        def check(reply, _span):
            found = object_of(reply)
            if found in (INVALID_UUID, BUSY):
                return CONTENDED
            assert found["error_code"] == 0 and len(found["datas"]) <= 50, str(found)[:2000]
            folder.check(names_of(found), listed, complete=False)
            return POSSIBLE
        return Ask("fetch.cache", body, check=check)

    def shared_delete_ask(self, chance):
        uuid, _ = self.shelf.some(chance)
        return Ask("delete.cache", json_bytes(uuid=uuid, index=2), check=self.delete_check())

    # --- What needs no listing ---

    def plain_ask(self, chance):
        """A text of the bus, a refusal, or a watch of the shared cache."""
        def root_check(reply, _span):
            assert (reply.status, reply.body) == (200, ENDPOINTS.encode()), reply
            return EXACT

        def usage_check(reply, _span):
            assert reply.status == 200 and reply.headers["allow"] == "OPTIONS, POST", reply.headers
            assert reply.content_type == "text/plain; charset=utf-8"
            assert b"Usage: [General]\n" in reply.body, reply.body
            same({"usage": reply.body}, self.due.setdefault(target, {"usage": reply.body}))
            return EXACT

        target = "/" + chance.choice(ENDPOINTS.split())
        folder = [(self.stable.mixed, ALIAS)]
        return chance.choice((
            Ask("GET /", method="GET", target="/", check=root_check),
            Ask("OPTIONS", method="OPTIONS", target=target, check=usage_check),
            Ask("unknown endpoint", target="/fetch.nothing", body=b"{}", check=refusal(404)),
            Ask("other method", method="DELETE", target=target, check=refusal(405)),
            Ask("no HTTP", method="@@ @@", target="@@", check=refusal(400), closes=True),
            Ask("long header", method="GET", target="/", extra=b"X: " + b"x" * 17_000 + b"\r\n", check=refusal(431),
                closes=True),
            Ask("long body", body=b" " * (1024 * 1024 + 1), target="/fetch.resource", check=refusal(413), closes=True),
            Ask("fetch.resource", chance.choice((b"", b"{", b"[]", b"\xff\xfe", b"[" * 500, b'{"path":[]} x')),
                check=exactly({"error_code": 2, "error_message": "invalid path"}, REFUSED)),
            Ask("fetch.resource", listing_body(folder, limit=49),
                check=exactly({"error_code": 2, "error_message": "invalid limit"}, REFUSED)),
            Ask("fetch.cache", json_bytes(uuid="nothing"),
                check=exactly({"error_code": 2, "error_message": "invalid uuid"}, REFUSED)),
            Ask("watch", b'{"index":2}', check=exactly(DONE)),
            Ask("watch", b'{"index":2}', check=exactly(DONE)),
        ))

    def some(self, chance):
        """Any ask that stands for itself."""
        kind = chance.random()
        if kind < 0.42:
            return self.listing_ask(chance.choice(tuple(self.shapes)))
        if kind < 0.60:
            return self.lively_ask(chance)
        if kind < 0.65:
            return self.lively_tree_ask()
        if kind < 0.70:
            return self.shared_create_ask(chance)
        if kind < 0.80:
            return self.shared_fetch_ask(chance)
        if kind < 0.83:
            return self.shared_delete_ask(chance)
        return self.plain_ask(chance)


def json_bytes(**keys):
    return json.dumps(keys).encode()


def listing_body(folders, **keys):
    return json_bytes(path=[{"full_path": str(folder), "alias": alias} for folder, alias in folders], **keys)


def without_video_facts(reply):
    return {**reply, "has_h265": 0, "datas": [{**entry, "is_h265": 0} for entry in reply["datas"]]}


def chunk_places(chance: random.Random, size):
    """Where the chunks of a body of that size end; None to send it in one piece with its length."""
    return None if chance.random() < 0.8 else [chance.randrange(size + 1) for _ in range(chance.randrange(4))]
