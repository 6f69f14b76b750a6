"""What was found, as a table, as JSON and as a plot."""

import datetime
import json
import os
import pathlib
import platform
import re
import statistics
import subprocess
import tempfile

import cases

MS = 1000.0
TOP = pathlib.Path(__file__).resolve().parents[1]
PEERS = ("find -printf", "ls -lU", "ls -l", "tree -J", "tree -J with status", "rclone lsjson", "rclone rcd", "static server")


def machine():
    """What the figures depend on and tells this machine from another."""
    cpu = re.search(r"^model name\s*:\s*(.+)$", pathlib.Path("/proc/cpuinfo").read_text(), re.MULTILINE)
    memory = re.search(r"^MemTotal:\s*(\d+) kB$", pathlib.Path("/proc/meminfo").read_text(), re.MULTILINE)
    folder = subprocess.run(["df", "--output=fstype", tempfile.gettempdir()], stdout=subprocess.PIPE,
                            check=True).stdout.decode().split()[-1]
    return {
        "cpu": cpu.group(1) if cpu else platform.machine(),
        "cores": os.cpu_count(),
        "memory_mb": int(memory.group(1)) // 1024,
        "kernel": platform.release(),
        "system": platform.freedesktop_os_release().get("PRETTY_NAME", "Linux"),
        "file_system": folder,
    }


def revision():
    def git(*words):
        return subprocess.run(["git", "-C", str(TOP), *words], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                              check=False).stdout.decode().strip()

    commit = git("rev-parse", "--short", "HEAD")
    return f"{commit}, changed" if git("status", "--porcelain", "--untracked-files=no") else commit


def stages_of(output):
    """[(name, milliseconds, entries a second), ...] of Google Benchmark's report."""
    found = []
    for row in json.loads(output)["benchmarks"]:
        if row.get("error_occurred"):
            raise RuntimeError(f"{row['name']}: {row['error_message']}")
        if row.get("run_type") == "iteration":
            unit = {"ns": 1e-6, "us": 1e-3, "ms": 1.0, "s": 1e3}[row["time_unit"]]
            found.append({"stage": row["name"], "ms": row["real_time"] * unit,
                          "items_per_second": row.get("items_per_second")})
    return found


class Series:
    """The runs of one case."""

    def __init__(self, measured):
        self.seconds = [one.seconds for one in measured]
        peaks = [one.peak for one in measured if one.peak]  # none: too low to be told
        self.median = statistics.median(self.seconds)
        self.peak_mb = max(peaks) / 1024 if peaks else None

    def ratio(self, other):
        """The ratio of the medians, and the least and the greatest of those within a round."""
        each = [mine / its for mine, its in zip(self.seconds, other.seconds)]
        return self.median / other.median, min(each), max(each)


class Target:
    """One line of what the service is held to."""

    def __init__(self, work, value, limit, unit, at_least=False):
        self.work, self.value, self.limit, self.unit, self.at_least = work, value, limit, unit, at_least

    @property
    def met(self):
        return self.value >= self.limit if self.at_least else self.value <= self.limit

    def text(self):
        bound = "at least" if self.at_least else "at most"
        return (f"{'met   ' if self.met else 'MISSED'}  {self.work:<52}{self.value:>9.2f} {self.unit:<4} "
                f"{bound} {self.limit:g}")


class Unmeasured:
    """A target against a program that this machine lacks."""

    value = limit = unit = met = None

    def __init__(self, work):
        self.work = work

    def text(self):
        return f"UNKNOWN {self.work}: not measured, the program is not installed"


class Results:
    def __init__(self, groups, idle, stages, arguments):
        self.groups = {title: {name: Series(measured) for name, measured in table.items()}
                       for title, table in groups.items()}
        self.idle = idle
        self.stages = stages
        self.machine = machine()
        self.settings = {"rounds": arguments.rounds, "scale": arguments.scale, "revision": revision(),
                         "date": datetime.date.today().isoformat()}

    def targets(self):
        flat, tree, growth, small = (self.groups[title] for title in ("flat", "tree", "growth", "small"))
        name, create = flat["dirwell"], flat["create.cache"]

        def times(series, other):
            return series.median / other.median

        rows = [Target("flat folder, by name / floor", times(name, flat["floor"]), 2.2, "x")]
        for peer in ("ls -l", "tree -J with status", "rclone lsjson"):
            work = f"flat folder, by name / {peer}"
            rows.append(Target(work, times(name, flat[peer]), 1.0, "x") if peer in flat else Unmeasured(work))
        rows.append(Target("tree, by name / floor of the tree", times(tree["dirwell"], tree["floor"]), 2.3, "x"))
        rows += [Target(f"sort {field} / by name", times(flat[f"sort {field}"], name), 1.25, "x") for field in cases.SORTS]
        rows += [Target(f"cluster {field} / by name", times(flat[f"cluster {field}"], name), 1.25, "x")
                 for field in cases.CLUSTERS]
        rows += [Target(f"lang {code} / ENG", times(flat[f"lang {code}"], name), 1.4, "x") for code in cases.LANGUAGES]
        rows.append(Target("create.cache / floor", times(create, flat["floor"]), 2.5, "x"))
        for page in ("page at 0", "last page"):
            rows.append(Target(page, flat[page].median * MS, 25, "ms"))
            rows.append(Target(f"{page} / create.cache", times(flat[page], create), 1 / 8, "x"))
        rows.append(Target("20 entries", small["dirwell"].median * MS, 1.6, "ms"))
        work = "20 entries / rclone rcd"
        rows.append(Target(work, times(small["dirwell"], small["rclone rcd"]), 2.5, "x") if "rclone rcd" in small
                    else Unmeasured(work))
        rows.append(Target("20 entries, 8 clients", 1 / small["dirwell, 8 clients"].median, 900, "/s", at_least=True))
        rows.append(Target("growth from 10,000 to 100,000", times(growth["dirwell 100000"], growth["dirwell 10000"]), 12, "x"))
        own = [series.peak_mb for group in (flat, tree) for title, series in group.items()
               if title not in PEERS and title != "floor"]
        rows.append(Target("greatest memory of a request process", max(own), 110, "MB"))
        rows.append(Target("idle daemon, resident", self.idle["resident"] / 1024, 12, "MB"))
        rows.append(Target("idle daemon, private", self.idle["private"] / 1024, 6, "MB"))
        rows.append(Target("daemon start to first reply", self.groups["start"]["first reply"].median * MS, 40, "ms"))
        return rows

    def table(self, title, unit_of):
        lines = [f"{title:<28}{'median ms':>10}{'x floor':>9}   {'in a round':<15}{'peak MB':>8}"]
        for name, series in self.groups[title].items():
            ratio, least, most = series.ratio(self.groups[title][unit_of])
            peak = f"{series.peak_mb:8.1f}" if series.peak_mb else f"{'':>8}"
            lines.append(f"{name:<28}{series.median * MS:>10.1f}{ratio:>9.2f}   {f'{least:.2f} .. {most:.2f}':<15}{peak}")
        return lines

    def text(self):
        of = self.machine
        lines = [f"{of['cpu']}, {of['cores']} cores, {of['memory_mb']} MB, {of['system']}, kernel {of['kernel']}, "
                 f"{of['file_system']}; {self.settings['revision']}, {self.settings['date']}, "
                 f"{self.settings['rounds']} rounds" + ("" if self.settings["scale"] == 1 else
                                                        f", ALL SIZES DIVIDED BY {self.settings['scale']}"), ""]
        for title in ("flat", "tree"):
            lines += [*self.table(title, "floor"), ""]
        lines += self.growth_lines()
        lines += [f"{name:<28}{series.median * MS:>10.2f} ms" for name, series in self.groups["small"].items()]
        lines.append(f"{'first reply':<28}{self.groups['start']['first reply'].median * MS:>10.1f} ms")
        lines += ["", *self.video_lines()]
        lines += [f"{row['stage']:<56}{row['ms']:>12.3f} ms" for row in self.stages]
        lines += ["", *(target.text() for target in self.targets())]
        return "\n".join(lines)

    def growth_lines(self):
        growth = self.groups["growth"]
        lines = []
        for kind in ("floor", "dirwell"):
            sizes = [growth[f"{kind} {size}"] for size in (1000, 10000, 100000)]
            steps = ", ".join(f"{series.median * MS:.2f}" for series in sizes)
            factor = sizes[2].median / sizes[0].median
            lines.append(f"{kind + ' growing':<28}{steps} ms for 1,000, 10,000, 100,000: {factor:.1f} x")
        return lines

    def video_lines(self):
        if "videos" not in self.groups:
            return []
        page, closed, tool = (self.groups["videos"][name].median
                              for name in ("page", "page without the tool", "the tool alone"))
        return [f"{'page of videos':<28}{page * MS:>10.1f} ms: {closed * MS:.1f} ms where the tool is not called "
                f"({closed / page:.1%}), the tool alone {tool * MS:.1f} ms ({tool / page:.1%})", ""]

    def as_json(self):
        return {
            "machine": self.machine,
            "settings": self.settings,
            "idle_daemon_kb": self.idle,
            "groups": {title: {name: {"seconds": series.seconds, "median": series.median, "peak_mb": series.peak_mb}
                               for name, series in table.items()} for title, table in self.groups.items()},
            "stages": self.stages,
            "targets": [{"work": row.work, "value": row.value, "limit": row.limit, "unit": row.unit, "met": row.met}
                        for row in self.targets()],
        }

    def write(self, folder):
        """The files' names tell the machine, so that results of several machines stand side by side."""
        folder.mkdir(parents=True, exist_ok=True)
        name = re.sub(r"[^a-z0-9]+", "-", self.machine["cpu"].lower()).strip("-") + f"-{self.machine['cores']}-cores"
        (folder / f"{name}.json").write_text(json.dumps(self.as_json(), indent=1) + "\n")
        self.draw(folder / f"{name}.svg")

    def draw(self, path):
        # The library keeps a cache of the machine's fonts where it is told to; here it goes with the run.
        with tempfile.TemporaryDirectory() as cache:
            os.environ["MPLCONFIGDIR"] = cache
            self.draw_with_library(path)

    def draw_with_library(self, path):
        import matplotlib  # only here, where its cache has a place

        matplotlib.use("svg")
        matplotlib.rcParams["svg.hashsalt"] = "dirwell"
        from matplotlib import pyplot

        figure, axes = pyplot.subplots(1, 3, figsize=(15, 6.5), layout="constrained")
        for axis, title in zip(axes, ("flat", "tree")):
            self.draw_ratios(axis, title)
        self.draw_growth(axes[2])
        of = self.machine
        figure.suptitle(f"{of['cpu']}, {of['cores']} cores, kernel {of['kernel']}, {of['file_system']}; "
                        f"{self.settings['revision']}, {self.settings['date']}")
        figure.savefig(path, metadata={"Date": None})
        pyplot.close(figure)

    def draw_ratios(self, axis, title):
        table = self.groups[title]
        shown = [name for name in ("floor", "dirwell", "create.cache", *PEERS) if name in table]
        shown.sort(key=lambda name: table[name].median, reverse=True)
        ratios = [table[name].ratio(table["floor"]) for name in shown]
        medians = [ratio for ratio, _, _ in ratios]
        spread = [[max(0.0, ratio - least) for ratio, least, _ in ratios], [max(0.0, most - ratio) for ratio, _, most in ratios]]
        own = ("dirwell", "create.cache")
        colours = ["tab:blue" if name in own else "tab:green" if name == "floor" else "lightgrey" for name in shown]
        axis.barh(shown, medians, xerr=spread, color=colours, ecolor="dimgrey", capsize=2)
        for place, (ratio, _, most) in enumerate(ratios):
            axis.text(most, place, f"  {ratio:.2f}", va="center")
        axis.margins(x=0.12)
        axis.set_xlabel("times the floor (getdents64 and fstatat)")
        axis.set_title({"flat": "100,000 files in one folder", "tree": "100,000 entries in 2,000 folders"}[title])

    def draw_growth(self, axis):
        growth = self.groups["growth"]
        for kind, colour in (("floor", "tab:green"), ("dirwell", "tab:blue")):
            times = [growth[f"{kind} {size}"].median for size in (1000, 10000, 100000)]
            axis.loglog([1_000, 10_000, 100_000], [seconds * MS for seconds in times], marker="o", color=colour, label=kind)
        axis.set_xlabel("files in the folder")
        axis.set_ylabel("milliseconds")
        axis.set_title("Growth")
        axis.legend()
