"""Listings that are kept, as users of dirwellctl see them."""

import contextlib
import os
import pathlib
import re
import signal
import subprocess
import time

import pytest

from harness.bus import parse_json
from harness.caches import (UNKNOWN, caching_instance, changed, database, give_volume, next_second, wait_watched,
                            watches)
from harness.instance import PASSED_ON, wait_until
from harness.tree import make_file, make_folder

STALE = "stale: the folders have changed\n"
FRESH = "no change was seen\n"


@pytest.fixture(scope="module")
def daemon():
    with caching_instance() as made:
        yield made


def environment(instance):
    return {"PATH": "/usr/bin:/bin", "DIRWELL_ROOT": str(instance.root), "DIRWELL_SID": instance.sid,
            "LC_ALL": "C.UTF-8", "TZ": "UTC0", **PASSED_ON}


def control(instance, *arguments, **options):
    """Runs dirwellctl to its end; returns status, output and error output."""
    result = subprocess.run([str(instance.client), *arguments], capture_output=True, text=True, timeout=60, cwd="/",
                            env=environment(instance), **options)
    return result.returncode, result.stdout, result.stderr


@contextlib.contextmanager
def following(instance, uuid, *options, interval="0.1"):
    """A dirwellctl that has begun to follow."""
    process = subprocess.Popen([str(instance.client), "cache", "follow", uuid, "--interval", interval, *options],
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, cwd="/",
                               env=environment(instance))
    try:
        yield process
    finally:
        if process.poll() is None:
            process.kill()
        process.communicate()


def catches(process, number):
    """Whether the process has a handler of its own for a signal: it follows, then."""
    caught = re.search(r"^SigCgt:\s*(\w+)$", pathlib.Path(f"/proc/{process.pid}/status").read_text(), re.MULTILINE)
    return int(caught[1], 16) >> (number - 1) & 1


def created(instance, folder, *options, index=1):
    """The uuid of a new cache whose folder is being watched, since an earlier second than now."""
    if not any(folder.iterdir()):
        make_file(folder / "a")  # a listing without entries names no folder to watch
    before = watches(instance, index)
    status, output, errors = control(instance, "cache", "create", str(folder), "--index", str(index), *options)
    assert (status, errors) == (0, "")
    wait_watched(instance, index, folder, instead_of=before)
    next_second()
    return output.splitlines()[0]


def cells(output):
    return [" ".join(line.split()) for line in output.splitlines()]


def test_a_listing_is_kept_paged_followed_and_deleted(daemon, share):
    for number in range(60):
        make_file(share / f"{number}.txt", number)
    status, output, errors = control(daemon, "cache", "create", str(share))
    assert (status, errors) == (0, "")
    assert re.fullmatch(r"[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}\n60 entries\n", output)
    uuid = output.splitlines()[0]
    wait_watched(daemon, 1, share)

    status, output, errors = control(daemon, "cache", "fetch", uuid, "--limit", "50")
    lines = cells(output)
    assert (status, errors) == (0, "")
    assert lines[:2] == ["NAME SIZE TYPE OWNER GROUP MODE MODIFIED MARKS",
                         "0.txt 0 file root root 644 2020-09-13 12:26:40"]
    assert [line.split()[0] for line in lines[1:51]] == [f"{number}.txt" for number in range(50)]
    assert lines[51:] == ["50 of 60 entries", FRESH.strip()]
    status, output, errors = control(daemon, "cache", "fetch", uuid, "--limit", "50", "--offset", "50")
    lines = cells(output)
    assert (status, errors) == (0, "")
    assert [line.split()[0] for line in lines[1:11]] == [f"{number}.txt" for number in range(50, 60)]
    assert lines[11:] == ["10 of 60 entries", FRESH.strip()]

    next_second()
    with following(daemon, uuid) as process:
        assert wait_until(lambda: catches(process, signal.SIGINT))
        time.sleep(0.5)
        assert process.poll() is None  # some questions later there is still nothing to say
        make_file(share / "new.txt")
        output, errors = process.communicate(timeout=20)
        assert (process.returncode, output, errors) == (0, STALE, "")
    # The kept listing is still the one that was made.
    status, output, errors = control(daemon, "cache", "fetch", uuid)
    assert (status, errors) == (0, "")
    assert "new.txt" not in output and output.endswith("60 of 60 entries\n" + STALE)
    # What has gone stale already is said at once.
    assert control(daemon, "cache", "follow", uuid) == (0, STALE, "")

    assert control(daemon, "cache", "delete", uuid) == (0, "", "")
    for command in ("fetch", "follow"):
        assert control(daemon, "cache", command, uuid) == (1, "",
                                                           "dirwellctl: the service says: invalid uuid (error 2)\n")
    assert control(daemon, "cache", "delete", uuid) == (1, "",
                                                        "dirwellctl: the service says: uuid not found (error 3)\n")


def test_clusters_are_shown_where_they_are_asked_for(daemon, share):
    make_folder(share / "folder")
    make_file(share / "a.txt")
    make_file(share / "b.txt")
    make_file(share / "c")
    status, output, _ = control(daemon, "cache", "create", str(share), "--cluster", "type")
    assert (status, cells(output)[1:]) == (0, ["4 entries", "CLUSTER ENTRIES", "(none) 1", "folder 1", "txt 2"])
    status, output, _ = control(daemon, "cache", "create", str(share), "--cluster", "type", "--json")
    reply = parse_json(output.encode())
    assert (status, list(reply)) == (0, ["cluster", "uuid", "total", "error_code", "error_message"])
    assert reply["cluster"] == [{"value": "", "count": 1}, {"value": "folder", "count": 1}, {"value": "txt", "count": 2}]
    status, output, _ = control(daemon, "cache", "fetch", reply["uuid"], "--json")
    page = parse_json(output.encode())
    assert (status, [e["filename"] for e in page["datas"]], page["changed"]) == (0, ["c", "folder", "a.txt", "b.txt"],
                                                                                 False)


def test_the_options_of_a_listing_are_those_of_a_cache(daemon, share):
    make_file(share / "big.txt", 5000)
    make_file(share / "small.txt", 5)
    make_file(share / ".dot.txt", 5)
    make_file(share / "other", 5000)
    make_file(make_folder(share / "sub") / "deep.txt", 9000)
    status, output, _ = control(daemon, "cache", "create", str(share), "--alias", "/Shown", "--type", "extname:txt",
                                "--size", ">=4K", "--recursive", "--sort", "size:desc")
    assert (status, cells(output)[1:]) == (0, ["2 entries"])
    _, output, _ = control(daemon, "cache", "fetch", output.splitlines()[0])
    # Entries of several folders carry their folders' names.
    assert [line.split()[0] for line in cells(output)[1:3]] == ["/Shown/sub/deep.txt", "/Shown/big.txt"]
    status, output, _ = control(daemon, "cache", "create", str(share), "--hidden", "--name", ".*")
    assert (status, cells(output)[1:]) == (0, ["1 entry"])


def test_both_indexes_are_kept_and_followed_by_themselves(daemon, share):
    one, two = make_folder(share / "one"), make_folder(share / "two")
    make_file(one / "in one")
    make_file(two / "in two")
    first = created(daemon, one)
    second = created(daemon, two, index=2)
    assert database(daemon, 1).exists() and database(daemon, 2).exists()
    assert "in two" in control(daemon, "cache", "fetch", second, "--index", "2")[1]
    assert control(daemon, "cache", "fetch", second)[0] == 1
    with following(daemon, second, "--index", "2") as process:
        make_file(two / "new")
        assert process.communicate(timeout=20) == (STALE, "")
    status, output, _ = control(daemon, "cache", "fetch", first)
    assert (status, output.splitlines()[1].split()[:2], output.endswith(FRESH)) == (0, ["in", "one"], True)
    assert control(daemon, "cache", "delete", second)[0] == 1
    assert control(daemon, "cache", "delete", second, "--index", "2") == (0, "", "")
    assert control(daemon, "cache", "delete", first) == (0, "", "")


def test_watching_anew_forgets_what_has_changed(daemon, share):
    uuid = created(daemon, share)
    with following(daemon, uuid, "--keep") as process:
        make_file(share / "new")
        assert process.stdout.readline() == STALE
        before = watches(daemon, 1)
        assert control(daemon, "watch") == (0, "", "")
        wait_watched(daemon, 1, share, instead_of=before)
        assert process.stdout.readline() == FRESH
        next_second()
        make_file(share / "newer")
        assert process.stdout.readline() == STALE
        assert control(daemon, "cache", "create", str(share))[0] == 0  # takes the place of the one that is followed
        assert process.communicate(timeout=20) == ("", "dirwellctl: the service says: invalid uuid (error 2)\n")
        assert process.returncode == 1


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_following_ends_cleanly_by_a_signal(daemon, share, number):
    uuid = created(daemon, share)
    with following(daemon, uuid, interval="1000") as process:
        assert wait_until(lambda: catches(process, number))
        process.send_signal(number)
        assert process.communicate(timeout=10) == ("", "")
        assert process.returncode == 0


def test_following_ends_when_the_daemon_does(make_instance):
    instance = give_volume(make_instance()).start()
    uuid = created(instance, instance.share)
    with following(instance, uuid) as process:
        assert wait_until(lambda: catches(process, signal.SIGINT))
        instance.stop()
        output, errors = process.communicate(timeout=20)
        assert (process.returncode, output) == (2, "")
        assert errors.startswith("dirwellctl: ")


def test_following_describes_no_entries(make_instance):
    """A video's description runs a program, which a question a second should not do."""
    instance = give_volume(make_instance())
    ran = instance.root / "ran"
    instance.write_program("/usr/bin/ffmpeg", f"echo >>'{ran}'\n")
    make_file(instance.share / "clip.mp4")
    instance.start()
    uuid = created(instance, instance.share)
    with following(instance, uuid) as process:
        assert wait_until(lambda: catches(process, signal.SIGINT))
        time.sleep(0.5)
        assert process.poll() is None
    assert not ran.exists()
    assert control(instance, "cache", "fetch", uuid)[0] == 0
    assert ran.exists()


@pytest.mark.parametrize("arguments, message", [
    (["cache", "create", "/", "--index", "3"], "invalid index (error 2)"),
    (["cache", "create", "/", "--limit", "49"], "invalid limit (error 2)"),
    (["cache", "create", "/", "--sort", "colour"], "invalid sort (error 2)"),
    (["cache", "fetch", UNKNOWN], "invalid uuid (error 2)"),
    (["cache", "fetch", "no uuid"], "invalid uuid (error 2)"),
    (["cache", "fetch", UNKNOWN, "--limit", "2001"], "invalid limit (error 2)"),
    (["cache", "follow", UNKNOWN], "invalid uuid (error 2)"),
    (["cache", "follow", UNKNOWN, "--index", "0"], "invalid index (error 2)"),
    (["cache", "delete", UNKNOWN], "uuid not found (error 3)"),
    (["watch", "--index", "-1"], "invalid index (error 2)"),
])
def test_what_the_service_refuses_is_said_in_its_words(daemon, arguments, message):
    assert control(daemon, *arguments) == (1, "", f"dirwellctl: the service says: {message}\n")


@pytest.mark.parametrize("arguments", [["cache"], ["cache", "create"], ["cache", "fetch"], ["cache", "follow", "u", "v"],
                                       ["cache", "follow", "u", "--interval", "0"], ["watch", "u"]])
def test_a_command_line_that_makes_no_sense(daemon, arguments):
    status, output, errors = control(daemon, *arguments)
    assert (status, output) == (64, "") and errors != ""


def test_a_refusal_is_also_given_as_it_came(daemon):
    status, output, errors = control(daemon, "cache", "fetch", UNKNOWN, "--json")
    assert (status, output) == (1, '{"error_code":2,"error_message":"invalid uuid"}\n')
    assert errors == "dirwellctl: the service says: invalid uuid (error 2)\n"


def test_without_a_daemon_there_is_no_answer(make_instance):
    instance = make_instance()
    for arguments in (["cache", "create", "/"], ["cache", "follow", UNKNOWN], ["watch"]):
        status, output, errors = control(instance, *arguments)
        assert (status, output) == (2, "") and instance.sid in errors


def test_an_ordinary_user_keeps_a_listing(make_instance):
    instance = give_volume(make_instance("games")).give_to("games")
    os.chown(instance.volume, instance.run_as["user"], instance.run_as["group"])
    make_file(instance.share / "a")
    instance.start()
    status, output, errors = control(instance, "cache", "create", str(instance.share), **instance.run_as)
    assert (status, output.splitlines()[1:], errors) == (0, ["1 entry"], "")
    uuid = output.splitlines()[0]
    wait_watched(instance, 1, instance.share)
    next_second()
    make_file(instance.share / "b")
    assert wait_until(lambda: changed(instance, uuid))
    assert control(instance, "cache", "follow", uuid, **instance.run_as) == (0, STALE, "")
