#!/usr/bin/python3
"""Runs the fuzz targets: first what is kept (regressions and corpus), then new inputs for a while.

Prints a table and exits with 1 when an input crashes, leaks, takes too long or needs too much memory (it is kept and
named), or when a target does nothing.
"""
import argparse
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass, field
from pathlib import Path

HERE = Path(__file__).resolve().parent
TOP = HERE.parent.parent
MOST_KEPT = 300  # files a target
MEMORY_MB = 1024
INPUT_SECONDS = 10
MAX_LENGTH = {"cache_file": 8192}  # where 4096 bytes are too few
# What the fuzzer calls an input that it names by itself; kept inputs with other names are a person's.
GENERATED = re.compile(r"[0-9a-f]{40}\Z")


@dataclass
class Result:
    """What became of one target."""

    target: str
    executions: int = 0
    replayed: int = 0
    seconds: float = 0
    cpu_seconds: float = 0
    edges: int = 0
    new: int = 0
    peak_mb: int = 0
    problems: list = field(default_factory=list)


def targets_of(build):
    """Names of the targets that are built."""
    return sorted(path.name.removeprefix("fuzz_") for path in build.glob("tests/fuzz/fuzz_*") if os.access(path, os.X_OK)
                  and path.is_file())


class Runner:
    """Runs single targets below a folder of its own."""

    def __init__(self, options, work):
        self.options = options
        self.work = work
        self.running = set()
        self.lock = threading.Lock()
        self.stopped = False

    def stop(self):
        """Ends what runs, so that an interrupt leaves nothing behind."""
        with self.lock:
            self.stopped = True
            for process in self.running:
                process.kill()

    def fuzzer(self, target, arguments, log, limit):
        """Runs a target's program; returns its status (None: it was killed after `limit` seconds) and CPU seconds."""
        temporary = self.work / target / "tmp"
        temporary.mkdir(parents=True, exist_ok=True)
        environment = {
            **os.environ,
            "TMPDIR": str(temporary),
            "ASAN_OPTIONS": "malloc_context_size=8:quarantine_size_mb=32",
            "UBSAN_OPTIONS": "print_stacktrace=1",
        }
        program = self.options.build / "tests" / "fuzz" / f"fuzz_{target}"
        with open(log, "ab") as output:
            with self.lock:
                if self.stopped:
                    return None, 0
                process = subprocess.Popen([program, *map(str, arguments)], stdin=subprocess.DEVNULL, stdout=output,
                                           stderr=output, env=environment, cwd=self.work / target)
                self.running.add(process)
            timer = threading.Timer(limit, process.kill)
            timer.start()
            _, status, usage = os.wait4(process.pid, 0)
            timer.cancel()
            with self.lock:
                self.running.discard(process)
            process.returncode = os.waitstatus_to_exitcode(status)
        shutil.rmtree(temporary, ignore_errors=True)
        killed = process.returncode == -signal.SIGKILL
        return None if killed else process.returncode, usage.ru_utime + usage.ru_stime

    def run(self, target):
        """Replays what is kept of a target, then looks for more."""
        result = Result(target)
        place = self.work / target
        corpus = place / "corpus"
        kept = HERE / "corpus" / target
        regressions = HERE / "regressions" / target
        corpus.mkdir(parents=True)
        for folder in (kept, regressions):
            for path in folder.glob("*") if folder.is_dir() else ():
                shutil.copy(path, corpus / path.name)
        log = self.options.logs / f"{target}.log"
        log.unlink(missing_ok=True)
        artifacts = f"-artifact_prefix={self.options.logs}/{target}-"
        bounds = [f"-timeout={INPUT_SECONDS}", f"-rss_limit_mb={MEMORY_MB}", f"-max_len={MAX_LENGTH.get(target, 4096)}",
                  artifacts]

        inputs = sorted(corpus.iterdir())
        result.replayed = len(inputs)
        if inputs:
            status, _ = self.fuzzer(target, [*bounds, *inputs], log, 600)
            if status != 0:
                self.explain(result, log, "an input that is kept fails")
                return result
        dictionary = HERE / "dictionaries" / f"{target}.dict"
        words = [f"-dict={dictionary}"] if dictionary.is_file() else []
        seconds = self.options.seconds
        began = time.monotonic()
        status, result.cpu_seconds = self.fuzzer(
            target, [*bounds, *words, f"-max_total_time={seconds}", "-print_final_stats=1",
                     f"-seed={self.options.seed}", corpus], log, seconds + 120)
        result.seconds = time.monotonic() - began
        self.read_figures(result, log)
        if status is None and not self.stopped:
            result.problems.append("the target did not end in its time")
        elif status != 0:
            self.explain(result, log, "an input fails")
        elif result.executions <= result.replayed:
            result.problems.append("the target made no executions")
        elif self.options.keep:
            self.keep(target, bounds, corpus, kept, log)
        return result

    @staticmethod
    def read_figures(result, log):
        """The fuzzer's own figures at the end of its output."""
        text = log.read_text(errors="replace")

        def figure(expression):
            found = re.findall(expression, text)
            return int(found[-1]) if found else 0

        result.executions = figure(r"stat::number_of_executed_units:\s*(\d+)")
        result.new = figure(r"stat::new_units_added:\s*(\d+)")
        result.peak_mb = figure(r"stat::peak_rss_mb:\s*(\d+)")
        result.edges = figure(r"\bcov: (\d+)")

    def explain(self, result, log, what):
        """Says which input fails and how."""
        if self.stopped:
            return
        text = log.read_text(errors="replace")
        reason = re.search(r"broken promise: .*|SUMMARY: .*|ERROR: .*|runtime error: .*", text)
        kept = re.search(r"Test unit written to (.*)", text)
        replayed = re.findall(r"^Running: (.*)", text, re.MULTILINE)
        result.problems.append(f"{what}: {reason.group(0) if reason else 'see the log'}")
        if kept or replayed:
            result.problems.append(f"input {kept.group(1) if kept else Path(replayed[-1]).name}")
        result.problems.append(f"log {log}")

    def keep(self, target, bounds, corpus, kept, log):
        """Makes the kept corpus the smallest that reaches what this run has reached; the inputs of people stay."""
        place = self.work / target
        smallest = place / "smallest"
        smallest.mkdir()
        kept.mkdir(parents=True, exist_ok=True)
        for path in kept.iterdir():
            if not GENERATED.match(path.name):
                shutil.copy(path, smallest)
        # Edges alone: how often each is passed would make the corpus ten times as large.
        status, _ = self.fuzzer(target, ["-merge=1", "-use_counters=0", *bounds, smallest, corpus], log, 1800)
        if status != 0:
            return
        generated = sorted((path for path in smallest.iterdir() if GENERATED.match(path.name)),
                           key=lambda path: path.stat().st_size)
        for path in kept.iterdir():
            if GENERATED.match(path.name):
                path.unlink()
        room = MOST_KEPT - sum(1 for _ in kept.iterdir())
        for path in generated[:max(room, 0)]:
            shutil.copy(path, kept)


def table(results):
    """The figures of all targets, as lines."""
    head = ("target", "executions", "exec/s", "edges", "replayed", "new inputs", "peak MB", "CPU s", "")
    rows = [(each.target, f"{each.executions}", f"{each.executions / each.seconds:.0f}" if each.seconds else "-",
             f"{each.edges}", f"{each.replayed}", f"{each.new}", f"{each.peak_mb}", f"{each.cpu_seconds:.1f}",
             "failed" if each.problems else "") for each in results]
    widths = [max(len(row[column]) for row in [head, *rows]) for column in range(len(head))]
    for row in [head, *rows]:
        yield "  ".join([row[0].ljust(widths[0])] +
                        [cell.rjust(width) for cell, width in zip(row[1:], widths[1:])]).rstrip()


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--seconds", type=int, default=60, help="time for each target (default %(default)s)")
    parser.add_argument("--jobs", type=int, default=os.cpu_count(),
                        help="targets that run at the same time (default: the processor's cores, here %(default)s)")
    parser.add_argument("--targets", nargs="+", metavar="TARGET", help="these alone (default: all)")
    parser.add_argument("--keep", action="store_true",
                        help="take the new inputs into tests/fuzz/corpus, as few as reach the same places")
    parser.add_argument("--seed", type=int, default=0, help="of the fuzzer's chances (default: a new one each time)")
    parser.add_argument("--build", type=Path, default=TOP / "build" / "fuzz", help="folder of the build")
    parser.add_argument("--logs", type=Path, help="folder of logs and failing inputs (default: BUILD/fuzz-logs)")
    options = parser.parse_args()
    options.build = options.build.resolve()
    options.logs = (options.logs or options.build / "fuzz-logs").resolve()
    options.logs.mkdir(parents=True, exist_ok=True)
    built = targets_of(options.build)
    wanted = options.targets or built
    unknown = sorted(set(wanted) - set(built))
    if unknown or not wanted:
        print(f"fuzz: no such target in {options.build}: {' '.join(unknown) or 'none is built'}", file=sys.stderr)
        return 2

    memory = Path("/dev/shm")
    parent = memory if os.access(memory, os.W_OK) else None
    with tempfile.TemporaryDirectory(prefix="dirwell-fuzz-", dir=parent) as work:
        runner = Runner(options, Path(work))
        with ThreadPoolExecutor(max_workers=max(options.jobs, 1)) as pool:
            try:
                results = list(pool.map(runner.run, wanted))
            except KeyboardInterrupt:
                runner.stop()
                return 130
    print("\n".join(table(results)))
    for each in results:
        for problem in each.problems:
            print(f"{each.target}: {problem}")
    return 1 if any(each.problems for each in results) else 0


if __name__ == "__main__":
    sys.exit(main())
