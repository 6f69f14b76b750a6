#!/usr/bin/env python3
"""Holds the #include lines under src/ to the directions between the rooms.

Usage: check_includes.py [SRC_FOLDER]. Prints one line a fault and exits 1, or prints nothing and exits 0.
"""

import pathlib
import re
import sys

PLATFORM = "platform/include"
HOST = "platform/host"

# Which rooms the files of a room may include beside their own. ARCHITECTURE.md gives the reasons.
ALLOWED = {
    PLATFORM: set(),
    HOST: {PLATFORM},
    "service": {PLATFORM},
    "entry": set(),
    "ordering": {"entry"},
    "listing": {"ordering", "entry", "service", PLATFORM},
    "describe": {"listing", "entry", "service", PLATFORM},
    "cache": {"describe", "entry", "service", PLATFORM},
    "daemon": {"cache", "describe", "listing", "ordering", "entry", "service", PLATFORM},
    "client": set(),
    "main.cpp": {"daemon"},
}

INCLUDE = re.compile(r'^[ \t]*#[ \t]*include[ \t]*(?:"([^"]+)"|<([^>]+)>)', re.MULTILINE)
# String literals (and the names of includes) stand beside the comments, since no comment begins inside one.
TOKEN = re.compile(r'"(?:\\.|[^"\\\n])*"|/\*.*?\*/|//[^\n]*', re.DOTALL)


def without_comments(text):
    def blank(match):
        token = match.group(0)
        return token if token.startswith('"') else "\n" * token.count("\n")

    return TOKEN.sub(blank, text)


def room_of(path):
    """The room of a file given relative to src/: its folder, or the file itself where it stands in none."""
    parts = path.parts
    if parts[0] == "platform" and len(parts) > 2:
        return "/".join(parts[:2])
    return parts[0]


def included_files(source, text):
    """(line, name, target) of each include; the target is relative to src/, or None for what is not ours."""
    src, path = source
    for match in INCLUDE.finditer(text):
        line = text.count("\n", 0, match.start()) + 1
        quoted, angled = match.groups()
        name = quoted or angled
        target = None
        if (src / name).is_file():
            target = pathlib.Path(name)
        elif quoted and (src / path.parent / name).is_file():
            target = path.parent / name
        yield line, name, quoted is not None, target


def check(src):
    faults = []
    graph = {}
    for file in sorted(p for p in src.rglob("*") if p.suffix in {".h", ".hpp", ".cpp", ".c"}):
        path = file.relative_to(src)
        room = room_of(path)
        if room not in ALLOWED:
            faults.append(f"{path}: no known room")
            continue
        text = without_comments(file.read_text(encoding="utf-8"))
        targets = graph.setdefault(path, [])
        for line, name, quoted, target in included_files((src, path), text):
            if target is None:
                if quoted:
                    faults.append(f'{path}:{line}: "{name}" is no file under {src.name}/')
                continue
            if ".." in target.parts:
                faults.append(f'{path}:{line}: "{name}" leaves its folder')
                continue
            targets.append(target)
            other = room_of(target)
            if target != pathlib.Path(name) and room != PLATFORM:
                faults.append(f'{path}:{line}: "{name}" is to be written "{target}"')
            if other != room and other not in ALLOWED[room]:
                faults.append(f'{path}:{line}: {room} may not include {other} ("{name}")')
    return faults + cycles(graph)


def cycles(graph):
    """One line for each circle that a depth-first walk closes."""
    faults = []
    done = set()
    for start in graph:
        stack = [(start, iter(graph[start]))]
        on_road = [start]
        while stack:
            node, rest = stack[-1]
            if node in done:
                stack.pop()
                on_road.pop()
                continue
            following = next(rest, None)
            if following is None:
                done.add(node)
                stack.pop()
                on_road.pop()
            elif following in on_road:
                circle = on_road[on_road.index(following):] + [following]
                faults.append("circle: " + " -> ".join(str(path) for path in circle))
            elif following not in done:
                stack.append((following, iter(graph.get(following, []))))
                on_road.append(following)
    return faults


def main(arguments):
    default = pathlib.Path(__file__).resolve().parent.parent / "src"
    src = pathlib.Path(arguments[0]) if arguments else default
    if not src.is_dir():
        print(f"{src}: no such folder", file=sys.stderr)
        return 2
    faults = check(src)
    for fault in faults:
        print(fault)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
