"""The folders that are listed: some that stay as they are, whose listings are known to the last byte, and some that
change all the time, of which every name's life is noted."""

import collections
import os
import pathlib
import random
import threading
import time

WHEN = 1_600_000_000  # 2020-09-13 12:26:40 UTC

# Stands in for the video tool: what it says of a clip depends on the clip's name alone.
VIDEO_TOOL = """case "$3" in
  *h265*) echo '  Stream #0:0: Video: hevc (Main), yuv420p' >&2 ;;
  *) echo '  Stream #0:0: Video: h264 (High), yuv420p' >&2 ;;
esac
exit 1
"""


def make_file(path, size=0, mode=0o644, mtime=WHEN, owner=0, group=0):
    with open(path, "wb") as file:
        file.truncate(size)
    os.chown(path, owner, group)
    os.chmod(path, mode)
    os.utime(path, (mtime, mtime))


def make_folder(path, mode=0o755):
    path.mkdir()
    path.chmod(mode)
    return path


class StableShare:
    """Nothing in it changes while the service works."""

    NUMBERED = 700

    def __init__(self, folder, owner, group):
        self.folder = make_folder(folder)
        self.numbered = make_folder(folder / "numbered")
        for number in range(self.NUMBERED):
            make_file(self.numbered / f"n{number:03d}.dat", number, mtime=WHEN + number)
        self.mixed = make_folder(folder / "mixed")
        make_file(self.mixed / "apple.txt", 10)
        make_file(self.mixed / "Berry.txt", 3000, 0o640, owner=owner, group=group)
        make_file(self.mixed / "closed.pdf", 5, 0o600)
        make_file(self.mixed / "item 2.bin", 2)
        make_file(self.mixed / "item 10.bin", 2_000_000)
        make_file(self.mixed / "\u00e9lan.txt", 4, 0o444)
        make_file(self.mixed / ".hidden", 1)
        make_folder(self.mixed / "sub")
        os.symlink("apple.txt", self.mixed / "to apple")
        os.symlink("nowhere", self.mixed / "to nothing")
        for name in ("sub", ".", "to apple", "to nothing"):
            os.utime(self.mixed / name, (WHEN, WHEN), follow_symlinks=False)
        self.tree = make_folder(folder / "tree")
        for branch in "abcde":
            make_folder(self.tree / branch)
            for number in range(20):
                make_file(self.tree / branch / f"leaf {branch}{number:02d}.txt", number)
            os.utime(self.tree / branch, (WHEN, WHEN))
        self.media = make_folder(folder / "media")
        make_file(self.media / "clip h264.mkv", 100)
        make_file(self.media / "clip h265.mp4", 200)
        make_file(self.media / "photo.jpg", 300)
        make_file(self.media / "song.mp3", 400)
        make_folder(self.media / ".@__thumb")
        make_file(self.media / ".@__thumb" / "s100photo.jpg")
        self.empty = make_folder(folder / "empty")
        self.closed = make_folder(folder / "closed", 0o700)
        make_file(self.closed / "secret.txt")


class Life:
    """Of a name: it was surely there from `there` until `going`, and may have been seen from `coming` until `gone`."""

    __slots__ = ("coming", "there", "going", "gone")

    def __init__(self):
        self.coming = time.monotonic()
        self.there = self.going = self.gone = None


class LivelyFolder:
    """Files come, go and get new names; no name is ever used again."""

    LEAST, MOST = 40, 160

    def __init__(self, folder, seed):
        self.folder = make_folder(folder)
        self.random = random.Random(seed)
        self.lock = threading.Lock()
        self.lives = {}
        self.alive = collections.OrderedDict()  # those that are surely there
        self.closings = []  # of the folder: [begin, end], the end None while it is closed
        self.openings = [[time.monotonic(), None]]  # spans in which it was surely open
        self.changes = 0
        self.next_number = 0
        while len(self.alive) < self.LEAST:
            self.create()

    def new_name(self):
        self.next_number += 1
        return f"c{self.next_number:06d}.{self.random.choice(('txt', 'bin', 'pdf', 'zip'))}"

    def coming(self, name):
        life = Life()
        with self.lock:
            self.lives[name] = life
        return life

    def came(self, name, life):
        life.there = time.monotonic()
        with self.lock:
            self.alive[name] = life

    def going(self):
        """Some name, which is not surely there any more."""
        with self.lock:
            name = self.random.choice(list(self.alive))
            life = self.alive.pop(name)
            life.going = time.monotonic()
        return name, life

    def create(self):
        name = self.new_name()
        life = self.coming(name)
        make_file(self.folder / name, self.random.randrange(5000))
        self.came(name, life)

    def remove(self):
        name, life = self.going()
        (self.folder / name).unlink()
        life.gone = time.monotonic()

    def rename(self):
        old, old_life = self.going()
        new = self.new_name()
        new_life = self.coming(new)
        (self.folder / old).rename(self.folder / new)
        self.came(new, new_life)
        old_life.gone = time.monotonic()

    def change_mode_of_file(self):
        with self.lock:
            name = self.random.choice(list(self.alive))
        os.chmod(self.folder / name, self.random.choice((0o600, 0o644, 0o666, 0o755)))

    def close_for_a_while(self):
        """Nobody but root may read the folder for some milliseconds."""
        now = time.monotonic()
        with self.lock:
            self.openings[-1][1] = now
        self.folder.chmod(0o700)
        closed = [time.monotonic(), None]
        with self.lock:
            self.closings.append(closed)
        time.sleep(self.random.uniform(0.005, 0.06))
        closed[1] = time.monotonic()
        self.folder.chmod(0o755)
        with self.lock:
            self.openings.append([time.monotonic(), None])

    def change(self):
        """One change; called by one thread."""
        self.changes += 1
        choices = [self.rename, self.change_mode_of_file]
        if len(self.alive) < self.MOST:
            choices += [self.create] * 2
        if len(self.alive) > self.LEAST:
            choices += [self.remove] * 2
        if self.random.random() < 0.02:
            choices = [self.close_for_a_while]
        self.random.choice(choices)()

    def check(self, names, span, complete):
        """That these names may be what a listing in the span gave; `complete` when nothing was to end it early."""
        assert len(set(names)) == len(names), f"a name is listed twice in {self.folder}"
        with self.lock:
            for name in names:
                life = self.lives.get(name)
                assert life is not None, f"{name} never was in {self.folder}"
                assert life.coming <= span.end, f"{name} came only after it was listed"
                assert life.gone is None or life.gone >= span.begin, f"{name} had gone before it was listed"
            if any(begin <= span.begin and span.end <= (end or float("inf")) for begin, end in self.closings):
                assert names == [], f"{self.folder} was closed to the user and listed all the same"
            elif complete and any(begin <= span.begin and span.end <= (end or float("inf"))
                                  for begin, end in self.openings):
                missing = {name for name, life in self.alive.items() if life.there <= span.begin} - set(names)
                assert not missing, f"{sorted(missing)[:5]} of {self.folder} are missing"


class LivelyTree:
    """Folders that come, go and get new names, each with some files; only what may never happen can be told of it."""

    LEAST, MOST = 4, 12

    def __init__(self, folder, seed):
        self.folder = make_folder(folder)
        self.random = random.Random(seed)
        self.lock = threading.Lock()
        self.names = set()  # all that ever were
        self.branches = []
        self.next_number = 0
        self.changes = 0
        while len(self.branches) < self.LEAST:
            self.create()

    def new_name(self, kind):
        self.next_number += 1
        name = f"{kind}{self.next_number:06d}"
        with self.lock:
            self.names.add(name)
        return name

    def create(self):
        branch = make_folder(self.folder / self.new_name("branch"))
        self.branches.append(branch)
        for _ in range(self.random.randrange(6)):
            make_file(branch / self.new_name("leaf"))

    def remove(self):
        branch = self.branches.pop(self.random.randrange(len(self.branches)))
        for leaf in branch.iterdir():
            leaf.unlink()
        branch.rmdir()

    def rename(self):
        place = self.random.randrange(len(self.branches))
        new = self.folder / self.new_name("branch")
        self.branches[place].rename(new)
        self.branches[place] = new

    def change_mode(self):
        self.random.choice(self.branches).chmod(self.random.choice((0o700, 0o755, 0o755, 0o711)))

    def change(self):
        self.changes += 1
        choices = [self.rename, self.change_mode]
        if len(self.branches) < self.MOST:
            choices.append(self.create)
        if len(self.branches) > self.LEAST:
            choices.append(self.remove)
        self.random.choice(choices)()

    def check(self, paths, alias):
        """Of the shown paths of a listing."""
        assert len(set(paths)) == len(paths), f"a path is listed twice in {self.folder}"
        with self.lock:
            for path in paths:
                parts = pathlib.PurePosixPath(path).relative_to(alias).parts
                assert 1 <= len(parts) <= 2 and set(parts) <= self.names, f"{path} never was in {self.folder}"


class Changer(threading.Thread):
    """Changes one folder until it is told to stop."""

    def __init__(self, folder):
        super().__init__(daemon=True)
        self.folder = folder
        self.stopping = threading.Event()
        self.error = None

    def run(self):
        try:
            while not self.stopping.wait(self.folder.random.uniform(0.001, 0.02)):
                self.folder.change()
        except Exception as error:  # told at the end: a changer that is dead would make the rest too easy
            self.error = error

    def finish(self):
        self.stopping.set()
        self.join(30)
        assert not self.is_alive() and self.error is None, f"changing {self.folder.folder} failed: {self.error!r}"
