"""Checks all sources without running them: layout, clang-tidy, cppcheck, the scripts. ./dev lint calls it.

Usage: run.py [--jobs N] [--no-cache] [--verbose] [PATH...]; with paths clang-tidy checks the sources under them only.

Quiet while everything is clean; the last line is a summary. Exits 1 for a finding, and also when a tool fails, finds no
files or has no command for one: what was not checked is not clean.

clang-tidy is nine tenths of the time, and nearly all of that goes into the headers of the libraries, which it parses
and walks anew for each source. So the sources of one folder that are to be checked go through it as one unit (a file
that includes them), which is the same code under the same checks. Sources that define the same name at their top level
are kept apart, and if a unit still does not compile, its sources are checked one by one.

A source that was clean is not checked again until it, a header of ours that it reaches, its command, the checks, the
tools or an installed library changes (build/lint/clean.json).
"""

import argparse
import collections
import concurrent.futures
import hashlib
import json
import os
import pathlib
import re
import resource
import shlex
import shutil
import subprocess
import sys
import time

TOP = pathlib.Path(__file__).resolve().parent.parent.parent
BUILD = TOP / "build" / "lint"
UNITS = BUILD / "units"
CLEAN = BUILD / "clean.json"
FOLDERS = ["src", "tests", "bench"]

# Findings that are dropped, as (end of the path, check, reason); none is about a line of ours.
DROPPED = [
    ("boost/asio/impl/awaitable.hpp", "clang-analyzer-core.NullDereference",
     "the analyzer does not follow a coroutine from its suspension to its resumption, which sets what it misses"),
    ("boost/asio/impl/awaitable.hpp", "clang-analyzer-core.CallAndMessage", "the same"),
    ("boost/asio/impl/awaitable.hpp", "clang-analyzer-core.UndefinedBinaryOperatorResult", "the same"),
]

# clang is not g++: it does not know some of the warnings that our flags name, and finds unused what g++ needs.
CLANG_ARGUMENTS = ["-Wno-unknown-warning-option", "-Wno-unused-command-line-argument"]
# In a unit our sources are included files, which the analyzer would take for headers and leave out, and the names of
# one source are there for the next one to shadow; g++ warns of what is shadowed in a single one.
UNIT_ARGUMENTS = ["-Xclang", "-analyzer-opt-analyze-headers", "-Wno-shadow"]
# The analyzer follows a source into what it calls. In the functions of these libraries it would be lost for minutes, so
# it goes less deep where they are used.
DEEP_LIBRARIES = {"boost", "CLI"}
SHALLOW_ARGUMENTS = ["-Xclang", "-analyzer-config", "-Xclang", "mode=shallow"]

# The most sources of one unit: more gain little, and the last one running has nobody beside it.
MOST_IN_UNIT = 12

FINDING = re.compile(r"^(/[^:\n]+):(\d+):\d+: (?:warning|error): .*\[([^\]\n]+)\]$")
INCLUDE = re.compile(r'^[ \t]*#[ \t]*include[ \t]*[<"]([^">\n]+)[>"]', re.MULTILINE)
# What a line at the left edge defines: a type or alias, or the last name before its value, parameters or body.
TYPE_NAME = re.compile(r"^(?:struct|class|enum class|enum|union|using(?= \w+ =)) (?:\[\[.*?\]\] )?(\w+)")
OTHER_NAME = re.compile(r"^(?:\w|\[\[).*?(?<![\w:])(\w+)(?:\[\w*\])?\s*(?:\(|=|\{|;|$)")


class Failure(Exception):
    """Something could not be checked."""


def run(command, **options):
    try:
        return subprocess.run(command, capture_output=True, text=True, check=False, **options)
    except FileNotFoundError:
        raise Failure(f"{command[0]} is not installed") from None


def must(command, what):
    """Runs a command that is clean when it succeeds; its output is the findings otherwise."""
    done = run(command, cwd=TOP)
    if done.returncode != 0:
        text = (done.stdout + done.stderr).strip() or f"it ended with status {done.returncode}"
        return f"{what}:\n{text}\n"
    return ""


def files_of(*suffixes):
    """All files of ours with one of the suffixes, as paths from the top."""
    found = [path.relative_to(TOP) for folder in FOLDERS for path in (TOP / folder).rglob("*")
             if path.suffix in suffixes and path.is_file()]
    if not found:
        raise Failure(f"no files with {' '.join(suffixes)} under {TOP}")
    return sorted(found)


# The quick checks: each returns its findings as text.

def check_layout():
    return must(["clang-format", "--dry-run", "-Werror", *map(str, files_of(".cpp", ".h", ".c"))], "clang-format")


def check_scripts():
    python = [str(path) for path in files_of(".py")]
    return (must(["pyflakes3", *python], "pyflakes") +
            must(["shellcheck", "dev", ".ci/run", "tests/system/harness/boot.sh"], "shellcheck"))


def check_with_cppcheck(jobs):
    command = ["cppcheck", f"-j{jobs}", "--quiet", "--error-exitcode=1", "--inline-suppr",
               "--enable=warning,style,performance,portability", "--suppressions-list=tests/lint/cppcheck.txt",
               "--library=posix,gnu,googletest,sqlite3", "-D_GNU_SOURCE", "-Isrc", "-Itests", "-Itests/unit",
               "--template={file}:{line}: {severity}: {message} [{id}]"]
    findings = ""
    for standard, suffix in (("--std=c++20", ".cpp"), ("--std=c11", ".c")):
        sources = [str(path) for path in files_of(".cpp", ".c") if path.suffix == suffix]
        if sources:
            findings += must([*command, standard, *sources], "cppcheck")
    return findings


# clang-tidy

def configure():
    """Makes the compile commands of everything, the fuzz targets included, as clang takes them."""
    done = run(["cmake", "--fresh", "-S", str(TOP), "-B", str(BUILD), "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug",
                "-DCMAKE_C_COMPILER=clang", "-DCMAKE_CXX_COMPILER=clang++", "-DDIRWELL_FUZZ=ON"])
    if done.returncode != 0:
        raise Failure("cannot configure build/lint:\n" + done.stdout + done.stderr)


def compile_commands():
    """The folder and the arguments of each source's compiler, without input, output and what would have to be built."""
    commands = {}
    for entry in json.loads((BUILD / "compile_commands.json").read_text(encoding="utf-8")):
        arguments = shlex.split(entry["command"])
        for option in ("-o", "-c"):
            place = arguments.index(option)
            del arguments[place:place + 2]
        if "-include-pch" in arguments:  # as text the same headers are included by the option behind it
            place = arguments.index("-include-pch") - 1
            del arguments[place:place + 4]
        commands.setdefault(pathlib.Path(entry["file"]), (entry["directory"], arguments))
    # What only other presets build is compiled as main.cpp is, with the headers that only g++ has behind clang's.
    directory, arguments = commands[TOP / "src/main.cpp"]
    others = (directory, [*arguments, "-idirafter", run(["g++", "-print-file-name=include"]).stdout.strip()])
    return {path: commands.get(TOP / path, others) for path in files_of(".cpp", ".c")}


def digest(*parts):
    return hashlib.sha256("\0".join(parts).encode()).hexdigest()


class State:
    """What the result of a source depends on: what it includes of ours, and all the rest."""

    def __init__(self, commands):
        self._commands = commands
        self._texts = {}
        tools = run(["clang-tidy", "--version"]).stdout
        libraries = run(["dpkg-query", "-W", "-f", "${Package} ${Version}\n", "*-dev", "clang*"]).stdout
        self._common = digest(tools, libraries, pathlib.Path(__file__).read_text(encoding="utf-8"))

    def _text(self, path):
        if path not in self._texts:
            text = path.read_text(encoding="utf-8", errors="surrogateescape")
            self._texts[path] = (hashlib.sha256(text.encode(errors="surrogateescape")).hexdigest(),
                                 INCLUDE.findall(text))
        return self._texts[path]

    def _reached(self, source):
        """The files of ours that a source is made of, with their digests, and what libraries they include."""
        folders = [pathlib.Path(argument[2:]) for argument in self._commands[source][1]
                   if argument.startswith("-I") and argument[2:].startswith(str(TOP))]
        seen, libraries = {}, set()
        waiting = [TOP / source]
        while waiting:
            path = waiting.pop()
            if path in seen:
                continue
            seen[path], names = self._text(path)
            for name in names:
                found = [file for file in (folder / name for folder in [path.parent, *folders]) if file.is_file()]
                waiting += found
                if not found and "/" in name:
                    libraries.add(name.split("/")[0])
        return seen, sorted(libraries)

    def of(self, source):
        seen, _ = self._reached(source)
        checks = [config.read_text(encoding="utf-8") for config in configs_of(source)]
        return digest(self._common, *checks, *self._commands[source][1],
                      *(f"{path} {seen[path]}" for path in sorted(seen)))

    def libraries(self, source):
        return self._reached(source)[1]


def configs_of(source):
    """Every .clang-tidy above a source, the nearest first."""
    folders = [folder for folder in (TOP / source).parents if folder.is_relative_to(TOP)]
    return tuple(folder / ".clang-tidy" for folder in folders if (folder / ".clang-tidy").is_file())


def names_defined(source):
    names = set()
    for line in (TOP / source).read_text(encoding="utf-8", errors="replace").splitlines():
        if not line or line[0] in " \t#/}" or line.startswith(("TEST", "INSTANTIATE", "namespace", "template")):
            continue
        match = TYPE_NAME.match(line) or (not line.startswith("using") and OTHER_NAME.match(line))
        if match:
            names.add(match.group(1))
    return names


def units_of(sources, commands, state):
    """Lists of sources that can be checked as one: same folder and command, no name defined twice.

    Sources that need the same libraries stand together, the deep ones apart, so that the others do not pay for them.
    """
    alike = collections.defaultdict(list)
    for source in sources:
        deep = not DEEP_LIBRARIES.isdisjoint(state.libraries(source))
        alike[(source.parent, source.suffix, deep, tuple(commands[source][1]))].append(source)
    units = []
    for group in alike.values():
        open_units = []
        for source in sorted(group, key=lambda source: (state.libraries(source), source)):
            names = names_defined(source)
            unit = next((unit for unit in open_units if len(unit[0]) < MOST_IN_UNIT and not unit[1] & names), None)
            if unit is None:
                unit = ([], set())
                open_units.append(unit)
            unit[0].append(source)
            unit[1].update(names)
        units += [members for members, _ in open_units]
    return units


def weight(source):
    return (TOP / source).stat().st_size


def findings_of(output):
    """The findings in what clang-tidy printed, each with its notes, as (path, check, text)."""
    found = []
    for line in output.splitlines():
        match = FINDING.match(line)
        if match:
            found.append([os.path.normpath(match.group(1)), match.group(3).replace(",-warnings-as-errors", ""), []])
        if found:
            found[-1][2].append(line)
    return [(path, check, "\n".join(lines)) for path, check, lines in found]


def dropped(path, check):
    return any(path.endswith(end) and check == dropped_check for end, dropped_check, _ in DROPPED)


def tidy(sources, commands, state):
    """Findings of one unit, and whether it compiled."""
    directory, arguments = commands[sources[0]]
    extra = list(CLANG_ARGUMENTS)
    if not DEEP_LIBRARIES.isdisjoint(state.libraries(sources[0])):
        extra += SHALLOW_ARGUMENTS
    if len(sources) == 1:
        file = TOP / sources[0]
    else:
        file = UNITS / sources[0].parent / (digest(*map(str, sources))[:16] + sources[0].suffix)
        file.write_text("".join(f'#include "{TOP / source}"  // NOLINT: one unit, see tests/lint/run.py\n'
                                for source in sources), encoding="utf-8")
        extra += UNIT_ARGUMENTS
    done = run(["clang-tidy", "--quiet",
                f"--header-filter=^{re.escape(str(TOP))}/({'|'.join(FOLDERS)})/", str(file), "--",
                *arguments[1:], *extra], cwd=directory)
    found = findings_of(done.stdout)
    compiled = not any(check == "clang-diagnostic-error" for _, check, _ in found)
    kept = [finding for finding in found if not dropped(*finding[:2])]
    if done.returncode not in (0, 1) or (done.returncode == 1 and not found):
        kept.append((str(file), "crash", f"clang-tidy ended with {done.returncode} for {' '.join(map(str, sources))}:\n"
                     + done.stdout + done.stderr))
    return kept, compiled


def check_unit(sources, commands, state):
    started = time.monotonic()
    found, compiled = tidy(sources, commands, state)
    if not compiled and len(sources) > 1:
        found = []
        for source in sources:
            found += tidy([source], commands, state)[0]
    return sources, found, time.monotonic() - started


def make_folders_of_units(sources):
    """One for each folder of sources, with copies of the .clang-tidy files: the folders of a file give its checks."""
    shutil.rmtree(UNITS, ignore_errors=True)
    for source in sources:
        (UNITS / source.parent).mkdir(parents=True, exist_ok=True)
        for config in configs_of(source):
            shutil.copyfile(config, UNITS / config.relative_to(TOP))


def check_with_tidy(jobs, use_cache, paths, log):
    configure()
    commands = compile_commands()
    make_folders_of_units(commands)
    state = State(commands)
    states = {source: state.of(source) for source in commands}
    clean = json.loads(CLEAN.read_text(encoding="utf-8")) if use_cache and CLEAN.is_file() else {}
    clean = {name: value for name, value in clean.items() if states.get(pathlib.Path(name)) == value}
    chosen = [source for source in commands
              if not paths or any((TOP / source).is_relative_to(path.resolve()) for path in paths)]
    if not chosen:
        raise Failure("no sources there")
    stale = [source for source in chosen if str(source) not in clean]
    units = sorted(units_of(stale, commands, state), key=lambda unit: sum(map(weight, unit)), reverse=True)
    told = set()  # a finding in a header comes from each unit that reaches it
    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        checks = [pool.submit(check_unit, unit, commands, state) for unit in units]
        for future in concurrent.futures.as_completed(checks):
            unit, found, seconds = future.result()
            log(f"{seconds:6.1f} s  {' '.join(map(str, unit))}")
            for place, text in ((text.split("\n", 1)[0], text) for _, _, text in found):
                if place not in told:
                    told.add(place)
                    print(text, flush=True)
            if not found:
                clean.update({str(source): states[source] for source in unit})
                CLEAN.write_text(json.dumps(clean, indent=0, sort_keys=True), encoding="utf-8")
    return len(told), len(chosen), len(chosen) - len(stale)


def main():
    options = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    options.add_argument("--jobs", type=int, default=os.cpu_count(), help="how many run at once (default: one a core)")
    options.add_argument("--no-cache", action="store_true", help="check what was clean again, too")
    options.add_argument("--verbose", action="store_true", help="tell the time of each unit")
    options.add_argument("paths", type=pathlib.Path, nargs="*", metavar="PATH", help="what clang-tidy checks")
    chosen = options.parse_args()
    started = time.monotonic()
    log = (lambda line: print(line, flush=True)) if chosen.verbose else (lambda line: None)
    try:
        quick = check_layout() + check_scripts() + check_with_cppcheck(chosen.jobs)
        print(quick, end="", flush=True)
        findings, count, cached = check_with_tidy(chosen.jobs, not chosen.no_cache, chosen.paths, log)
    except Failure as failure:
        print(f"lint: {failure}", file=sys.stderr)
        return 1
    clean = not quick and findings == 0
    used = resource.getrusage(resource.RUSAGE_CHILDREN)
    print(f"lint: {'clean' if clean else 'findings above'}; {count} sources ({cached} from cache)"
          f" in {time.monotonic() - started:.0f} s, {used.ru_utime + used.ru_stime:.0f} s of a processor")
    return 0 if clean else 1


if __name__ == "__main__":
    sys.exit(main())
