"""What the daemon holds, and the tables that are printed at the end."""

import collections
import os
import pathlib

from chronicle import DESCRIPTORS, PROCESSES, TOOLS

KIB = 1024


def describe(instance):
    """What each thread of the daemon does, and how long it has had a processor and has waited for one."""
    found = []
    for task in sorted(pathlib.Path(f"/proc/{instance.process.pid}/task").iterdir()):
        name, _, rest = (task / "stat").read_text().partition("(")[2].rpartition(")")
        ran, waited, _ = (task / "schedstat").read_text().split()
        found.append(f"{name} {rest.split()[0]} in {(task / 'wchan').read_text()}, ran {int(ran) / 1e9:.1f} s, "
                     f"waited {int(waited) / 1e9:.1f} s")
    return "; ".join(found)


class Holdings:
    """Of a daemon at one moment: what must not grow."""

    def __init__(self, instance):
        base = pathlib.Path(f"/proc/{instance.process.pid}")
        links = collections.Counter()
        for descriptor in os.listdir(base / "fd"):
            try:
                target = os.readlink(base / "fd" / descriptor)
            except FileNotFoundError:
                continue
            links[target.split(":[")[0] if ":[" in target else target] += 1
        self.kinds = links
        self.descriptors = sum(links.values())
        self.threads = len(os.listdir(base / "task"))
        memory = {}
        for line in (base / "smaps_rollup").read_text().splitlines()[1:]:
            key, value = line.split(":")
            memory[key] = int(value.split()[0])
        self.resident = memory["Rss"]
        self.private = memory["Private_Clean"] + memory["Private_Dirty"]
        self.anonymous = memory["Anonymous"]
        times = [(task / "schedstat").read_text().split()[:2] for task in (base / "task").iterdir()]
        self.ran, self.waited = (sum(int(time[column]) for time in times) / 1e9 for column in (0, 1))

    def rows(self, later):
        return [("descriptors", self.descriptors, later.descriptors), ("threads", self.threads, later.threads),
                ("resident KiB", self.resident, later.resident), ("private KiB", self.private, later.private),
                ("anonymous KiB", self.anonymous, later.anonymous),
                ("processor seconds", f"{self.ran:.1f}", f"{later.ran:.1f}"),
                ("seconds waited for one", f"{self.waited:.1f}", f"{later.waited:.1f}")]


def percentile(ordered, share):
    return ordered[min(len(ordered) - 1, int(len(ordered) * share))]


def print_table(head, rows, out):
    """The first column to the left, the others to the right."""
    texts = [[str(cell) for cell in row] for row in (head, *rows)]
    widths = [max(len(row[column]) for row in texts) for column in range(len(head))]
    for row in texts:
        cells = [row[0].ljust(widths[0])] + [cell.rjust(width) for cell, width in zip(row[1:], widths[1:])]
        print("  " + "  ".join(cells).rstrip(), file=out)
    print(file=out)


def print_report(tally, seconds, troubles, before, after, out):
    """`troubles`: rows of a name and a figure."""
    total = tally.requests()
    answered = sum(len(times) for times in tally.seconds.values())
    print(f"\n{total} requests in {seconds:.0f} s, {total / seconds:.0f} a second; {answered} were waited for and "
          f"answered, {answered / seconds:.0f} a second\n", file=out)
    kinds = sorted({outcome for counts in tally.outcomes.values() for outcome in counts})
    rows = [[label, *(tally.outcomes[label][kind] or "" for kind in kinds)] for label in sorted(tally.outcomes)]
    print_table(["endpoint", *kinds], rows, out)
    rows = []
    for label in sorted(tally.seconds):
        ordered = sorted(tally.seconds[label])
        rows.append([label, len(ordered), *(f"{percentile(ordered, share) * 1000:.1f}" for share in (0.5, 0.9, 0.99)),
                     f"{ordered[-1] * 1000:.1f}"])
    print_table(["milliseconds", "replies", "50 %", "90 %", "99 %", "most"], rows, out)
    print_table(["clients that left", "times"], sorted(tally.left.items()), out)
    print_table(["done to the service", "times"], troubles, out)
    print_table(["the daemon has", "before", "after"], before.rows(after), out)


def trouble_rows(chronicle, killer, group, stranger_turns, changes, asks):
    scarce = {name: len(chronicle.shortages[name]) for name in (PROCESSES, TOOLS, DESCRIPTORS)}
    return [
        ("request processes killed", killer.kills),
        ("of these noticed by a client that waited", chronicle.excused_by_kill),
        ("times without enough processes", scarce[PROCESSES] if group is not None else "(no control group here)"),
        ("starts that this refused", group.refused() if group is not None else ""),
        ("times the user's process limit was reached", scarce[TOOLS]),
        ("listings whose videos could not be looked at", asks.videos_passed_over),
        ("times without enough descriptors", scarce[DESCRIPTORS]),
        ("calls of a stranger, all refused", stranger_turns),
        ("changes of folders", changes),
        ("deletions lost to a reader", asks.lost_deletes),
    ]
