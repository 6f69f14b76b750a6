"""The life of an instance as its administrator sees it: options, log, pid file, exit status."""

import os
import signal
import time

import pytest

from harness.instance import PLAIN_CRASHES, wait_until
from harness.loglines import parse, said

# --- Start and orderly stop ---


def life(instance, warning=True):
    """What a default instance says from its start to its end."""
    name = instance.name
    lines = [("E", f"[session] {instance.sid} be set."), ("I", f"[{name}] startup service")]
    no_volume = ("W", "[cache] no default volume")
    if warning:
        lines.append(no_volume)
        lines.append(no_volume)
    lines.append(("I", f"[{name}] shutdown service"))
    return lines


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_a_stop_signal_ends_the_daemon_in_order(instance, number):
    instance.start()
    pid = instance.process.pid
    assert instance.pid_file.read_bytes() == str(pid).encode()  # no line feed
    assert instance.pid_file.stat().st_mode & 0o777 == 0o644
    instance.stop(number)  # status 0, no pid file, no socket
    assert said(instance.lines()) == life(instance)
    assert {line.pid for line in parse(instance.lines())} == {pid}


def test_options_have_long_short_and_joined_forms(make_instance):
    for options in (["--sid={}"], ["-s", "{}"], ["-s{}"], ["--level=6", "--sid", "{}"], ["-l", "6", "-s", "{}"]):
        instance = make_instance()
        instance.start(*[option.format(instance.sid) for option in options])
        instance.stop()
        assert said(instance.lines())[0] == ("E", f"[session] {instance.sid} be set.")


def test_unknown_options_and_missing_arguments_are_passed_over(instance):
    instance.start("--nonsense", "-x", "word", "--sid", instance.sid, "--level")
    instance.stop()
    assert said(instance.lines()) == life(instance)


def test_a_default_volume_is_not_complained_about(instance):
    instance.write_default_volume(instance.root / "volume")
    (instance.root / "volume").mkdir()
    instance.start()
    folder = instance.root / "volume/.fs"
    assert folder.stat().st_mode & 0o7777 == 0o777
    instance.stop()
    assert said(instance.lines()) == life(instance, warning=False)


# --- Levels ---


@pytest.mark.parametrize("level, tags", [
    ("6", ["E", "I", "W", "W", "I"]),
    ("5", ["E", "W", "W"]),
    ("4", ["E", "W", "W"]),
    ("3", ["E"]),
    ("2", []),
    ("0", []),
    ("-3", []),
    ("7", ["E", "I", "W", "W", "I"]),
    ("12", ["E", "I", "W", "W", "I"]),
    ("word", []),
])
def test_the_level_decides_which_lines_are_written(instance, level, tags):
    instance.start("--level", level, "--sid", instance.sid)
    instance.stop()
    assert [line.tag for line in parse(instance.lines())] == tags


def test_a_level_counts_from_its_place_on_the_command_line(instance):
    instance.start("--sid", instance.sid, "--level", "-3")
    instance.stop()
    assert said(instance.lines()) == [("E", f"[session] {instance.sid} be set.")]


@pytest.mark.parametrize("level", ["8", "12"])
def test_the_highest_level_reports_a_crash(instance, level):
    instance.start("--level", level, "--sid", instance.sid)
    pid = instance.process.pid
    before = len(instance.lines())
    instance.process.send_signal(signal.SIGSEGV)
    assert instance.wait_end() == 1
    instance.leftovers_expected = True
    report = parse(instance.lines()[before:])
    assert len(report) > 1
    assert {(line.tag, line.pid) for line in report} == {("F", pid)}
    assert report[0].message == f"Segmentation fault (pid {pid}) {instance.binary}:"
    assert [line.message[:4] for line in report[1:]] == [f"{n:2d}. " for n in range(1, len(report))]


def test_below_the_highest_level_a_crash_is_the_systems_own(instance):
    instance.start("--level", "7", "--sid", instance.sid, **PLAIN_CRASHES)
    before = instance.log()
    instance.process.send_signal(signal.SIGSEGV)
    assert instance.wait_end() == -signal.SIGSEGV
    instance.leftovers_expected = True
    assert instance.log() == before


def test_after_a_crash_the_next_start_takes_over(instance):
    instance.start()
    instance.process.kill()
    instance.wait_end()
    assert instance.pid_file.exists() and instance.socket.exists()
    instance.process = None
    instance.start()
    assert instance.pid_file.read_bytes() == str(instance.process.pid).encode()
    assert instance.exchange("GET", "/").status == 200


def test_the_trace_level_shows_every_slot_of_the_group_list(instance):
    instance.start("--level", "8", "--sid", instance.sid)
    instance.fetch()
    lines = [line for line in parse(instance.lines()) if line.tag == "T"]
    groups = [line.message for line in lines if line.message.startswith("(session:97) seteuser() [session] gid = ")]
    assert len(groups) == 65536
    assert groups.count("(session:97) seteuser() [session] gid = 0") == 65536  # root's only group, and empty slots


def test_the_trace_level_shows_each_entry_that_is_kept(instance):
    (instance.share / "folder").mkdir()
    os.utime(instance.share / "folder", (1_600_000_000, 1_600_000_000))
    (instance.share / "a file").write_bytes(b"12345")
    os.utime(instance.share / "a file", (1_577_836_799, 1_577_836_799))
    instance.start("--level", "8", "--sid", instance.sid)
    reply = instance.fetch()
    entries = [line.message for line in parse(instance.lines()) if "set() [cache]" in line.message]
    size = (instance.share / "folder").stat().st_size
    places = {message.split(" ")[0] for message in entries}
    assert len(places) == 1 and places.pop().startswith("(cache:")
    assert [message.partition(" ")[2] for message in entries] == [
        f"set() [cache] {instance.share}/a file isdir=0, size=5, modify=2019-12-31",
        f"set() [cache] {instance.share}/folder isdir=1, size={size}, modify=2020-9-13",
    ]
    created = [(line.tag, line.message) for line in parse(instance.lines()) if line.message.endswith("created")]
    assert created == [("I", f"[cache] uuid {reply['uuid']} created")]


# --- Time stamps ---


@pytest.mark.parametrize("zone, offset, seconds", [
    ("UTC0", "-0000", 0),
    ("XXX-8", "+0800", 28800),
    ("XXX5", "-0500", -18000),
    ("XXX5:30", "-0530", -19800),
    ("XXX-5:30", "+0530", 19800),
    ("XXX-0:30", "+0030", 1800),
    ("XXX3:30", "-0330", -12600),
    ("EST5EDT,0/0,J365/25", "-0500", -18000),  # daylight saving all year long: the stamp stays with standard time
])
def test_time_stamps_show_local_standard_time(instance, zone, offset, seconds):
    before = int(time.time())
    instance.start(TZ=zone)
    instance.stop()
    after = int(time.time())
    lines = parse(instance.lines())
    assert len(lines) == 5
    for line in lines:
        assert line.offset == offset
        assert before <= line.local_seconds - seconds <= after


# --- Refused starts ---


def test_a_session_that_is_not_alive_is_refused(instance):
    instance.session_file.unlink()
    status, lines = instance.run_to_end("--sid", instance.sid)
    assert status == 1
    assert said(lines) == [("E", f"[session] {instance.sid} be set."),
                           ("E", f"[{instance.name}] {instance.sid} is not alive.")]
    assert not instance.pid_file.exists()


def test_without_a_session_id_the_line_names_nothing(instance):
    status, lines = instance.run_to_end()
    assert (status, said(lines)) == (1, [("E", "[]  is not alive.")])


@pytest.mark.parametrize("level, count", [("3", 1), ("2", 0)])
def test_the_not_alive_line_needs_a_level_above_two(instance, level, count):
    status, lines = instance.run_to_end("--level", level)
    assert (status, len(lines)) == (1, count)


@pytest.mark.parametrize("sid", ["", "../sessions/x", "a/b", "a.b", "a b", "x" * 65, "é"])
def test_what_is_no_session_id_is_no_session(instance, sid):
    sessions = instance.session_file.parent
    (sessions / ("x" * 65)).write_text("user = root\n")
    (sessions / "a.b").write_text("user = root\n")
    (sessions / "a b").write_text("user = root\n")
    (sessions / "x").write_text("user = root\n")
    status, lines = instance.run_to_end("--sid", sid)
    assert status == 1
    assert said(lines)[-1] == ("E", f"[dirwell-{sid}] {sid} is not alive.")


def test_a_session_id_may_be_64_characters_long(make_instance):
    instance = make_instance()
    long_sid = "Az_-" * 16
    (instance.session_file.parent / long_sid).write_text("user = root\n")
    (instance.session_file.parent / long_sid).chmod(0o644)
    instance.launch("--sid", long_sid)
    socket = instance.root / f"var/run/dirwell-{long_sid}.sock"
    pid_file = instance.root / f"var/run/dirwell-{long_sid}.pid"
    if len(str(socket)) > 107:
        pytest.fail("the temporary folder's path is too long for this test")
    assert wait_until(socket.exists)
    assert pid_file.exists()
    instance.stop()
    assert not socket.exists() and not pid_file.exists()


@pytest.mark.parametrize("content, mode, owner", [
    ("user = no-such-account-here\n", 0o644, 0),
    ("", 0o644, 0),
    ("name = root\n", 0o644, 0),
    ("user = root\nexpires = 1000000000\n", 0o644, 0),
    ("user = root\n", 0o666, 0),
    ("user = root\n", 0o664, 0),
    ("user = root\n", 0o644, 65534),
])
def test_a_session_record_must_be_trustworthy_and_valid(instance, content, mode, owner):
    instance.session_file.write_text(content)
    instance.session_file.chmod(mode)
    os.chown(instance.session_file, owner, 0)
    status, lines = instance.run_to_end("--sid", instance.sid)
    assert status == 1
    assert said(lines)[-1] == ("E", f"[{instance.name}] {instance.sid} is not alive.")


def test_a_session_record_must_not_be_a_link(instance):
    other = instance.write("elsewhere", "user = root\n")
    instance.session_file.unlink()
    instance.session_file.symlink_to(other)
    assert instance.run_to_end("--sid", instance.sid)[0] == 1


def test_a_second_instance_is_refused_and_changes_nothing(instance):
    instance.start()
    pid = instance.process.pid
    status, lines = instance.run_to_end("--sid", instance.sid)
    assert status == 1
    assert said(lines) == [("E", f"[session] {instance.sid} be set."),
                           ("E", f"[{instance.name}] daemon is running ({pid}).")]
    assert instance.pid_file.read_bytes() == str(pid).encode()
    assert instance.exchange("GET", "/").status == 200


def test_the_text_of_a_foreign_pid_file_is_shown_up_to_32_bytes(instance):
    import fcntl
    with open(instance.pid_file, "wb") as held:
        fcntl.flock(held, fcntl.LOCK_EX)
        held.write(b"0123456789" * 4)
        held.flush()
        status, lines = instance.run_to_end("--sid", instance.sid)
        assert status == 1
        assert said(lines)[-1] == ("E", f"[{instance.name}] daemon is running (01234567890123456789012345678901).")
        assert instance.pid_file.read_bytes() == b"0123456789" * 4
    instance.pid_file.unlink()


def test_a_pid_file_that_cannot_be_opened_ends_the_start(instance):
    instance.pid_file.mkdir()
    status, lines = instance.run_to_end("--sid", instance.sid)
    assert status == 1
    assert said(lines) == [("E", f"[session] {instance.sid} be set."),
                           ("E", f"[{instance.name}] create pid file {instance.pid_file} fail.")]
    instance.pid_file.rmdir()


def test_a_socket_path_beyond_the_kernels_limit_ends_the_start(instance):
    deep = instance.root / ("d" * 90)
    record = deep / "var/run/dirwell/sessions" / instance.sid
    record.parent.mkdir(parents=True)
    record.write_text("user = root\n")
    record.chmod(0o644)
    status, lines = instance.run_to_end("--sid", instance.sid, DIRWELL_ROOT=str(deep))
    assert status == 1
    errors = [message for tag, message in said(lines) if tag == "E"]
    assert len(errors) == 2
    assert errors[1].startswith(f"[{instance.name}] ") and str(deep) in errors[1]
    assert sorted(p.name for p in (deep / "var/run").iterdir()) == ["dirwell"]


def test_the_run_folder_is_made_when_it_is_missing(instance):
    # The session record lies below it, so only the part above the records can be missing; it then is no session.
    import shutil
    shutil.rmtree(instance.root / "var")
    assert instance.run_to_end("--sid", instance.sid)[0] == 1


# --- Clean-up ---


@pytest.mark.parametrize("option", ["-c", "--clear"])
def test_the_clean_up_needs_no_session(instance, option):
    status, lines = instance.run_to_end(option)
    assert (status, said(lines)) == (0, [("W", "[cache] no default volume")])


def test_a_level_counts_for_the_clean_up_only_where_it_stands_before(instance):
    assert instance.run_to_end("--level", "3", "--clear") == (0, [])
    status, lines = instance.run_to_end("--clear", "--level", "3")
    assert (status, said(lines)) == (0, [("W", "[cache] no default volume")])


def test_the_clean_up_leaves_options_after_it_unread(instance):
    status, lines = instance.run_to_end("-c", "-s", instance.sid)
    assert (status, said(lines)) == (0, [("W", "[cache] no default volume")])
    assert not instance.pid_file.exists()
