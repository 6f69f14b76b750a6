"""Runs every test with the coverage build and reports the lines and branches of src/ that they reach.

Called by ./dev coverage, as root. Writes build/coverage/report/ (HTML, JSON, text) and prints a table of the rooms. Ends
with 1 when a test fails or when a room has fewer of its lines run than the threshold.

Branches that exist only because a call may throw are left out: the compiler makes them at nearly every call, and most
cannot be taken. All else counts, what is thought to be impossible too.
"""

import argparse
import json
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile

TOP = pathlib.Path(__file__).resolve().parents[2]
BUILD = TOP / "build" / "coverage"
SOURCES = TOP / "src"
WORKERS = 4  # of the system tests


def prepare_counters(folder):
    """Makes a counter file for each object, writable for every user that a tested process may run as.

    The counters go to a folder of their own: the tree may lie where only root reaches. A process can only add to a file
    that is there and open to all, whoever comes first.
    """
    for notes in BUILD.rglob("*.gcno"):
        counters = folder / notes.with_suffix(".gcda").relative_to("/")
        counters.parent.mkdir(parents=True, exist_ok=True)
        counters.touch()
        counters.chmod(0o666)


def collect_counters(folders, work):
    """Brings the sums of the counters to the objects, where the report looks for them."""
    for old in BUILD.rglob("*.gcda"):
        old.unlink()
    total, *others = folders
    for folder in folders:
        for counters in folder.rglob("*.gcda"):
            if counters.stat().st_size == 0:
                counters.unlink()
    for number, folder in enumerate(others):
        merged = work / f"sum{number}"
        subprocess.run(["gcov-tool", "merge", "--output", str(merged), str(total), str(folder)], check=True)
        total = merged
    for counters in total.rglob("*.gcda"):
        shutil.copy(counters, "/" / counters.relative_to(total))


def run_tests(system_options):
    """Every test but those of the measurements, which are not built; False where one failed."""
    with tempfile.TemporaryDirectory(prefix="counters-") as name:
        work = pathlib.Path(name)
        work.chmod(0o755)
        folders = [work / part for part in ("unit", *(f"gw{number}" for number in range(WORKERS)))]
        for folder in folders:
            prepare_counters(folder)
        environment = {**os.environ, "DIRWELL_BUILD": str(BUILD), "PYTHONDONTWRITEBYTECODE": "1"}
        unit = subprocess.run(["ctest", "--preset", "coverage"], cwd=TOP,
                              env={**environment, "GCOV_PREFIX": str(folders[0])}, check=False)
        # The harness adds the worker.
        system = subprocess.run(["/usr/bin/python3", "-m", "pytest", "-q", "-rs", "-p", "no:cacheprovider",
                                 "-n", str(WORKERS), "--dist", "loadfile", "--ignore", "tests/system/test_bench.py",
                                 *system_options, "tests/system"],
                                cwd=TOP, env={**environment, "GCOV_PREFIX": str(work)}, check=False)
        collect_counters(folders, work)
    return unit.returncode == 0 and system.returncode == 0


def report(folder):
    """Writes the report and returns gcovr's data of each file."""
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    subprocess.run(["gcovr", "--root", str(TOP), "--filter", str(SOURCES) + "/", "--exclude-throw-branches",
                    "--gcov-ignore-parse-errors", "-j", str(os.cpu_count()),
                    "--html-details", str(folder / "index.html"), "--json", str(folder / "coverage.json"),
                    "--txt", str(folder / "coverage.txt"), str(BUILD / "src"), str(BUILD / "tests")],
                   cwd=BUILD, check=True)
    return json.loads((folder / "coverage.json").read_text())["files"]


def room_of(path):
    """The folder below src/ that a file belongs to; the platform's folders are one room."""
    parts = pathlib.PurePath(path).relative_to("src").parts
    return parts[0] if len(parts) > 1 else "main.cpp"


class Count:
    """How many there are and how many of them ran."""

    def __init__(self):
        self.all = 0
        self.run = 0

    def add(self, ran):
        self.all += 1
        self.run += bool(ran)

    def __str__(self):
        return f"{self.run:5} of {self.all:5} {self.percent():6.1f} %"

    def percent(self):
        return 100 * self.run / self.all if self.all else 100.0


def count_rooms(files):
    """Lines and branches of each room."""
    rooms = {}
    for file in files:
        lines, branches = rooms.setdefault(room_of(file["file"]), (Count(), Count()))
        for line in file["lines"]:
            if line["gcovr/noncode"]:
                continue
            lines.add(line["count"])
            for branch in line["branches"]:
                branches.add(branch["count"])
    return rooms


def print_rooms(rooms):
    total_lines, total_branches = Count(), Count()
    print(f"\n{'room':10} {'lines':>23}   {'branches (not those of exceptions)':>23}")
    for name, (lines, branches) in sorted(rooms.items()):
        print(f"{name:10} {lines}   {branches}")
        for total, part in ((total_lines, lines), (total_branches, branches)):
            total.all += part.all
            total.run += part.run
    print(f"{'all':10} {total_lines}   {total_branches}")


def main():
    parser = argparse.ArgumentParser(prog="./dev coverage", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--threshold", type=float, default=95, metavar="PERCENT",
                        help="lines that each room needs at least (default: %(default)s)")
    parser.add_argument("--report-only", action="store_true", help="report on the counters of the last run")
    parser.add_argument("system_options", nargs="*", metavar="OPTION", help="options of pytest, behind --")
    options = parser.parse_args()

    passed = options.report_only or run_tests(options.system_options)
    folder = BUILD / "report"
    rooms = count_rooms(report(folder))
    print_rooms(rooms)
    print(f"\nline by line: {folder / 'index.html'}")
    poor = [name for name, (lines, _) in sorted(rooms.items()) if lines.percent() < options.threshold]
    if poor:
        print(f"fewer than {options.threshold:g} % of the lines run: {', '.join(poor)}")
    if not passed:
        print("a test failed")
    return 1 if poor or not passed else 0


if __name__ == "__main__":
    sys.exit(main())
