"""Lasting caches from outside: the endpoints, the database files and what the daemon watches."""

import contextlib
import os
import pathlib
import sqlite3
import subprocess
import time

from .instance import fresh_instance, wait_until
from .loglines import said

UNKNOWN = "00000000-0000-4000-8000-000000000000"  # a uuid in form that no listing has


def give_volume(instance):
    """A default volume of the instance's own, below its root."""
    instance.volume = instance.root / "volume"
    instance.volume.mkdir()
    instance.volume.chmod(0o755)
    instance.write_default_volume(instance.volume)
    return instance


@contextlib.contextmanager
def caching_instance(user="root"):
    """A running instance with a default volume, which says all that level 7 shows."""
    with fresh_instance(user) as made:
        yield give_volume(made).start("--level", "7", "--sid", made.sid)


# --- Requests ---


def places(*folders):
    """The "path" of a request; each folder a path, or a path and its alias."""
    pairs = (folder if isinstance(folder, tuple) else (folder, "/Share") for folder in folders)
    return [{"full_path": str(full), "alias": alias} for full, alias in pairs]


def create(instance, *folders, **keys):
    return instance.call("create.cache", {"path": places(*folders), **keys})


def page(instance, uuid, **keys):
    return instance.call("fetch.cache", {"uuid": uuid, **keys})


def delete(instance, uuid, **keys):
    return instance.call("delete.cache", {"uuid": uuid, **keys})


def outcome(reply):
    return reply["error_code"], reply["error_message"]


def made(instance, *folders, **keys):
    """The uuid of a new cache."""
    reply = create(instance, *folders, **keys)
    assert outcome(reply) == (0, ""), reply
    return reply["uuid"]


def names(reply):
    assert outcome(reply) == (0, ""), reply
    return [entry["filename"] for entry in reply["datas"]]


def heard(instance, since):
    """Tag and message of the lines after the first `since`, without those of the watch jobs, which run in between."""
    return [line for line in said(instance.lines()[since:]) if not line[1].endswith("cannot be watched")]


# --- Files ---


def database(instance, index=1):
    return instance.volume / ".fs" / f"{instance.sid}.{index}"


def cache_files(instance):
    return sorted(path.name for path in (instance.volume / ".fs").iterdir())


@contextlib.contextmanager
def opened(path):
    """An independent reader and writer of a database file; each statement stands for itself."""
    connection = sqlite3.connect(path, timeout=10, isolation_level=None)
    connection.text_factory = bytes
    try:
        yield connection
    finally:
        connection.close()


def rows(path, sql):
    """Texts come as bytes."""
    with opened(path) as connection:
        return connection.execute(sql).fetchall()


@contextlib.contextmanager
def small_disk(folder, size):
    """A file system of that many bytes over a folder, which is gone afterwards whatever happens."""
    subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={size},mode=755", "tmpfs", str(folder)], check=True)
    try:
        yield pathlib.Path(folder)
    finally:
        subprocess.run(["umount", "-l", str(folder)], check=True)


# --- Watches ---


def watches(instance, index):
    """What the daemon watches for an index, as the kernel tells: watch number to inode number."""
    base = pathlib.Path(f"/proc/{instance.process.pid}")
    queues = []
    for descriptor in sorted((base / "fd").iterdir(), key=lambda path: int(path.name)):
        with contextlib.suppress(FileNotFoundError):
            if os.readlink(descriptor) == "anon_inode:inotify":
                queues.append(descriptor.name)
    assert len(queues) == 2, queues  # one for each index, made in their order
    found = {}
    for line in (base / "fdinfo" / queues[index - 1]).read_text().splitlines():
        if line.startswith("inotify "):
            fields = dict(field.split(":", 1) for field in line.split()[1:])
            found[int(fields["wd"], 16)] = int(fields["ino"], 16)
    return found


def watched(instance, index):
    return sorted(watches(instance, index).values())


def inodes(*folders):
    return sorted(pathlib.Path(folder).stat().st_ino for folder in folders)


def wait_watched(instance, index, *folders, instead_of=None):
    """Waits until exactly these folders are watched, by other watches than those of `instead_of`."""

    def so():
        now = watches(instance, index)
        return sorted(now.values()) == inodes(*folders) and not set(now) & set(instead_of or {})

    assert wait_until(so), f"watched for {index}: {watches(instance, index)}, expected {inodes(*folders)}"


def followed(instance, *folders, watching=None, **keys):
    """The uuid of a new cache whose folders (or those of `watching`) the daemon has begun to watch."""
    index = int(keys.get("index", 1))
    before = watches(instance, index)
    uuid = made(instance, *folders, **keys)
    wait_watched(instance, index, *(folders if watching is None else watching), instead_of=before)
    return uuid


def next_second():
    """Change and reload are known to the second: what is to count as later happens in a later one."""
    now = time.time()
    time.sleep(int(now) + 1.02 - now)


def changed(instance, uuid, **keys):
    reply = page(instance, uuid, **keys)
    assert outcome(reply) == (0, ""), reply
    return reply["changed"]
