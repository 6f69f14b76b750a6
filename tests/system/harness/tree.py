"""Files of a test share with every property chosen."""

import os

WHEN = 1_600_000_000  # 2020-09-13 12:26:40 UTC, a Sunday


def make_file(path, content=b"", mtime=WHEN, mode=0o644, uid=0, gid=0):
    """`content`: the bytes, a text, or a size in bytes (then the file is a hole)."""
    with open(path, "wb") as file:
        if isinstance(content, int):
            file.truncate(content)
        else:
            file.write(content if isinstance(content, bytes) else content.encode("utf-8"))
    return settle(path, mtime, mode, uid, gid)


def make_folder(path, mtime=WHEN, mode=0o755, uid=0, gid=0):
    os.mkdir(path)
    return settle(path, mtime, mode, uid, gid)


def make_link(path, target, mtime=WHEN):
    os.symlink(target, path)
    os.utime(path, (mtime, mtime), follow_symlinks=False)
    return path


def settle(path, mtime, mode, uid, gid):
    os.chown(path, uid, gid)
    os.chmod(path, mode)
    os.utime(path, (mtime, mtime))
    return path
