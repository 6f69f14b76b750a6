"""What is asked of an instance while its calls fail, and what is wrong about an answer."""

import http.client
import json
import os

from . import bus
from .caches import give_volume, places
from .instance import wait_until
from .tree import make_file, make_folder, make_link

PATIENCE = 20  # seconds after which a request hangs


def furnish(instance):
    """A volume, and a share with something of everything that is looked at."""
    give_volume(instance)
    share = instance.share
    for name in ("a.txt", "Élan.jpg", "clip.mkv"):
        make_file(share / name, name)
    make_link(share / "to a", "a.txt")
    make_link(share / "dangling", "nowhere")
    make_folder(share / "sub")
    make_file(share / "sub" / "c.pdf", 12)
    make_folder(share / "sub" / "deep")
    make_file(share / "sub" / "deep" / "d.mp3", 0)
    make_folder(share / "cloud")
    make_file(share / "cloud" / "e.txt")
    os.setxattr(share / "cloud" / "e.txt", "user.cm.meta_status",
                b'{"state":"uploading","upload_progress":42.5,"status_code":2000,"priority":"pin"}')
    make_file(share / "secret.txt")
    instance.write_veto("/secret*/")
    instance.write_shares(("Cloud", share / "cloud", 1), ("Share", share))
    instance.write_program("/usr/bin/ffmpeg", "echo 'Stream #0: Video: hevc (Main)' >&2\n")
    instance.write_program("/usr/local/bin/remote_mount_tool",
                           f"""echo '{{"data":{{"encrypted_folder":"{share}/cloud","status":1}}}}'\n""")
    return instance


class Requests:
    """The requests that are made; each has a name, which ends with its endpoint. A reply is an object of JSON, or a word
    for all that is none."""

    def __init__(self, instance):
        self.instance = instance
        self.uuid = None
        self.listing = {"path": places(instance.share), "recursive": True, "sort": "name:asc", "cluster": "type:asc"}

    def prepare(self, name):
        """Call without a fault armed: what the request needs is made."""
        if name in ("fetch.cache", "delete.cache") and self.uuid is None:
            self.uuid = self.instance.call("create.cache", self.listing)["uuid"]

    def body(self, name):
        return {"fetch.resource": self.listing, "create.cache": self.listing, "fetch.cache": {"uuid": self.uuid},
                "delete.cache": {"uuid": self.uuid}, "watch": {"index": 1}}.get(name)

    def ask(self, name):
        body = self.body(name)
        if name in ("create.cache", "delete.cache"):
            self.uuid = None
        method, target = ("GET", "/") if name == "list" else ("POST", f"/{name.split()[-1]}")
        try:
            reply = bus.exchange(self.instance.socket, method, target, body and json.dumps(body).encode(), timeout=PATIENCE)
        except TimeoutError as error:
            raise AssertionError(f"{name} hangs: {self.instance.log()[-2000:]}") from error
        except (OSError, http.client.HTTPException):
            return "closed"
        if reply.status != 200:
            assert reply.content_type == "application/problem+json" and reply.json()["status"] == reply.status, reply
            return str(reply.status)
        if name == "list":
            assert reply.body == b"watch\nfetch.cache\ndelete.cache\ncreate.cache\nfetch.resource\n", reply
            return {"error_code": 0, "error_message": ""}
        assert reply.content_type == "application/json; charset=utf-8"
        return self.comparable(reply.json())

    @staticmethod
    def comparable(reply):
        """Whole in itself, whatever it says; and without what is new each time."""
        assert "error_code" in reply and "error_message" in reply, reply
        if reply["error_code"] != 0:
            assert list(reply) == ["error_code", "error_message"], reply
            return f"{reply['error_code']} {reply['error_message']}"
        if "datas" in reply:
            assert reply["total"] == len(reply["datas"]), reply
            assert "changed" in reply, reply
        if "cluster" in reply:
            assert reply["total"] == sum(item["count"] for item in reply["cluster"]), reply
        if "uuid" in reply:
            reply["uuid"] = len(reply["uuid"])
        return reply

    def settle(self, faults):
        """Waits until the processes and jobs of the last request have ended."""
        assert wait_until(lambda: faults.unended == 0, 10, 0.002), "a request process did not end of its own accord"

    def quiet(self, faults):
        """The same, and for the watch jobs too: they run one after the other, and this one touches nothing."""
        self.settle(faults)
        assert self.instance.call("watch", {"index": 3})["error_message"] == "invalid index"


def tell(pytestconfig, *lines):
    """To the terminal, although what tests print is captured."""
    with pytestconfig.pluginmanager.getplugin("capturemanager").global_and_fixture_disabled():
        print("", *lines, sep="\n")


def nothing_is_left(instance, descriptors):
    """Fails when the daemon has more descriptors than those it had, a child, or a request process."""
    assert wait_until(lambda: instance.daemon_descriptors() <= descriptors), "descriptors leak"
    assert wait_until(lambda: instance.daemon_children() == []), "a zombie is left"
    assert wait_until(lambda: instance.request_processes() == []), "a process is left"


def chosen(count, most):
    """At most that many of the numbers from 1 to count: the first, the last, and some in between."""
    if count <= most:
        return range(1, count + 1)
    if most == 1:
        return [1]
    return sorted({1 + round(place * (count - 1) / (most - 1)) for place in range(most)})


def differences(reply, expected):
    """In what an answer differs from the expected one: "entries" are missing, there are "more", "KEY" and "datas KEY"."""
    if reply == expected:
        return set()
    found = {key for key in set(reply) | set(expected) if key != "datas" and reply.get(key) != expected.get(key)}
    seen = {entry["filepath"]: entry for entry in reply.get("datas", [])}
    wanted = {entry["filepath"]: entry for entry in expected.get("datas", [])}
    if set(wanted) - set(seen):
        found.add("entries")
    if set(seen) - set(wanted):
        found.add("more")
    if [path for path in seen if path in wanted] != [path for path in wanted if path in seen]:
        found.add("order")
    for path in set(seen) & set(wanted):
        assert list(seen[path]) == list(wanted[path])
        found |= {f"datas {key}" for key in seen[path] if seen[path][key] != wanted[path][key]}
    return found
