#!/usr/bin/env python3
"""Loads a private instance with all that may happen to it at once, and checks every answer and all that is left.

Many clients mix all endpoints, half of them leaving at random points; folders change meanwhile, request processes are
killed, processes and descriptors run short. The session belongs to an ordinary account. Needs root and the built
programs (./dev soak builds them). Ends with 0 when every claim holds, else with 1 and the seed that repeats the run.
"""

import argparse
import contextlib
import functools
import os
import pathlib
import pwd
import random
import re
import resource
import signal
import sqlite3
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "system"))

from harness.caches import changed, followed, next_second  # noqa: E402 (behind the path above)
from harness.instance import TOP, fresh_instance, wait_until  # noqa: E402

import figures  # noqa: E402
import shares  # noqa: E402
import troubles  # noqa: E402
from asks import ALIAS, CONTENDED, EXACT, Asks, listing_body  # noqa: E402
from chronicle import TOOLS, Chronicle  # noqa: E402
from clients import LeavingClient, StayingClient, Tally, time_limit  # noqa: E402

STRANGERS = "daemon"  # an account that the service does not admit
QUIET_TURNS = 100  # of a single client before and after the load
# What the daemon may hold more than after the warm-up, in KiB: a heap that has had a busier moment, which may have
# come in the first seconds. A leak of three dozen bytes a request is more than that in five minutes.
PRIVATE_TOLERANCE = 4096
RESIDENT_TOLERANCE = 6144
SANITIZER_TOLERANCE = 32 * 1024  # freed memory is kept back on purpose
# What the log may say, beside the lines of levels I and D.
LOG_LINES = re.compile(r"\[(?:E\] dirwell\(\d+\): (?:\[session\] \S+ be set\.|\[cache\] .*)"
                       r"|W\] dirwell\(\d+\): \[cache\] (?:uuid \S+ invalid))$")


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--seconds", type=float, default=300, help="how long the load lasts (default: 300)")
    parser.add_argument("--clients", type=int, default=16, help="how many clients there are (default: 16)")
    parser.add_argument("--seed", type=int, help="of all that is random (default: another one each time)")
    parser.add_argument("--build", type=pathlib.Path, default=TOP / "build/release", help="of the built programs")
    parser.add_argument("--user", default="games", help="whose the session is (default: games)")
    arguments = parser.parse_args()
    if os.geteuid() != 0:
        parser.error("the session is of another user, whose processes are killed: run the soak as root")
    if arguments.clients < 2 or not 1 <= arguments.seconds <= 24 * 3600:
        parser.error("at least 2 clients, and 1 second to a day")
    if pwd.getpwnam(arguments.user).pw_uid == 0:
        parser.error("the session is to be an ordinary account's")
    if arguments.seed is None:
        arguments.seed = random.SystemRandom().randrange(1_000_000)
    return arguments


def say(text):
    print(f"soak: {text}", file=sys.stderr, flush=True)


def is_sanitized(binary):
    return b"__asan_init" in binary.read_bytes() or b"__tsan_init" in binary.read_bytes()


class Soak:
    def __init__(self, arguments, instance):
        self.arguments, self.instance = arguments, instance
        self.seed = arguments.seed
        self.chronicle, self.tally = Chronicle(), Tally()
        account = pwd.getpwnam(arguments.user)
        instance.grace = 15  # a request process may describe a page to its end without its client
        instance.write_program("/usr/bin/ffmpeg", shares.VIDEO_TOOL)
        self.volume = instance.root / "volume"
        shares.make_folder(self.volume)
        instance.write_default_volume(self.volume)
        instance.write_shares(("Share", instance.share))
        self.stable = shares.StableShare(instance.share / "stable", account.pw_uid, account.pw_gid)
        self.lively = [shares.LivelyFolder(instance.share / name, f"{self.seed} {name}") for name in ("left", "right")]
        self.tree = shares.LivelyTree(instance.share / "branches", f"{self.seed} branches")
        self.asks = Asks(self.stable, self.lively, self.tree, self.chronicle)
        instance.sanitized = is_sanitized(instance.binary)
        # What is freed is kept back for a while: little of it, so that growth shows.
        options = instance.environment.get("ASAN_OPTIONS")
        instance.environment["ASAN_OPTIONS"] = f"{options}:quarantine_size_mb=8" if options else "quarantine_size_mb=8"

    # --- Before and after the load ---

    def quiet_client(self):
        """A client that asks a number of times while nothing else goes on; any failure of it ends the run."""
        return QuietClient(QUIET_TURNS, self.seed, self.instance, self.asks, self.chronicle, self.tally)

    def holdings(self):
        """What the daemon holds when it rests. A watch makes it give back what the libraries left behind."""
        self.instance.call("watch", {"index": 1})
        self.instance.call("watch", {"index": 2})
        assert wait_until(lambda: len(self.instance.processes()) == 1, self.instance.grace), \
            f"request processes are left: {self.instance.described_processes()}"
        time.sleep(0.5)
        return figures.Holdings(self.instance)

    def settle(self):
        """After the load: every process has ended, and the service is as good as before."""
        say("the load is over")
        assert wait_until(lambda: len(self.instance.processes()) == 1, self.instance.grace), \
            f"request processes are left: {self.instance.described_processes()}"
        assert wait_until(lambda: self.instance.daemon_children() == []), "the daemon has a child, dead or alive"
        self.quiet_client().run_through()

    def check_caches(self):
        """Two new caches are sound databases, and nothing but they is in the cache folder."""
        for index in (1, 2):
            place = {"full_path": str(self.stable.numbered), "alias": "/S"}
            reply = self.instance.call("create.cache", {"path": [place], "index": index})
            assert reply["total"] == 700, reply
            page = self.instance.call("fetch.cache", {"uuid": reply["uuid"], "index": index, "limit": 2000})
            assert [entry["filename"] for entry in page["datas"]] == [f"n{n:03d}.dat" for n in range(700)]
            database = self.volume / ".fs" / f"{self.instance.sid}.{index}"
            with contextlib.closing(sqlite3.connect(f"file:{database}?mode=ro", uri=True)) as connection:
                assert connection.execute("PRAGMA integrity_check").fetchall() == [("ok",)]
                assert connection.execute("SELECT count(*) FROM entry").fetchall() == [(700,)]
        found = sorted(path.name for path in (self.volume / ".fs").iterdir())
        assert found == [f"{self.instance.sid}.1", f"{self.instance.sid}.2"], found

    def check_watches(self):
        """Caches are followed as they were: a change in the folder of one is noticed."""
        for index in (1, 2):
            uuid = followed(self.instance, self.stable.numbered, index=index)
            assert changed(self.instance, uuid, index=index) is False, f"cache {index} has changed by itself"
            next_second()
            os.utime(self.stable.numbered / "n000.dat", (shares.WHEN, shares.WHEN))
            assert wait_until(functools.partial(changed, self.instance, uuid, index=index)), \
                f"a change in the folder of cache {index} is not noticed"

    def check_outcomes(self):
        """A cache that others use at the same time excuses a request now and then, not nearly all of them."""
        for label in ("create.cache", "fetch.cache", "delete.cache"):
            counts = self.tally.outcomes[label]
            assert counts[CONTENDED] < 20 or counts[EXACT] > counts[CONTENDED] // 10, f"{label}: {dict(counts)}"

    def check_holdings(self, before, after):
        assert after.descriptors == before.descriptors, f"descriptors: {before.kinds}, now {after.kinds}"
        assert after.threads == before.threads, f"threads: {before.threads}, now {after.threads}"
        private = SANITIZER_TOLERANCE if self.instance.sanitized else PRIVATE_TOLERANCE
        resident = SANITIZER_TOLERANCE if self.instance.sanitized else RESIDENT_TOLERANCE
        assert after.private <= before.private + private, f"private memory: {before.private}, now {after.private} KiB"
        assert after.resident <= before.resident + resident, f"memory: {before.resident}, now {after.resident} KiB"

    def check_log(self):
        odd = [line for line in self.instance.lines()
               if not re.search(r" \[[ID]\] dirwell\(\d+\): ", line) and not LOG_LINES.search(line)]
        assert odd == [], f"the log says: {odd[:10]}"

    def check_end(self):
        """An orderly stop (which looks at the socket and the pid file itself); the caches go with the session."""
        begin = time.monotonic()
        self.instance.stop()
        assert time.monotonic() - begin < 5, "the stop took its time although no request was in flight"
        assert self.instance.processes() == [], self.instance.described_processes()
        self.instance.session_file.unlink()
        status, _ = self.instance.run_to_end("--clear")
        assert status == 0 and list((self.volume / ".fs").iterdir()) == []

    # --- The load ---

    def clients(self, seed, until):
        kinds = (StayingClient, LeavingClient)
        return [kinds[number % 2](number, seed, self.instance, self.asks, self.chronicle, self.tally, until)
                for number in range(self.arguments.clients)]

    def warm_up(self):
        """The clients alone, so that what the daemon holds then is what as many clients at once make it hold."""
        until = time.monotonic() + min(20.0, max(2.0, self.arguments.seconds / 10))
        clients = self.clients(f"{self.seed} warm-up", until)
        for client in clients:
            client.start()
        self.wait_for(clients, until)
        assert self.tally.failures == [], self.tally.failures
        self.tally = Tally()

    def load(self, group):
        """Returns what was done to the service, as rows of a table."""
        killer = troubles.Killer(self.seed, self.instance, self.chronicle, group, self.tally.requests)
        pause = min(6.0, self.arguments.seconds / 5)
        videos = listing_body([(self.stable.media, ALIAS)])
        shortages = troubles.Shortages(self.seed, self.instance, self.chronicle, group, self.arguments.user, videos,
                                       pause)
        changers = [shares.Changer(folder) for folder in (*self.lively, self.tree)]
        with troubles.Stranger(self.instance, STRANGERS, time_limit(self.instance)) as stranger:
            until = time.monotonic() + self.arguments.seconds
            clients = self.clients(self.seed, until)
            for thread in (*clients, killer, shortages, *changers):
                thread.start()
            self.wait_for(clients, until)
            for thread in (killer, shortages, *changers):
                thread.finish()
            stranger.check()
        assert shortages.tools_missed > 0 or len(self.chronicle.shortages[TOOLS]) < 3, "no tool met the process limit"
        changes = sum(changer.folder.changes for changer in changers)
        return figures.trouble_rows(self.chronicle, killer, group, stranger.turns, changes, self.asks)

    def wait_for(self, clients, until):
        told = time.monotonic()
        while any(client.is_alive() for client in clients):
            time.sleep(0.2)
            now = time.monotonic()
            assert now < until + 2 * time_limit(self.instance), f"hung: {[(c.name, c.doing) for c in clients if c.is_alive()]}"
            self.instance.check()
            if now - told >= 30:
                told = now
                say(f"{max(0, until - now):.0f} s to go, {self.tally.requests()} requests, "
                    f"{len(self.tally.failures)} failures")

    def run(self):
        """Prints the report; fails with what went wrong as a whole, what the clients met is in the tally."""
        self.instance.start("--level", "6", "--sid", self.instance.sid, TZ="UTC0")
        quiet = self.quiet_client()
        self.asks.learn(quiet.do)
        quiet.run_through()
        self.warm_up()
        before = self.holdings()
        group = troubles.ProcessGroup.around(self.instance.process.pid)
        try:
            begin = time.monotonic()
            rows = self.load(group)
            seconds = time.monotonic() - begin
            self.settle()
            self.check_caches()
            self.check_watches()
            after = self.holdings()
            figures.print_report(self.tally, seconds, rows, before, after, sys.stdout)
            assert self.chronicle.over_excused() == 0, "more requests failed than processes were killed"
            self.check_outcomes()
            self.check_holdings(before, after)
            self.check_log()
            self.check_end()
        finally:
            if group is not None:
                if self.instance.process.poll() is None:
                    self.instance.process.kill()
                    self.instance.leftovers_expected = self.instance.end_expected = True
                    self.instance.process.wait(10)
                wait_until(lambda: not group.processes(), 10)
                group.remove()


class QuietClient(StayingClient):
    """Works in the calling thread; nothing that it meets is excused, and what it notes is in no table."""

    def __init__(self, turns, *arguments):
        super().__init__("quiet", *arguments, until=0)
        self.tally = Tally()
        self.turns = turns

    def excused(self, span, status=None):
        raise AssertionError(f"{status or 'an early end'} in the quiet: {self.doing}")

    def run_through(self):
        for _ in range(self.turns):
            self.turn()
        self.disconnect()


def main():
    arguments = parse_arguments()
    os.environ["DIRWELL_BUILD"] = str(arguments.build.resolve())
    if not os.access(arguments.build / "dirwell", os.X_OK):
        sys.exit(f"soak: {arguments.build / 'dirwell'} is missing: ./dev build builds it")
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))  # so that the instance is taken down
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, max(soft, 4096)), hard))
    say(f"seed {arguments.seed}, {arguments.clients} clients, {arguments.seconds:g} s, session of {arguments.user}")
    failures = []
    try:
        with fresh_instance(arguments.user) as instance:
            soak = Soak(arguments, instance)
            try:
                soak.run()
            finally:
                failures = soak.tally.failures
    except AssertionError as error:
        failures = [*failures, str(error)]
    for failure in failures:
        say(f"FAILED: {failure}")
    if failures:
        sys.exit(f"soak: repeat with ./dev soak --seed {arguments.seed} --seconds {arguments.seconds:g} "
                 f"--clients {arguments.clients}")
    say("every claim holds")


if __name__ == "__main__":
    main()
