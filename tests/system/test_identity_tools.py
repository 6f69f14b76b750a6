"""The tools run as the session's user and as nobody else: each tells what it is and what it was given."""

import os
import pathlib
import shutil
import subprocess
import tempfile

import pytest

from harness.accounts import ALICE, ROOTS, STAFF, TEAM, give_accounts
from harness.instance import fresh_instance
from harness.tree import make_file, make_folder

NO_CAPABILITIES = ["0000000000000000"]

# Told by the tool's own process; what it runs for that inherits what it has.
TELL = """
while IFS= read -r line; do echo "$line"; done </proc/$$/status >{notes}/status # no fork, which would block signals
for n in /proc/self/fd/*; do echo "${{n##*/}} $(readlink $n)"; done >{notes}/descriptors
ls -l /proc/self/fd >{notes}/inherited
cat >{notes}/input
tr '\\0' '\\n' </proc/$$/environ >{notes}/environment
tr '\\0' '\\n' </proc/$$/cmdline >{notes}/arguments
readlink /proc/$$/cwd >{notes}/folder
{try_root}
cat {secret} >{notes}/secret 2>/dev/null
{cat_of_root} {secret} >{notes}/through-root 2>/dev/null
(echo x >{closed}/written) 2>/dev/null
kill -0 {daemon} 2>/dev/null && echo yes >{notes}/may-signal
true
"""

BACK_TO_ROOT = """/usr/bin/python3 -c '
import os
for change in (lambda: os.setuid(0), lambda: os.seteuid(0), lambda: os.setresuid(0, 0, 0), lambda: os.setgid(0),
               lambda: os.setgroups([0]), lambda: os.chroot("/"), lambda: os.setresgid(0, 0, 0)):
    try:
        change()
        print("changed")
    except PermissionError:
        pass
' >{notes}/changed"""


@pytest.fixture(scope="module")
def alices():
    """A session of alice's whose daemon has more groups, descriptors and variables than she should see."""
    base = pathlib.Path(tempfile.mkdtemp(dir="/tmp", prefix="d-"))
    base.chmod(0o755)
    pipe = os.pipe()
    with fresh_instance("alice") as instance, open(__file__, "rb") as file:
        give_accounts(instance)
        instance.run_as = {"user": 0, "group": 0, "extra_groups": [0, ROOTS]}
        instance.handed_over = (*pipe, file.fileno())
        instance.cloud = make_folder(base / "twenty-and-fifteen.")  # see the tests of attributes
        instance.write_shares(("Cloud", instance.cloud, 1))
        yield instance.start()
    for end in pipe:
        os.close(end)
    shutil.rmtree(base)


@pytest.fixture
def below_share():
    """A folder of the test's own below /share, the only place where the media library is asked."""
    top = pathlib.Path("/share")
    was_there = top.exists()
    top.mkdir(exist_ok=True)
    folder = pathlib.Path(tempfile.mkdtemp(dir=top, prefix="dirwell-test-"))
    folder.chmod(0o755)
    yield folder
    shutil.rmtree(folder)
    if not was_there:
        top.rmdir()


@pytest.mark.parametrize("tool, name", [
    ("/usr/bin/ffmpeg", "clip.mkv"),
    ("/usr/local/medialibrary/bin/mymediadbcmd", "picture.jpg"),
    ("/usr/local/bin/remote_mount_tool", "folder"),
])
def test_a_tool_is_the_user_and_has_nothing_else(alices, below_share, tool, name):
    place = {"clip.mkv": alices.share, "picture.jpg": below_share, "folder": alices.cloud}[name]
    notes = make_folder(alices.root / f"notes of {pathlib.Path(tool).name}".replace(" ", "-"))
    notes.chmod(0o777)
    closed = make_folder(alices.root / f"closed-{notes.name}", mode=0o700)
    secret = make_file(closed / "secret", "root's alone")
    cat_of_root = alices.root / "cat-of-root"  # would read anything, if a tool could become root by it
    shutil.copy("/bin/cat", cat_of_root)
    os.chown(cat_of_root, 0, 0)
    cat_of_root.chmod(0o4755)
    made = make_folder(place / name) if name == "folder" else make_file(place / name)
    alices.write_program(tool, TELL.format(notes=notes, secret=secret, cat_of_root=cat_of_root, closed=closed,
                                           daemon=alices.process.pid, try_root=BACK_TO_ROOT.format(notes=notes)))
    try:
        assert alices.names(place) == [name]
    finally:
        made.rmdir() if name == "folder" else made.unlink()
        (alices.root / tool.lstrip("/")).unlink()
        cat_of_root.unlink()

    def told(what):
        return (notes / what).read_text()

    status = {key: value.split() for key, value in (line.split(":", 1) for line in told("status").splitlines())}
    assert status["Uid"] == [str(ALICE)] * 4  # real, effective, saved, of files
    assert status["Gid"] == [str(STAFF)] * 4
    assert sorted(status["Groups"]) == [str(STAFF), str(TEAM)]
    for kind in ("CapInh", "CapPrm", "CapEff", "CapAmb"):
        assert status[kind] == NO_CAPABILITIES, kind
    assert status["NoNewPrivs"] == ["1"]
    assert status["SigBlk"] == status["SigIgn"] == NO_CAPABILITIES
    # Input that is empty, an output, an error stream: and of what else is there, all was opened to look.
    opened = [line.split(" -> ")[0].split()[-1] + " " + line.split(" -> ")[1]
              for line in told("inherited").splitlines() if " -> " in line]
    assert opened[0] == "0 /dev/null"
    assert [entry.split()[0] for entry in opened[:3]] == ["0", "1", "2"]
    assert all(entry.split()[1].startswith("/proc/") for entry in opened[3:]) and len(opened) <= 4
    assert told("input") == ""
    variables = dict(line.split("=", 1) for line in told("environment").splitlines())
    assert set(variables) <= set(alices.environment) | {"PWD"}
    # No way back, by any call, program or file.
    assert told("changed") == ""
    assert told("secret") == told("through-root") == ""
    assert not (closed / "written").exists()
    assert not (notes / "may-signal").exists()
    assert not any(value in told("arguments") for value in (alices.sid,))


def test_the_trap_of_the_test_above_would_work_for_a_plain_process_of_the_user(alices):
    """Otherwise it would prove nothing that the tools cannot use it."""
    secret = make_file(alices.root / "secret", "root's alone", mode=0o600)
    cat_of_root = alices.root / "another-cat"
    shutil.copy("/bin/cat", cat_of_root)
    cat_of_root.chmod(0o4755)
    read = subprocess.run([cat_of_root, secret], user=ALICE, group=STAFF, extra_groups=[], capture_output=True, check=True)
    assert read.stdout == b"root's alone"


def test_a_tool_of_roots_session_is_roots(make_instance):
    """There is nobody else to be."""
    instance = make_instance()
    make_file(instance.share / "clip.mkv")
    instance.write_program("/usr/bin/ffmpeg", f"cat /proc/$$/status >{instance.root}/status\n")
    instance.start()
    assert instance.names() == ["clip.mkv"]
    assert "Uid:\t0\t0\t0\t0\n" in (instance.root / "status").read_text()


def test_a_program_that_the_user_may_not_run_is_not_run(alices):
    """The tool's place holds one that only root may execute: it is not there for the user."""
    notes = make_folder(alices.root / "notes-of-root")
    notes.chmod(0o777)
    program = alices.write_program("/usr/bin/ffmpeg", f"echo run >{notes}/run\n")
    program.chmod(0o700)
    made = make_file(alices.share / "clip.mkv")
    assert alices.names() == ["clip.mkv"]
    made.unlink()
    program.unlink()
    assert not (notes / "run").exists()
