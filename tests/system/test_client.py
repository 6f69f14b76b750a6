"""dirwellctl and ./dev as their users see them."""

import contextlib
import fcntl
import json
import os
import pwd
import re
import select
import signal
import struct
import subprocess
import termios
import time

import pytest

from harness.bus import parse_json
from harness.instance import PASSED_ON, TOP, wait_until
from harness.tree import make_file, make_folder, make_link


def control(instance, *arguments, user=None, **environment):
    """Runs dirwellctl against the instance's root; returns status, output and error output."""
    identity = {"user": user, "group": pwd.getpwnam(user).pw_gid, "extra_groups": []} if user else {}
    result = subprocess.run([str(instance.client), *arguments], capture_output=True, timeout=60, cwd="/",
                            env={"PATH": "/usr/bin:/bin", "DIRWELL_ROOT": str(instance.root), "LC_ALL": "C.UTF-8",
                                 "TZ": "UTC0", **PASSED_ON, **environment}, **identity)
    return result.returncode, result.stdout.decode(), result.stderr.decode()


# --- Sessions ---


def test_a_session_is_created_listed_and_ended(make_instance):
    instance = make_instance()
    instance.session_file.unlink()
    status, output, errors = control(instance, "session", "create")
    assert (status, errors) == (0, "")
    sid = output.strip()
    assert re.fullmatch(r"[A-Za-z0-9_-]{1,64}", sid)
    record = instance.session_file.parent / sid
    assert record.read_text().splitlines() == ["user = root"]
    assert record.stat().st_mode & 0o777 == 0o644
    status, output, _ = control(instance, "session", "list")
    assert (status, [line.split() for line in output.splitlines()]) == (
        0, [["SID", "USER", "EXPIRES", "INSTANCE"], [sid, "root", "never", "-"]])
    assert control(instance, "session", "end", sid) == (0, "", "")
    assert not record.exists()
    status, _, errors = control(instance, "session", "end", sid)
    assert status == 1 and errors.startswith("dirwellctl: ")


def test_a_session_can_be_chosen_in_full(make_instance):
    instance = make_instance()
    begin = int(time.time())
    status, output, _ = control(instance, "--sid", "chosen", "session", "create", "--user", "nobody", "--expires", "100")
    assert (status, output) == (0, "chosen\n")
    user, expires = (instance.session_file.parent / "chosen").read_text().splitlines()
    assert user == "user = nobody"
    name, _, when = expires.partition(" = ")
    assert name == "expires" and begin + 100 <= int(when) <= time.time() + 100
    # The same id again, an unknown account, an id that is none.
    assert control(instance, "--sid", "chosen", "session", "create")[0] == 1
    assert control(instance, "session", "create", "--user", "no-such-account-here")[0] == 1
    assert control(instance, "--sid", "../x", "session", "create")[0] == 64
    assert sorted(p.name for p in instance.session_file.parent.iterdir()) == sorted([instance.sid, "chosen"])


def test_a_created_session_is_one_that_the_daemon_serves(make_instance):
    instance = make_instance()
    instance.session_file.unlink()
    instance.sid = control(instance, "session", "create", "--user", "nobody")[1].strip()
    make_file(instance.share / "a", mode=0o600)
    instance.start()
    assert instance.fetch()["datas"][0]["acl"] == 0
    _, output, _ = control(instance, "session", "list")
    assert output.splitlines()[1].split() == [instance.sid, "nobody", "never", "running"]


# --- Listings ---


@pytest.fixture
def listed(instance):
    """A running instance with a small share."""
    make_folder(instance.share / "Élan")
    make_file(instance.share / "file10.txt", 10)
    make_file(instance.share / "file9.txt", 2048, mode=0o600, uid=65534, gid=65534)
    make_file(instance.share / ".hidden", 0)
    make_link(instance.share / "link", "file9.txt")
    make_file(instance.share / "line\nfeed", 0)
    return instance.start()


def rows(output):
    """The lines of a table without their blanks at the ends, and with single blanks between cells."""
    return [" ".join(line.split()) for line in output.splitlines()]


def test_a_listing_is_a_table(listed):
    status, output, errors = control(listed, "list", str(listed.share), "--name", "*[!e]")
    assert (status, errors) == (0, "")
    size = (listed.share / "Élan").stat().st_size
    assert size == 4096
    assert rows(output) == [
        "NAME SIZE TYPE OWNER GROUP MODE MODIFIED MARKS",
        "Élan 4.0K folder root root 755 2020-09-13 12:26:40",
        "file9.txt 2.0K file nobody nogroup 600 2020-09-13 12:26:40",
        "file10.txt 10 file root root 644 2020-09-13 12:26:40",
        "line\\nfeed 0 file root root 644 2020-09-13 12:26:40",
        "link 2.0K file root root 777 2020-09-13 12:26:40 link",
        "5 of 5 entries"]


def test_groups_stand_under_headings(listed):
    status, output, _ = control(listed, "list", str(listed.share), "--cluster", "type", "--sort", "name:desc", "--hidden")
    assert status == 0
    assert [line.split(" ")[0] for line in rows(output)[1:]] == [
        "txt:", "file10.txt", "file9.txt", "folder:", "Élan", "(none):", ".hidden", "link", "line\\nfeed", "6"]
    assert "txt: 2 entries" in output and "folder: 1 entry" in output and "(none): 3 entries" in output


@pytest.mark.parametrize("arguments, names", [
    (["--type", "folder"], ["Élan"]),
    (["--name", "FILE*"], ["file9.txt", "file10.txt"]),
    (["--size", ">=2K", "--type", "extname:txt"], ["file9.txt"]),
    (["--owner", "nobody"], ["file9.txt"]),
    (["--group", "nogroup"], ["file9.txt"]),
    (["--date", ">=1600000000", "--date", "<=1600000000", "--name", "*10*"], ["file10.txt"]),
    (["--date", "<1600000000"], []),
    (["--hidden", "--name", ".*"], [".hidden"]),
    (["--sort", "size:desc", "--type", "extname:txt"], ["file9.txt", "file10.txt"]),
    (["--lang", "SWE", "--type", "folder"], ["Élan"]),
    (["--limit", "50", "--offset", "4"], ["link"]),
])
def test_every_option_reaches_the_service(listed, arguments, names):
    status, output, errors = control(listed, "list", str(listed.share), *arguments, "--json")
    assert (status, errors) == (0, "")
    assert [entry["filename"] for entry in parse_json(output.encode())["datas"]] == names


def test_several_folders_and_recursion(listed):
    make_file(listed.share / "Élan" / "inner")
    status, output, _ = control(listed, "list", str(listed.share), "--recursive", "--name", "inner", "--json")
    assert (status, parse_json(output.encode())["datas"][0]["filepath"]) == (0, "/share/Élan/inner")
    status, output, _ = control(listed, "list", str(listed.share), str(listed.share / "Élan"), "--name", "inn*", "--json",
                                "--alias", "/One", "--alias", "/Two")
    assert (status, [e["filepath"] for e in parse_json(output.encode())["datas"]]) == (0, ["/Two/inner"])


def test_json_is_the_services_own_text(listed):
    _, output, _ = control(listed, "list", str(listed.share), "--json")
    reply = json.loads(output)
    assert list(reply)[:5] == ["cluster", "uuid", "datas", "total", "changed"]
    assert output.startswith('{"cluster":[') and output.endswith('"error_code":0,"error_message":""}\n')


@pytest.mark.parametrize("arguments, message", [
    (["--sort", "colour"], "invalid sort"), (["--cluster", "x"], "invalid cluster"), (["--limit", "5"], "invalid limit"),
    (["--type", "x"], "invalid type"), (["--size", "5"], "invalid size"), (["--date", "5"], "invalid date"),
    (["--owner", "no-such-account"], "invalid owner"), (["--group", "no-such-group"], "invalid group"),
    (["--lang", "XX"], "invalid lang"),
])
def test_what_the_service_refuses_is_said_in_its_words(listed, arguments, message):
    status, output, errors = control(listed, "list", str(listed.share), *arguments)
    assert (status, output) == (1, "")
    assert message in errors


def test_a_missing_folder_is_an_empty_listing(listed):
    status, output, errors = control(listed, "list", str(listed.share / "none"))
    assert (status, errors) == (0, "")
    assert "0 entries" in output or "0 of 0" in output


@pytest.mark.parametrize("arguments", [[], ["list"], ["nonsense"], ["session"], ["session", "end"], ["list", "/x", "--no"],
                                       ["--sid", "a/b", "list", "/x"]])
def test_a_command_line_that_makes_no_sense(instance, arguments):
    status, output, errors = control(instance, *arguments)
    assert (status, output) == (64, "")
    assert errors != ""


def test_without_an_instance_there_is_a_clear_message(instance):
    status, output, errors = control(instance, "list", "/tmp")
    assert (status, output) == (2, "")
    assert errors.startswith("dirwellctl: ") and str(instance.root) in errors


def test_an_ordinary_user_lists_with_its_own_instance(make_instance):
    instance = make_instance("games").give_to("games")
    instance.session_file.unlink()
    status, output, errors = control(instance, "session", "create", user="games")
    assert (status, errors) == (0, "")
    instance.sid = output.strip()
    assert instance.session_file.read_text() == "user = games\n"
    make_file(instance.share / "a")
    instance.start()
    status, output, errors = control(instance, "list", str(instance.share), user="games")
    assert (status, errors) == (0, "")
    assert rows(output)[1].startswith("a 0 file root root 644")
    # Anyone else is not admitted.
    status, output, errors = control(instance, "list", str(instance.share), user="nobody", DIRWELL_SID=instance.sid)
    assert (status, output) == (2, "") and errors != ""


# --- Where the output goes ---


def on_terminal(instance, columns, *arguments):
    """Runs dirwellctl with a terminal of that width for its output; returns the lines that it shows."""
    ours, theirs = os.openpty()
    fcntl.ioctl(theirs, termios.TIOCSWINSZ, struct.pack("4H", 24, columns, 0, 0))
    with open(ours, "rb", buffering=0) as screen:
        process = subprocess.Popen([str(instance.client), *arguments], stdin=subprocess.DEVNULL, stdout=theirs, cwd="/",
                                   env={"PATH": "/usr/bin:/bin", "DIRWELL_ROOT": str(instance.root), "TZ": "UTC0",
                                        "LC_ALL": "C.UTF-8", **PASSED_ON})
        os.close(theirs)
        shown = b""
        try:
            with contextlib.suppress(OSError):  # the last writer has gone
                while select.select([screen], [], [], 60)[0] and (piece := screen.read(4096)):
                    shown += piece
            assert process.wait(60) == 0
        finally:
            process.kill()
    return shown.decode().splitlines()


@pytest.fixture
def long_named(listed):
    make_file(listed.share / ("long name " * 20 + "end"), 5)
    return listed


@pytest.mark.parametrize("columns, name", [(60, "long na"), (100, "long name long name long name long name long na"),
                                           (0, "long name long name long na")])
def test_a_table_is_as_wide_as_the_terminal(long_named, columns, name):
    """Names give way, and nothing else does. A terminal that does not know its width is taken for one of 80 columns."""
    assert on_terminal(long_named, columns, "list", str(long_named.share), "--name", "long*") == [
        "NAME".ljust(len(name)) + " SIZE TYPE OWNER GROUP MODE MODIFIED            MARKS",
        name + "    5 file root  root   644 2020-09-13 12:26:40",
        "1 of 1 entries"]


def test_a_table_that_no_terminal_shows_is_whole(long_named):
    _, output, _ = control(long_named, "list", str(long_named.share), "--name", "long*")
    assert output.splitlines()[1].startswith("long name " * 20 + "end ")


def test_output_that_cannot_be_written_is_a_failure(listed):
    folder = str(listed.share)
    for arguments in (["list", folder], ["list", folder, "--json"], ["session", "list"], ["--help"]):
        with open("/dev/full", "wb") as full:
            result = subprocess.run([str(listed.client), *arguments], stdout=full, stderr=subprocess.PIPE, timeout=60,
                                    cwd="/", env={"DIRWELL_ROOT": str(listed.root), **PASSED_ON})
        assert (result.returncode, result.stderr) == (2, b"dirwellctl: standard output cannot be written\n"), arguments


# --- ./dev ---


def test_dev_alone_prints_its_commands_a_line_each():
    result = subprocess.run([str(TOP / "dev")], capture_output=True, text=True, timeout=60, cwd="/tmp")
    assert (result.returncode, result.stderr) == (0, "")
    assert [line.split()[1] for line in result.stdout.splitlines()] == [
        "build", "test", "asan", "tsan", "check-all", "fuzz", "coverage", "soak", "run", "bench", "format", "lint", "install"]


def test_dev_refuses_what_it_does_not_know():
    result = subprocess.run([str(TOP / "dev"), "nonsense"], capture_output=True, text=True, timeout=60)
    assert (result.returncode, result.stdout) == (1, "")
    assert result.stderr.endswith("dev: no command nonsense\n")
    assert subprocess.run([str(TOP / "dev"), "test", "nonsense"], capture_output=True, timeout=60).returncode == 1
    assert subprocess.run([str(TOP / "dev"), "run", "/nonexistent"], capture_output=True, timeout=60).returncode == 1


def leftovers_of_dev():
    folder = TOP / "build/run"
    return sorted(folder.iterdir()) if folder.exists() else []


def shows_a_cache(commands):
    """Commands below their lines: a create, two pages, a change, the stale flag, the delete."""
    create, first, second, follow, again, delete = (command.splitlines() for command in commands)
    uuid = create[1]
    assert create[0].startswith("dirwellctl cache create ") and re.fullmatch("[0-9a-f-]{36}", uuid)
    assert create[2] == "60 entries" and create[-1].split() == ["txt", "60"]
    assert first[0] == f"dirwellctl cache fetch {uuid} --limit 50"
    assert [line.split("  ")[0] for line in (first[2], first[51])] == ["note 1.txt", "note 50.txt"]
    assert first[52:] == ["50 of 60 entries", "no change was seen"]
    assert second[0] == f"{first[0]} --offset 50"
    assert [line.split("  ")[0] for line in (second[2], second[11])] == ["note 51.txt", "note 60.txt"]
    assert second[12:] == ["10 of 60 entries", "no change was seen"]
    assert follow[0].startswith(f"dirwellctl cache follow {uuid} & touch ")
    assert follow[1:] == ["stale: the folders have changed"]
    assert again == [*second[:-1], "stale: the folders have changed"]
    assert delete == [f"dirwellctl cache delete {uuid}"]


def test_dev_run_lists_its_sample_and_leaves_nothing():
    before = leftovers_of_dev()
    result = subprocess.run([str(TOP / "dev"), "run"], capture_output=True, text=True, timeout=600, cwd="/tmp")
    assert result.returncode == 0, result.stderr
    listing, *demonstrated = result.stdout.split("\n\n$ ")
    table = listing[listing.index("\n  NAME ") + 1:] + "\n"
    names = [line[2:].split("  ")[0].rstrip() for line in table.splitlines()[1:-1] if line.startswith("  ")]
    headings = [line for line in table.splitlines() if not line.startswith(" ")]
    for name in ("Élan", "link to a folder", ".profile", "clip h265.mp4", "日本語.txt", ".@__thumb"):
        assert any(line.startswith(name) for line in names), name
    assert "folder: 5 entries" in headings and "txt: 9 entries" in headings and headings[-1] == "29 of 29 entries"
    order = [next(i for i, line in enumerate(names) if line.startswith(name))
             for name in ("@home.txt", "apple.txt", "file1.txt", "file9.txt", "file10.txt", "Zebra.TXT")]
    assert order == sorted(order)
    assert re.search(r"^  clip h265\.mp4 .* h265$", table, re.MULTILINE)
    assert not re.search(r"^  clip h264\.mkv .* h265$", table, re.MULTILINE)
    shows_a_cache(demonstrated)
    assert leftovers_of_dev() == before


def test_dev_run_lists_a_folder_given_from_anywhere():
    before = leftovers_of_dev()
    result = subprocess.run([str(TOP / "dev"), "run", "tests/system/harness"], capture_output=True, text=True,
                            timeout=600, cwd=TOP)
    assert result.returncode == 0, result.stderr
    assert "cache create" not in result.stdout  # what is kept would have to change the folder to go stale
    assert "bus.py" in result.stdout and "instance.py" in result.stdout and "tree.py" in result.stdout
    assert leftovers_of_dev() == before


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_dev_run_tidies_up_when_it_is_interrupted(make_instance, number):
    """A video tool of the machine's own is asked for each video: enough of them keep the listing busy."""
    instance = make_instance()  # only for its folder
    for n in range(400):
        make_file(instance.share / f"{n}.mkv", b"no video")
    before = leftovers_of_dev()
    # Tests that run in the background may ignore interrupts, and a shell that is started so cannot take them back.
    process = subprocess.Popen(["env", "--default-signal=INT", str(TOP / "dev"), "run", str(instance.share)],
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True)

    def listening():
        return [s for folder in set(leftovers_of_dev()) - set(before) for s in folder.glob("var/run/dirwell-*.sock")]

    assert wait_until(lambda: listening() or process.poll() is not None, 300, 0.05)
    assert process.poll() is None, "the listing was over too soon to show anything"
    os.killpg(process.pid, number) if number == signal.SIGINT else process.send_signal(number)
    assert process.wait(60) == 128 + number
    assert leftovers_of_dev() == before
