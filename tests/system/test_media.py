"""Media facts of entries: real clips through the real tool, the appliance's other tool as a program under the root."""

import os
import pathlib
import shutil
import subprocess
import tempfile

import pytest

from harness.instance import fresh_instance
from harness.tree import make_file, make_folder

TOOL = "/usr/local/medialibrary/bin/mymediadbcmd"
SUFFIXES = [".mobile240p", ".mobile360p", ".mobile480p", ".ipad720p", ".mobile1080p", ".original"]
FLAGS = ["mp4_240", "mp4_360", "mp4_480", "mp4_720", "mp4_1080", "mp4_org"]


def make_clip(path, codec):
    quiet = ["-x265-params", "log-level=error"] if codec == "libx265" else []
    subprocess.run(["/usr/bin/ffmpeg", "-v", "error", "-f", "lavfi", "-i", "testsrc=size=64x64:rate=5:duration=1",
                    "-c:v", codec, *quiet, str(path)], check=True, stdin=subprocess.DEVNULL, timeout=60)


@pytest.fixture(scope="module")
def clips(daemon):
    """A folder with real clips of both kinds."""
    folder = daemon.root / "clips"
    folder.mkdir()
    make_clip(folder / "new.mp4", "libx265")
    make_clip(folder / "old.mp4", "libx264")
    shutil.copy(folder / "new.mp4", folder / "NEW.MKV")
    shutil.copy(folder / "new.mp4", folder / "new.iso")
    shutil.copy(folder / "new.mp4", folder / "new.txt")
    return folder


def facts(reply, key):
    return {entry["filename"]: entry[key] for entry in reply["datas"]}


# --- H.265 ---


def test_real_clips_are_told_apart(daemon, clips):
    reply = daemon.fetch(clips)
    assert facts(reply, "is_h265") == {"new.mp4": 1, "old.mp4": 0, "NEW.MKV": 1, "new.iso": 0, "new.txt": 0}
    assert reply["has_h265"] == 1


def test_a_page_without_such_a_clip_has_none(daemon, clips):
    reply = daemon.fetch(clips, name="old*")
    assert facts(reply, "is_h265") == {"old.mp4": 0}
    assert reply["has_h265"] == 0


@pytest.mark.parametrize("kind, probed", [(0, 1), (1, 0), (2, 0), (3, 1), (8, 0), (9, 1)])
def test_shares_of_some_types_are_not_probed(daemon, clips, kind, probed):
    daemon.write_shares(("Other", "/nowhere"), ("Clips", clips, kind))
    assert facts(daemon.fetch(clips, name="new.mp4"), "is_h265") == {"new.mp4": probed}
    daemon.write_shares()


@pytest.mark.parametrize("script, answer", [
    ("echo 'Stream #0:0: Video: hevc (Main), yuv420p' >&2", 1),
    ("echo 'Stream #0:0: Video: hevc, none' >&2", 1),
    ("echo 'Stream #0:0: Video: hevc' >&2", 0),
    ("echo 'Stream #0:0: Video: h264 (High), yuv420p' >&2", 0),
    ("echo 'Video: hevc (Main)'", 0),  # the wrong stream
    ("exit 1", 0),
    ("kill -KILL $$", 0),
    # More than the capture holds: what comes late is dropped, and the tool is not held up.
    ("head -c 2000000 /dev/zero | tr '\\0' x >&2; echo ': hevc (' >&2", 0),
    ("echo ': hevc (' >&2; head -c 2000000 /dev/zero | tr '\\0' x >&2", 1),
])
def test_the_answer_is_read_from_the_tools_error_stream(quiet, script, answer):
    make_file(quiet.share / "a.mkv")
    quiet.write_program("/usr/bin/ffmpeg", script + "\n")
    assert facts(quiet.fetch(), "is_h265") == {"a.mkv": answer}


def test_what_is_no_program_under_the_root_leaves_the_machines_own(make_instance, clips):
    instance = make_instance()
    shutil.copy(clips / "new.mp4", instance.share / "new.mp4")
    instance.write("usr/bin/ffmpeg", "#!/bin/sh\nexit 0\n", mode=0o644)
    instance.start()
    assert facts(instance.fetch(), "is_h265") == {"new.mp4": 1}


def test_a_name_is_handed_to_the_tool_as_it_is(quiet):
    instance = quiet
    notes = instance.root / "notes"
    instance.write_program("/usr/bin/ffmpeg", f"printf '%s\\0' \"$3\" >>{notes}\n")
    names = ["-i.mkv", "$(touch x).mkv", "a b;c.mkv", "line\nfeed.mkv", "quote'\".mkv"]
    for name in names:
        make_file(instance.share / name)
    make_file(os.fsencode(instance.share) + b"/bad\xff.mkv")
    instance.fetch()
    seen = notes.read_bytes().split(b"\0")[:-1]
    assert sorted(seen) == sorted([os.fsencode(instance.share / name) for name in names]
                                  + [os.fsencode(instance.share) + b"/bad\xff.mkv"])


# --- Transcoded copies ---


@pytest.fixture(scope="module")
def quiet_daemon():
    with fresh_instance() as instance:
        yield instance.start()


@pytest.fixture
def quiet(quiet_daemon):
    """A running instance with an empty share, whose video tool finds nothing, quickly, and which has no other tool."""
    quiet_daemon.write_program("/usr/bin/ffmpeg", "")
    yield quiet_daemon
    shutil.rmtree(quiet_daemon.share)
    make_folder(quiet_daemon.share)
    (quiet_daemon.root / TOOL.lstrip("/")).unlink(missing_ok=True)
    quiet_daemon.write_host("")


def test_transcoded_copies(quiet):
    copies = quiet.share / ".@__thumb/transcode"
    copies.mkdir(parents=True)
    for number, (suffix, flag) in enumerate(zip(SUFFIXES, FLAGS)):
        make_file(quiet.share / f"{number}.mkv")
        make_file(copies / f"{number}.mkv{suffix}")
    make_file(quiet.share / "all.mkv")
    make_file(quiet.share / "five.mkv")
    make_file(quiet.share / "text.txt")
    for suffix in SUFFIXES:
        make_file(copies / f"all.mkv{suffix}")
        make_file(copies / f"text.txt{suffix}")
    for suffix in SUFFIXES[1:]:
        make_file(copies / f"five.mkv{suffix}")
    entries = {entry["filename"]: [entry[flag] for flag in FLAGS + ["trans"]] for entry in quiet.fetch()["datas"]}
    assert entries == {
        "0.mkv": [1, 0, 0, 0, 0, 0, 0], "1.mkv": [0, 1, 0, 0, 0, 0, 0], "2.mkv": [0, 0, 1, 0, 0, 0, 0],
        "3.mkv": [0, 0, 0, 1, 0, 0, 0], "4.mkv": [0, 0, 0, 0, 1, 0, 0], "5.mkv": [0, 0, 0, 0, 0, 1, 0],
        "all.mkv": [1, 1, 1, 1, 1, 1, 1], "five.mkv": [0, 1, 1, 1, 1, 1, 0], "text.txt": [0, 0, 0, 0, 0, 0, 0]}
    # The media library may know of a copy that is not there.
    quiet.write_host(f"[MEDIA]\ntranscoded = {quiet.share}/five.*:/nowhere/*\n")
    assert facts(quiet.fetch(), "trans") == {"0.mkv": 0, "1.mkv": 0, "2.mkv": 0, "3.mkv": 0, "4.mkv": 0, "5.mkv": 0,
                                             "all.mkv": 1, "five.mkv": 1, "text.txt": 0}


def test_copies_and_thumbnails_lie_in_the_folder_that_holds_the_entry(quiet):
    """Every entry is described from the page that was kept, where its own folder is the listed one."""
    sub = make_folder(quiet.share / "sub")
    make_file(sub / "clip.mkv")
    for place in (quiet.share, sub):
        (place / ".@__thumb/transcode").mkdir(parents=True)
    make_file(quiet.share / ".@__thumb/transcode/clip.mkv.original")
    assert facts(quiet.fetch(recursive=True, name="clip*"), "mp4_org")["clip.mkv"] == 0
    make_file(sub / ".@__thumb/transcode/clip.mkv.original")
    make_file(sub / ".@__thumb/s100clip.mkv")
    reply = quiet.fetch(recursive=True, name="clip.mkv")
    assert (facts(reply, "mp4_org"), facts(reply, "has_thumbnail")) == ({"clip.mkv": 1}, {"clip.mkv": 1})


def test_thumbnails_and_sound_copies(quiet):
    thumbs = quiet.share / ".@__thumb"
    thumbs.mkdir()
    (quiet.share / "Video2audio").mkdir()
    for name in ("a.JPG", "b.pdf", "c.txt", "d.mp3", "e.eml", "f.mkv", "none.jpg"):
        make_file(quiet.share / name)
        if name != "none.jpg":
            make_file(thumbs / f"s100{name}")
    os.symlink("nowhere", thumbs / "s100none.jpg")
    make_file(quiet.share / "Video2audio/c.txt.mp3")
    os.symlink("c.txt.mp3", quiet.share / "Video2audio/f.mkv.mp3")
    reply = quiet.fetch(type="file")
    assert facts(reply, "has_thumbnail") == {"a.JPG": 1, "b.pdf": 1, "c.txt": 0, "d.mp3": 1, "e.eml": 1, "f.mkv": 1,
                                             "none.jpg": 0}
    assert facts(reply, "mp3") == {"a.JPG": 0, "b.pdf": 0, "c.txt": 1, "d.mp3": 0, "e.eml": 0, "f.mkv": 1,
                                   "none.jpg": 0}


# --- Projection: asked once a file, for files below /share alone ---

PROJECTED = r"""printf '%s\n' '<media-info projection-type=\"1\" />' >&2"""


@pytest.fixture
def real_share():
    """A folder of the test's own below /share, the only place where projection is asked for."""
    top = pathlib.Path("/share")
    made = not top.exists()
    top.mkdir(exist_ok=True)
    folder = pathlib.Path(tempfile.mkdtemp(dir=top, prefix="dirwell-test-"))
    folder.chmod(0o755)
    yield folder
    shutil.rmtree(folder)
    if made:
        top.rmdir()


def test_projection_is_asked_once_and_remembered_on_the_file(quiet, real_share):
    count = quiet.root / "count"
    quiet.write_program(TOOL, f"echo \"$1 $2\" >>{count}\ncase $2 in *round*) {PROJECTED} ;; *) echo flat >&2 ;; esac\n")
    for name in ("flat.jpg", "round.jpg", "round.mp4", "round.jpe", "round.jpeg", "round.png", "round.JPG"):
        make_file(real_share / name)
    asked = ["flat.jpg", "round.jpe", "round.jpeg", "round.jpg", "round.mp4"]
    reply = quiet.fetch(real_share)
    assert set(facts(reply, "projection_type").values()) == {0}  # the first listing does not know yet
    assert sorted(count.read_text().splitlines()) == [f"getMediaInfo {real_share}/{name}" for name in asked]
    for name in asked:
        tag = os.getxattr(real_share / name, "user.marker_fs")
        assert tag == (b"2" if "round" in name else b"0")
    assert os.listxattr(real_share / "round.png") == os.listxattr(real_share / "round.JPG") == []
    known = facts(quiet.fetch(real_share), "projection_type")
    assert [known[name] for name in asked] == [0, 1, 1, 1, 1]
    assert len(count.read_text().splitlines()) == 5  # nothing was asked again


@pytest.mark.parametrize("tag, answer", [(b"3", 1), (b"2", 1), (b"1", 0), (b"0", 0), (b"", 0), (b"6x", 1), (b"x", 0),
                                         (b"-1", 1), (b"2" * 200, 0)])
def test_the_tag_of_a_file_is_a_set_of_bits(quiet, real_share, tag, answer):
    make_file(real_share / "a.jpg")
    os.setxattr(real_share / "a.jpg", "user.marker_fs", tag)
    assert facts(quiet.fetch(real_share), "projection_type") == {"a.jpg": answer}


def test_outside_of_shares_no_tag_is_read_or_written(quiet):
    quiet.write_program(TOOL, PROJECTED + "\n")
    make_file(quiet.share / "a.jpg")
    make_file(quiet.share / "b.jpg")
    os.setxattr(quiet.share / "b.jpg", "user.marker_fs", b"2")
    assert facts(quiet.fetch(), "projection_type") == {"a.jpg": 0, "b.jpg": 0}
    assert os.listxattr(quiet.share / "a.jpg") == []


def test_other_files_carry_the_projection_of_the_picture_before_them(quiet, real_share):
    for name in ("1.txt", "2.jpg", "3.txt", "4.png", "5.jpg", "6.txt"):
        make_file(real_share / name)
    os.setxattr(real_share / "2.jpg", "user.marker_fs", b"2")
    os.setxattr(real_share / "5.jpg", "user.marker_fs", b"0")
    assert facts(quiet.fetch(real_share), "projection_type") == {
        "1.txt": 0, "2.jpg": 1, "3.txt": 1, "4.png": 1, "5.jpg": 0, "6.txt": 0}


def test_projection_without_the_tool_is_unknown(quiet, real_share):
    make_file(real_share / "a.jpg")
    assert facts(quiet.fetch(real_share), "projection_type") == {"a.jpg": 0}
    assert os.getxattr(real_share / "a.jpg", "user.marker_fs") == b"0"
