"""What is measured: each case times one piece of work once, as often as it is asked to."""

import json
import os
import pathlib
import resource
import subprocess
import tempfile
import time

import service

PAGE = 500
SORTS = ("date", "type", "size", "owner", "group", "permission")
CLUSTERS = ("name", *SORTS)
LANGUAGES = ("CZE", "JPN", "SCH", "THA")


class Measured:
    """The outcome of one run."""

    def __init__(self, seconds, peak=None):
        self.seconds = seconds
        self.peak = peak  # of memory, in kB


class Program:
    """A whole process, from before its start to its end, its output read through a pipe."""

    def __init__(self, command):
        self.command = [str(word) for word in command]

    def run(self):
        with tempfile.TemporaryFile() as errors:
            begin = time.monotonic()
            process = subprocess.Popen(self.command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=errors,
                                       env=service.ENVIRONMENT)
            self.output = []
            while piece := os.read(process.stdout.fileno(), 1 << 20):
                self.output.append(piece)
            _, status, usage = os.wait4(process.pid, 0)
            seconds = time.monotonic() - begin
            process.returncode = os.waitstatus_to_exitcode(status)
            process.stdout.close()
            if process.returncode != 0:
                errors.seek(0)
                raise RuntimeError(f"{self.command} ended with {process.returncode}: {errors.read().decode(errors='replace')}")
        # A program's peak begins with that of the process that started it, which is this one.
        known = usage.ru_maxrss > resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
        return Measured(seconds, usage.ru_maxrss if known else None)

    def check(self, entries):
        """Fails unless it told of so many entries: the floor in a number, the others in a line each at least."""
        self.run()
        output = b"".join(self.output)
        number = output.strip().isdigit()
        told = int(output) if number else output.count(b"\n")
        if told != entries if number else told < entries:
            raise RuntimeError(f"{self.command} tells of {told} entries and not of {entries}")


class Client:
    """The client program, which times requests to the last byte."""

    def __init__(self, binaries, folder):
        self.program = f"{binaries}/bench/bench_client"
        self.folder = pathlib.Path(folder)

    def send(self, where, target, body=None, requests=1, clients=1, expect="", save=None):
        command = [self.program, *where, "--target", target, "--requests", str(requests), "--clients", str(clients)]
        if body is not None:
            path = self.folder / "body"
            path.write_bytes(body)
            command += ["--body", str(path)]
        if expect:
            command += ["--expect", expect]
        if save:
            command += ["--save", str(save)]
        report = json.loads(subprocess.run(command, stdout=subprocess.PIPE, check=True).stdout)
        if report["failures"]:
            raise RuntimeError(f"{report['failures']} of {requests} requests to {target} failed: {report['failure']}")
        return report


class Request:
    """A request to another server."""

    def __init__(self, client, where, target, body=None, requests=1):
        self.client, self.where, self.target, self.body, self.requests = client, where, target, body, requests

    def run(self):
        report = self.client.send(self.where, self.target, self.body, self.requests)
        seconds = sorted(report["seconds"])
        return Measured(seconds[len(seconds) // 2])

    def check(self, entries):
        save = self.client.folder / "reply"
        self.client.send(self.where, self.target, self.body, save=save)
        told = save.read_bytes().count(b'"') // 4  # each entry has a name and a value with quotes at least
        if told < entries:
            raise RuntimeError(f"{self.target} tells of {told} entries at most and not of {entries}")


class OwnRequest:
    """A request to the daemon, and the peak of its process's memory. Several requests give the median one."""

    def __init__(self, client, daemon, endpoint, body, requests=1, code=0):
        self.client, self.daemon, self.endpoint, self.body, self.requests = client, daemon, endpoint, body, requests
        self.expect = f'"error_code":{code}'

    def send(self, clients=1, requests=None, save=None):
        requests = requests or self.requests
        body = self.body() if callable(self.body) else self.body
        report = self.client.send(self.daemon.target, f"/{self.endpoint}", body, requests, clients, self.expect, save)
        return report, service.ended_requests(requests)

    def run(self):
        report, peaks = self.send()
        seconds = sorted(report["seconds"])
        return Measured(seconds[len(seconds) // 2], max(peaks))

    def reply(self):
        """One reply, read: the check that what is measured is what was meant."""
        save = self.client.folder / "reply"
        self.send(requests=1, save=save)
        return json.loads(save.read_bytes())

    def check(self, entries):
        """Fails unless the whole listing and its first page came, and groups where groups were asked for."""
        reply = self.reply()
        request = json.loads(self.body() if callable(self.body) else self.body)
        offset = request.get("offset", 0)
        page = min(PAGE, entries - offset)
        if reply["total"] != entries or len(reply["datas"]) != page:
            raise RuntimeError(f"a listing of {entries} tells {reply['total']}, {len(reply['datas'])} of them described")
        if "cluster" in request and len(reply["cluster"]) < 2:
            raise RuntimeError(f"no clusters: {reply['cluster']}")


class Load:
    """Several clients at once: the seconds that a request takes of the whole's time."""

    def __init__(self, request, clients, requests):
        self.request, self.clients, self.requests = request, clients, requests

    def run(self):
        report, _ = self.request.send(self.clients, self.requests)
        return Measured(report["elapsed"] / self.requests)


class FirstReply:
    """A daemon of its own, from its start to its first reply."""

    def __init__(self, binaries, share, body):
        self.daemon = service.Service(binaries, ("Bench", share, service.SHARE_WITHOUT_PROBES))
        self.body = body

    def run(self):
        seconds = self.daemon.start_to_first_reply(self.body)
        service.ended_requests(1)
        return Measured(seconds)

    def close(self):
        self.daemon.instance.finish()


def of_programs(floor, folder, recursive, have):
    """The programs that list a folder; those that this machine has."""
    find = ["find", folder, "-mindepth", "1", *([] if recursive else ["-maxdepth", "1"]), "-printf",
            r"%f\t%s\t%m\t%U\t%G\t%T@\n"]
    level = [] if recursive else ["-L", "1"]
    deep = ["-R"] if recursive else []
    table = {
        "floor": [floor, folder, *(["--recursive"] if recursive else [])],
        "find -printf": find,
        "ls -lU": ["ls", "-lU", *deep, folder],
        "ls -l": ["ls", "-l", *deep, folder],
        "tree -J": ["tree", "-J", "-a", *level, folder],
        "tree -J with status": ["tree", "-J", "-a", "-s", "-p", "-u", "-g", "-D", *level, folder],
        "rclone lsjson": ["rclone", "lsjson", *deep, folder],
    }
    return {name: Program(command) for name, command in table.items() if have(str(command[0]))}


class CreateCache(OwnRequest):
    """Keeps a listing; its uuid is what the pages are asked of."""

    uuid = None

    def run(self):
        save = self.client.folder / "created"
        report, peaks = self.send(save=save)
        self.uuid = json.loads(save.read_bytes())["uuid"]
        return Measured(report["seconds"][0], max(peaks))

    def check(self, entries):
        self.run()
        reply = json.loads((self.client.folder / "created").read_bytes())
        if reply["total"] != entries:
            raise RuntimeError(f"a kept listing of {entries} tells {reply['total']}")

    def page(self, offset):
        return OwnRequest(self.client, self.daemon, "fetch.cache",
                          lambda: json.dumps({"uuid": self.uuid, "limit": PAGE, "offset": offset}).encode())


def own_listings(client, daemon, folder, entries):
    """The daemon's listings of the large flat folder, by name."""

    def fetch(**keys):
        return OwnRequest(client, daemon, "fetch.resource", service.request_body(folder, **keys))

    table = {"dirwell": fetch()}
    table |= {f"sort {field}": fetch(sort=field) for field in SORTS}
    table |= {f"cluster {field}": fetch(cluster=field) for field in CLUSTERS}
    table |= {f"lang {code}": fetch(lang=code) for code in LANGUAGES}
    create = CreateCache(client, daemon, "create.cache", service.request_body(folder))
    table |= {"create.cache": create, "page at 0": create.page(0), "last page": create.page(max(0, entries - PAGE))}
    return table


class EachVideo:
    """The video tool alone, called for one file after the other as the daemon calls it."""

    def __init__(self, videos):
        self.videos = videos

    def run(self):
        begin = time.monotonic()
        for video in self.videos:
            # Without an output file the tool describes its input and ends with an error.
            done = subprocess.run(["/usr/bin/ffmpeg", "-hide_banner", "-i", str(video)], stdin=subprocess.DEVNULL,
                                  stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, env=service.ENVIRONMENT, check=False)
            if b"Video: h" not in done.stderr:
                raise RuntimeError(f"{video} is no video: {done.stderr.decode(errors='replace')}")
        return Measured(time.monotonic() - begin)
