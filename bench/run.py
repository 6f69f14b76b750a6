#!/usr/bin/env python3
"""Measures the service beside the floor of the machine and beside other programs, all in one run.

Needs the built programs (./dev bench builds them) and root, since the session's user is root's. Every case of a group
runs once a round, so that what disturbs the machine disturbs all of them; the first round only warms up.
"""

import argparse
import contextlib
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import time

import cases
import data
import report
import service

LARGE, MIDDLE, SMALL = 100_000, 10_000, 1_000
TINY = 20
CLIENTS = 8
SETTLING = 0.2  # seconds; a server may tidy up after its reply, which is not to fall on the next case


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--binaries", type=pathlib.Path, default=service.TOP / "build/release")
    parser.add_argument("--rounds", type=int, default=9, help="measured rounds (default: 9)")
    parser.add_argument("--output", type=pathlib.Path, default=service.TOP / "bench/results")
    parser.add_argument("--scale", type=int, default=1, help="divides all sizes; for a try of the bench itself")
    parser.add_argument("--no-stages", action="store_true", help="leave out the measurements of the stages")
    parser.add_argument("--no-videos", action="store_true", help="leave out the page of videos")
    return parser.parse_args()


def say(text):
    print(f"bench: {text}", file=sys.stderr, flush=True)


def rounds_of(title, table, rounds, warm_up=True):
    """{name: [Measured, ...]}, the cases taking turns."""
    found = {name: [] for name in table}
    for number in range(0 if warm_up else 1, rounds + 1):
        say(f"{title}: {'warming up' if number == 0 else f'round {number} of {rounds}'}")
        for name, case in table.items():
            measured = case.run()
            time.sleep(SETTLING)
            if number > 0:
                found[name].append(measured)
    return found


def check(table, entries):
    """That what is going to be measured is what is meant."""
    for case in table.values():
        case.check(entries)


class Bench:
    def __init__(self, arguments, folder, stack):
        self.binaries = arguments.binaries.resolve()
        self.rounds = arguments.rounds
        self.scale = arguments.scale
        self.folder = folder
        self.floor = self.binaries / "bench/bench_floor"
        self.data = folder / "data"
        self.data.mkdir()
        say("making the folders")
        self.sizes = {size: max(TINY, size // self.scale) for size in (LARGE, MIDDLE, SMALL, TINY)}
        self.flat = {size: self.data / f"flat-{size}" for size in self.sizes}
        for size, entries in self.sizes.items():
            data.make_flat(self.flat[size], entries)
        self.tree = self.data / "tree"
        data.make_tree(self.tree, self.sizes[LARGE], data.TREE_FOLDERS // self.scale)
        service.adopt_orphans()
        self.daemon = stack.enter_context(
            service.Service(self.binaries, ("Bench", self.data, service.SHARE_WITHOUT_PROBES)))
        self.client = cases.Client(self.binaries, folder)
        self.stack = stack

    def have(self, program):
        return shutil.which(program, path=service.ENVIRONMENT["PATH"]) is not None

    def fetch(self, folder, requests=1, **keys):
        return cases.OwnRequest(self.client, self.daemon, "fetch.resource", service.request_body(folder, **keys), requests)

    def remote_control(self, where, folder, requests=1):
        body = b'{"fs": "%s", "remote": ""}' % str(folder).encode()
        return cases.Request(self.client, where, "/operations/list", body, requests)

    def measure(self):
        groups = {}
        where = None
        if self.have("rclone"):
            where = self.stack.enter_context(service.rclone_daemon(self.folder))
        table = cases.of_programs(self.floor, self.flat[LARGE], False, self.have)
        if where:
            table["rclone rcd"] = self.remote_control(where, self.flat[LARGE])
        if self.have("nginx"):
            static = self.stack.enter_context(service.static_server(self.folder, self.data))
            table["static server"] = cases.Request(self.client, static, f"/flat-{LARGE}/")
        table |= cases.own_listings(self.client, self.daemon, self.flat[LARGE], self.sizes[LARGE])
        check(table, self.sizes[LARGE])
        groups["flat"] = rounds_of("flat folder", table, self.rounds)

        table = cases.of_programs(self.floor, self.tree, True, self.have)
        table["dirwell"] = self.fetch(self.tree, recursive=True)
        check(table, self.sizes[LARGE])
        groups["tree"] = rounds_of("tree", table, self.rounds)

        table = {}
        for size in (LARGE, MIDDLE, SMALL):
            some = {f"floor {size}": cases.Program([self.floor, self.flat[size]]),
                    f"dirwell {size}": self.fetch(self.flat[size], requests=3)}
            check(some, self.sizes[size])
            table |= some
        groups["growth"] = rounds_of("growth", table, self.rounds)

        table = {"dirwell": self.fetch(self.flat[TINY], requests=max(20, 200 // self.scale))}
        if where:
            table["rclone rcd"] = self.remote_control(where, self.flat[TINY], requests=max(20, 200 // self.scale))
        check(table, self.sizes[TINY])
        # Refused before any work is done: what remains is the process of its own that every request is given.
        table["refused request"] = cases.OwnRequest(self.client, self.daemon, "fetch.cache", b"{}",
                                                    table["dirwell"].requests, code=2)
        for name in ("dirwell", "refused request"):
            table[f"{name}, 8 clients"] = cases.Load(table[name], CLIENTS, max(40, 2000 // self.scale))
        groups["small"] = rounds_of("20 entries", table, self.rounds)

        first = cases.FirstReply(self.binaries, self.data, service.request_body(self.flat[TINY]))
        self.stack.callback(first.close)
        groups["start"] = rounds_of("start", {"first reply": first}, self.rounds)
        time.sleep(2)  # the end of what the last requests left to be done
        return groups, self.daemon.memory()

    def measure_videos(self):
        """A page of short videos where the tool looks into each, the same page where it does not, and the tool alone."""
        videos = self.folder / "videos"
        count = max(2, data.VIDEOS // self.scale // 2 * 2)
        data.make_videos(videos, count)
        plain = service.Service(self.binaries, ("Videos", videos))
        closed = service.Service(self.binaries, ("Videos", videos, service.SHARE_WITHOUT_PROBES))
        with plain, closed:
            body = service.request_body(videos)
            table = {
                "page": cases.OwnRequest(self.client, plain, "fetch.resource", body),
                "page without the tool": cases.OwnRequest(self.client, closed, "fetch.resource", body),
                "the tool alone": cases.EachVideo(sorted(videos.iterdir())),
            }
            say("videos: the first page is looked at")
            if [entry["is_h265"] for entry in table["page"].reply()["datas"]] != [1, 0] * (count // 2):
                raise RuntimeError("the videos' streams are not recognised")
            table["page without the tool"].check(count)
            return rounds_of("videos", table, 1, warm_up=False)

    def measure_stages(self):
        say("stages")
        program = self.binaries / "bench/bench_stages"
        rows = "-/100000$" if self.scale > 1 else "-/1000$|/10000$"
        command = [program, "--benchmark_format=json", "--benchmark_min_time=0.05", f"--benchmark_filter={rows}"]
        done = subprocess.run(command, stdout=subprocess.PIPE, check=True)
        return report.stages_of(done.stdout)


def end(number, _):
    raise SystemExit(128 + number)


def main():
    arguments = parse_arguments()
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, end)  # so that all is taken down again
    with contextlib.ExitStack() as stack:
        folder = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory(prefix="dirwell-bench-")))
        folder.chmod(0o755)
        service.ENVIRONMENT["HOME"] = str(folder)  # some programs leave caches there
        bench = Bench(arguments, folder, stack)
        groups, idle = bench.measure()
        if not arguments.no_videos:
            groups["videos"] = bench.measure_videos()
    results = report.Results(groups, idle, [], arguments)
    results.write(arguments.output)  # the stages take some minutes more
    if not arguments.no_stages:
        results.stages = bench.measure_stages()
        results.write(arguments.output)
    print(results.text())
    say(f"written: {arguments.output}")


if __name__ == "__main__":
    main()
