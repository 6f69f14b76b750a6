"""The soak runs, holds the service to its claims, tells when one is broken, and leaves nothing behind."""

import os
import pathlib
import re
import signal
import subprocess
import tempfile

import pytest

from harness.instance import TOP, binary_folder, wait_until


@pytest.fixture
def folder():
    """Where the soak's instance lies; its path is short, since a socket lies below it."""
    with tempfile.TemporaryDirectory(prefix="s-") as made:
        os.chmod(made, 0o755)
        yield pathlib.Path(made)
        assert list(pathlib.Path(made).iterdir()) == [], "something is left behind"


def start_soak(folder, *options):
    return subprocess.Popen(
        ["/usr/bin/python3", str(TOP / "tests/soak/run.py"), "--build", str(binary_folder()), *options],
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
        env={**os.environ, "TMPDIR": str(folder), "PYTHONDONTWRITEBYTECODE": "1"})


def test_some_seconds_of_the_soak_pass_with_all_that_belongs_to_it(folder):
    with start_soak(folder, "--seconds", "5", "--seed", "5") as soak:
        text, said = soak.communicate(timeout=240)
    assert soak.returncode == 0, said
    assert said.startswith("soak: seed 5, 16 clients, 5 s, session of games\n")
    assert said.endswith("soak: every claim holds\n")
    rows = dict(re.findall(r"^  (\S.*?)  +(\d[\d ]*)$", text, re.MULTILINE))
    assert re.search(r"^  fetch\.resource  .*\d$", text, re.MULTILINE), text
    for point in ("mid-header", "mid-body", "before the reply", "mid-reply", "after the reply"):
        assert int(rows[point]) > 0, text
    for trouble in ("request processes killed", "times the user's process limit was reached", "changes of folders",
                    "times without enough descriptors", "calls of a stranger, all refused"):
        assert int(rows[trouble]) > 0, text
    before, after = rows["descriptors"].split()
    assert int(before) == int(after) > 5


def test_the_soak_fails_and_tells_its_seed_when_a_reply_is_wrong(folder):
    """A file that the soak takes for safe goes away."""
    with start_soak(folder, "--seconds", "6", "--seed", "6", "--clients", "4") as soak:
        try:
            # The load has begun when the folders that change do so.
            assert wait_until(lambda: list(folder.glob("dirwell-*/share/left/c00005*")), 120)
            victim, = folder.glob("dirwell-*/share/stable/mixed/apple.txt")
            victim.unlink()
            _, said = soak.communicate(timeout=240)
        except BaseException:
            soak.send_signal(signal.SIGTERM)
            raise
    assert soak.returncode == 1, said
    assert re.search(r"^soak: FAILED: .*listed are ", said, re.MULTILINE), said
    assert said.endswith("soak: repeat with ./dev soak --seed 6 --seconds 6 --clients 4\n")


def test_the_soak_takes_its_instance_down_when_it_is_stopped(folder):
    with start_soak(folder, "--seconds", "60") as soak:
        assert wait_until(lambda: list(folder.glob("dirwell-*/var/run/*.pid")), 60)
        pid = int(next(folder.glob("dirwell-*/var/run/*.pid")).read_text() or 0)
        soak.send_signal(signal.SIGTERM)
        soak.communicate(timeout=60)
    assert soak.returncode == 143
    assert pid == 0 or not pathlib.Path(f"/proc/{pid}").exists()
