"""What a listing keeps, how it is ordered and how it is grouped, each rule from the outside."""

import itertools

import pytest

from harness.tree import make_file, make_folder, make_link

# --- Names ---


@pytest.mark.parametrize("pattern, kept", [
    ("*.JPG", ["a.jpg", "B.JPG"]),
    ("?.jpg", ["a.jpg", "B.JPG"]),
    ("[ab].*", ["a.jpg", "B.JPG"]),
    ("*", ["a.jpg", "B.JPG", "b\\c", "été"]),
    ("b\\c", ["b\\c"]),
    ("", []),
    ("A.JPG", ["a.jpg"]),
    ("é?é", ["été"]),
    ("??t??", ["été"]),  # on bytes: é is two of them
    ("?t?", []),
    ("É*", []),
    ("[", []),
])
def test_a_name_is_a_wildcard_pattern_in_any_letter_case(daemon, share, pattern, kept):
    for name in ("a.jpg", "B.JPG", "b\\c", "été"):
        make_file(share / name)
    assert daemon.names(share, name=pattern) == kept


# --- Types ---

MUSIC = "ogg aac aif aiff dff dsf flac m4a m4b m4r mka ape wma ra wav wv mp3 mpa au".split()
VIDEO = ("3gp bdmv divx ifo iso insv m4v mp4 rmp4 m1v m2t m2ts m2v mod mpeg mpg mts tod tp trp ts mov rm rmvb webm f4v "
         "flv mkv mp2v mpv2 asf wmv avi").split()
PHOTO = ("3fr bmp dcr dng erf gif heic heif jpeg iiq insp jpe jpg k25 kdc mef mos mrw nef orf pef png ptx raf raw rw2 "
         "arw sr2 srf tiff tif webp cr2 crw tga x3f hif").split()
DOCUMENTS = ("pdf doc docx docm dotx dotm dot xls xlsx xlsm xlt xltx xltm xlam ppt pptx pptm potx potm ppam ppsx ppsm "
             "pot pps rtf eml").split()


def test_types_are_told_by_the_extension_in_any_letter_case(daemon, share):
    assert (len(MUSIC), len(VIDEO), len(PHOTO), len(DOCUMENTS)) == (19, 33, 37, 26)
    daemon.write_program("/usr/bin/ffmpeg", "")  # dozens of empty videos need no real probe
    for extension in MUSIC + VIDEO + PHOTO + DOCUMENTS + ["txt", "mp"]:
        make_folder(share / f"folder.{extension}")
        make_file(share / f"f.{extension.upper()}")
    make_file(share / ".mp3")

    def extensions(kind):
        return sorted(name[2:].lower() for name in daemon.names(share, type=kind, hidden=0))

    assert extensions("music") == sorted(MUSIC)
    assert extensions("video") == sorted(VIDEO)
    assert extensions("photo") == sorted(PHOTO)
    assert extensions("music:xyz") == sorted(MUSIC)
    assert len(daemon.names(share, type="folder")) == 117


def test_an_extension_is_compared_in_its_own_case(daemon, share):
    for name in ("a.mp3", "b.MP3", "c", "d.", ".mp3", "e.tar.mp3"):
        make_file(share / name)
    make_folder(share / "folder.mp3")
    assert daemon.names(share, type="extname:mp3", hidden=0) == ["a.mp3", "e.tar.mp3"]
    assert daemon.names(share, type="extname:MP3") == ["b.MP3"]
    assert daemon.names(share, type="extname", hidden=0) == [".mp3", "c", "d.", "folder.mp3"]
    assert daemon.names(share, type="extname:tar.mp3") == []


def test_a_link_to_a_folder_counts_as_a_file(daemon, share):
    make_folder(share / "folder")
    make_link(share / "link", "folder")
    assert daemon.names(share, type="file") == ["link"]
    assert daemon.names(share, type="folder") == ["folder"]


# --- Sizes ---


@pytest.mark.parametrize("condition, kept", [
    (">0", ["1", "10239", "10240", "10241"]),
    (">=10K", ["10240", "10241"]),
    (">10240", ["10241"]),
    ("==10240", ["10240"]),
    ("==0", ["0"]),
    ("<=10K", ["0", "1", "10239", "10240"]),
    ("<1", ["0"]),
    ("<0", []),
    ("<1M", ["0", "1", "10239", "10240", "10241"]),
    (">=1M", []),
    ("<1G", ["0", "1", "10239", "10240", "10241"]),
    ("<1T", ["0", "1", "10239", "10240", "10241"]),
    ("<1P", ["0", "1", "10239", "10240", "10241"]),
    (">16384P", ["1", "10239", "10240", "10241"]),  # 2^64 wraps to 0
    ("<8192P", []),  # 2^63 wraps to the least of all numbers
    ("<99999999999999999999999", ["0", "1", "10239", "10240", "10241"]),
])
def test_a_size_condition(daemon, share, condition, kept):
    for size in (0, 1, 10239, 10240, 10241):
        make_file(share / str(size), size)
    assert daemon.names(share, size=condition) == kept


@pytest.mark.parametrize("unit, size", [("K", 1024), ("M", 1048576), ("G", 1073741824), ("T", 1099511627776)])
def test_the_units_of_sizes(daemon, share, unit, size):
    for name, length in (("a", 3 * size - 1), ("b", 3 * size), ("c", 3 * size + 1)):
        make_file(share / name, length)
    assert daemon.names(share, size=f"==3{unit}") == ["b"]
    assert daemon.names(share, size=f"<3{unit}") == ["a"]
    assert daemon.names(share, size=f">3{unit}") == ["c"]


# --- Dates ---

DAY = 86400


@pytest.mark.parametrize("conditions, kept", [
    ([">172800"], ["day3"]),
    ([">=172800"], ["day2", "day2 end", "day3"]),
    (["==172800"], ["day2", "day2 end"]),
    (["==259199"], ["day2", "day2 end"]),
    (["<=172800"], ["day0", "day1", "day2", "day2 end"]),
    (["<172800"], ["day0", "day1"]),
    ([">=86400", "<=172800"], ["day1", "day2", "day2 end"]),
    ([">=172800", "<172800"], []),
    ([], ["day0", "day1", "day2", "day2 end", "day3"]),
    ([">=99999999999999999999999"], []),
])
def test_date_conditions_compare_days(daemon, share, conditions, kept):
    for name, when in (("day0", 0), ("day1", DAY), ("day2", 2 * DAY), ("day2 end", 3 * DAY - 1), ("day3", 3 * DAY)):
        make_file(share / name, mtime=when)
    assert daemon.names(share, date=conditions) == kept


def test_days_are_those_of_local_standard_time(make_instance):
    # Two hours east of UTC, with a daylight saving that must not count.
    instance = make_instance()
    make_file(instance.share / "evening", mtime=23 * 3600 + 1800)  # 1:30 of the next day
    make_file(instance.share / "morning", mtime=3600)
    make_file(instance.share / "summer", mtime=182 * DAY + 21 * 3600 + 1800)  # 23:30 of day 182, 0:30 by summer time
    instance.start(TZ="XXX-2YYY,M3.5.0,M10.5.0")
    assert instance.names(date=["==86399"]) == ["morning"]
    assert instance.names(date=["==86400"]) == ["evening"]
    assert instance.names(date=[f"=={182 * DAY}"]) == ["summer"]


# --- Owners and groups ---


def test_owners_and_groups(daemon, share):
    make_file(share / "a", uid=65534, gid=0)
    make_file(share / "b", uid=0, gid=65534)
    make_file(share / "c", uid=4321098, gid=4321098)
    assert daemon.names(share, owner="nobody") == ["a"]
    assert daemon.names(share, owner="root") == ["b"]
    assert daemon.names(share, group="nogroup") == ["b"]
    assert daemon.names(share, group="root") == ["a"]
    assert daemon.names(share, owner="nobody", group="nogroup") == []


def test_all_criteria_must_be_met(daemon, share):
    make_file(share / "a.mp3", 2000, mtime=DAY)
    make_file(share / "b.mp3", 2000, mtime=0)
    make_file(share / "c.mp3", 20, mtime=DAY)
    make_file(share / "d.txt", 2000, mtime=DAY)
    make_file(share / "e.mp3", 2000, mtime=DAY, uid=65534)
    make_file(share / "f.mp3", 2000, mtime=DAY, gid=65534)
    assert daemon.names(share, type="music", size=">1K", date=["==86400"], owner="root", group="root",
                        name="*.mp3") == ["a.mp3"]


# --- Order ---


def test_names_that_begin_with_a_dot_or_an_at_sign_come_first_in_both_directions(daemon, share):
    for name in ("apple", "@Recycle", ".config", ".@__thumb", "zebra", "10", "9", ".@a", ".z", "@a"):
        make_file(share / name)
    assert daemon.names(share, hidden=0) == [
        ".@__thumb", ".@a", ".config", ".z", "@a", "@Recycle", "9", "10", "apple", "zebra"]
    assert daemon.names(share, hidden=0, sort="name:desc") == [
        ".@a", ".@__thumb", ".z", ".config", "@Recycle", "@a", "zebra", "apple", "10", "9"]


def test_names_are_ordered_as_people_do(daemon, share):
    names = ["a", "A", "á", "b", "file9", "file10", "file010a", "résumé", "Resume", "resume", "Z"]
    for name in names:
        make_file(share / name)
    ordered = ["a", "A", "á", "b", "file9", "file10", "file010a", "resume", "Resume", "résumé", "Z"]
    assert daemon.names(share) == ordered
    assert daemon.names(share, sort="name") == ordered
    assert daemon.names(share, sort="name:asc") == ordered
    assert daemon.names(share, sort="name:desc") == ordered[::-1]


def make_varied(share):
    """Entries that every field orders without a tie."""
    make_file(share / "b.doc", 30, mtime=3_000_000, mode=0o640, uid=2, gid=10)
    make_file(share / "c.Avi", 2_000_000, mtime=1_000_000, mode=0o4600, uid=10, gid=3)
    make_file(share / "a.txt", 10_000, mtime=90_000_000, mode=0o755, uid=3, gid=2)


@pytest.mark.parametrize("field, ordered", [
    ("name", ["a.txt", "b.doc", "c.Avi"]),
    ("date", ["c.Avi", "b.doc", "a.txt"]),
    ("type", ["c.Avi", "b.doc", "a.txt"]),
    ("size", ["b.doc", "a.txt", "c.Avi"]),
    ("owner", ["b.doc", "a.txt", "c.Avi"]),  # by number, not by name
    ("group", ["a.txt", "c.Avi", "b.doc"]),
    ("permission", ["c.Avi", "b.doc", "a.txt"]),
])
def test_every_field_orders_in_both_directions(daemon, share, field, ordered):
    make_varied(share)
    assert daemon.names(share, sort=field) == ordered
    assert daemon.names(share, sort=f"{field}:asc") == ordered
    assert daemon.names(share, sort=f"{field}:desc") == ordered[::-1]


def test_dates_before_1970_come_first(daemon, share):
    for name, when in (("a", 5), ("b", -5), ("c", 0)):
        make_file(share / name, mtime=when)
    assert daemon.names(share, sort="date") == ["b", "c", "a"]


# Two names each that the language puts in the order shown.
@pytest.mark.parametrize("lang, first, second", [
    ("ENG", "ä", "b"),
    ("SCH", "北京", "上海"),  # by sound
    ("TCH", "上海", "北京"),  # by strokes
    ("CZE", "hz", "ch"),
    ("DAN", "z", "å"),
    ("GER", "ä", "b"),
    ("SPA", "nz", "ñ"),
    ("FRE", "ä", "b"),
    ("ITA", "ä", "b"),
    ("JPN", "亜", "一"),
    ("KOR", "가", "abc"),
    ("NOR", "z", "å"),
    ("POL", "lz", "ł"),
    ("RUS", "я", "abc"),
    ("FIN", "z", "ä"),
    ("SWE", "z", "ä"),
    ("DUT", "ä", "b"),
    ("TUR", "cz", "ç"),
    ("THA", "ก", "abc"),
    ("HUN", "cz", "cs"),
    ("POR", "ä", "b"),
    ("GRK", "ω", "abc"),
    ("ROM", "az", "ă"),
])
def test_the_order_follows_the_language(daemon, share, lang, first, second):
    make_file(share / first)
    make_file(share / second)
    for spelling in (lang, lang.lower(), lang.title()):
        assert daemon.names(share, lang=spelling) == [first, second]
        assert daemon.names(share, lang=spelling, sort="name:desc") == [second, first]


@pytest.mark.parametrize("first, second, lang", [
    ("上海", "北京", "SCH"), ("ch", "hz", "CZE"), ("å", "z", "DAN"), ("ñ", "nz", "SPA"), ("abc", "가", "KOR"), ("一", "亜", "JPN"),
    ("å", "z", "NOR"), ("ł", "lz", "POL"), ("abc", "я", "RUS"), ("ä", "z", "FIN"), ("ä", "z", "SWE"),
    ("ç", "cz", "TUR"), ("abc", "ก", "THA"), ("cs", "cz", "HUN"), ("abc", "ω", "GRK"), ("ă", "az", "ROM"),
])
def test_without_a_language_the_order_is_the_english_one(daemon, share, first, second, lang):
    make_file(share / first)
    make_file(share / second)
    daemon.names(share, lang=lang)  # an earlier request's choice must not linger
    assert daemon.names(share) == [first, second]
    assert daemon.names(share, lang="ENG") == [first, second]


@pytest.mark.parametrize("direction", ["asc", "desc"])
@pytest.mark.parametrize("keys", [{}, {"cluster": "name"}])
def test_thousands_of_names_that_collate_equal_do_no_harm(daemon, share, direction, keys):
    letters = [("\u00e9", "e\u0301"), ("\u00e0", "a\u0300"), ("\u00f6", "o\u0308"), ("\u00fc", "u\u0308")]
    for spelling in itertools.product(*(letters * 3)[:11]):
        make_file(share / "".join(spelling))
    reply = daemon.fetch(share, sort=f"name:{direction}", **keys)
    assert (reply["total"], len(reply["datas"])) == (2048, 500)
    seen = {e["filename"] for offset in range(0, 2048, 500)
            for e in daemon.fetch(share, sort=f"name:{direction}", offset=offset, **keys)["datas"]}
    assert len(seen) == 2048


# --- Groups ---


def groups(reply):
    return [(item["value"], item["count"]) for item in reply["cluster"]]


def test_the_items_of_the_cluster_summary(daemon, share):
    make_file(share / "a")
    assert daemon.fetch(share, cluster="name")["cluster"] == [{"value": "a", "count": 1}]
    assert list(daemon.fetch(share, cluster="name")["cluster"][0]) == ["value", "count"]


def test_groups_by_name(daemon, share):
    for name in ("Élan", "elan", "Ünïcode", "unit", ".git", ".Ébauche", "@x", "7", "日本"):
        make_file(share / name)
    reply = daemon.fetch(share, cluster="name", hidden=0)
    assert groups(reply) == [(".e", 1), (".g", 1), ("@", 1), ("7", 1), ("e", 2), ("u", 2), ("日", 1)]
    assert groups(daemon.fetch(share, cluster="name:desc", name="[eu]*")) == [("u", 1), ("e", 1)]


def test_groups_by_date_are_local_months(make_instance):
    instance = make_instance()
    make_file(instance.share / "a", mtime=1_704_067_199)  # the last second of 2023, UTC
    make_file(instance.share / "b", mtime=1_704_067_200)
    make_file(instance.share / "c", mtime=1_706_745_600)  # 2024-02-01
    make_file(instance.share / "d", mtime=-1)
    instance.start(TZ="UTC0")
    assert groups(instance.fetch(cluster="date")) == [("1969/12", 1), ("2023/12", 1), ("2024/01", 1), ("2024/02", 1)]
    assert groups(instance.fetch(cluster="date:desc")) == [("2024/02", 1), ("2024/01", 1), ("2023/12", 1),
                                                           ("1969/12", 1)]
    instance.stop()
    instance.process = None
    instance.start(TZ="XXX-1")
    assert groups(instance.fetch(cluster="date")) == [("1970/01", 1), ("2024/01", 2), ("2024/02", 1)]


def test_groups_by_size(daemon, share):
    sizes = [0, 99, 100, 10239, 10240, 1048575, 1048576, 104857599, 104857600, 10737418239, 10737418240]
    for size in sizes:
        make_file(share / f"{size:011}", size)
    assert groups(daemon.fetch(share, cluster="size")) == [("xs", 2), ("s", 2), ("m", 2), ("l", 2), ("xl", 2),
                                                           ("xxl", 1)]
    assert groups(daemon.fetch(share, cluster="size:desc")) == [("xxl", 1), ("xl", 2), ("l", 2), ("m", 2), ("s", 2),
                                                                ("xs", 2)]
    assert daemon.names(share, cluster="size", sort="name:desc", size="<10K") == [
        "00000010239", "00000000100", "00000000099", "00000000000"]


def test_groups_by_type(daemon, share):
    make_folder(share / "folder.d")
    for name in ("a.JPG", "b.jpg", "c.Jpg", "noext", ".profile", "dot.", "x.tar.gz"):
        make_file(share / name)
    assert groups(daemon.fetch(share, cluster="type", hidden=0)) == [("", 3), ("folder", 1), ("gz", 1), ("jpg", 3)]
    assert daemon.names(share, cluster="type", hidden=0) == [
        ".profile", "dot.", "noext", "folder.d", "x.tar.gz", "a.JPG", "b.jpg", "c.Jpg"]


def test_groups_by_owner_group_and_permission(daemon, share):
    make_file(share / "a", uid=65534, gid=0, mode=0o4755)
    make_file(share / "b", uid=0, gid=65534, mode=0o600)
    make_file(share / "c", uid=4321098, gid=4321098, mode=0o755)
    make_file(share / "d", mode=0o007)
    assert groups(daemon.fetch(share, cluster="owner")) == [("---", 1), ("nobody", 1), ("root", 2)]
    assert groups(daemon.fetch(share, cluster="group")) == [("---", 1), ("nogroup", 1), ("root", 2)]
    assert groups(daemon.fetch(share, cluster="permission")) == [("007", 1), ("600", 1), ("755", 2)]
    assert groups(daemon.fetch(share, cluster="permission:desc")) == [("755", 2), ("600", 1), ("007", 1)]


def test_groups_follow_the_direction_of_the_order_unless_they_name_their_own(daemon, share):
    for name in ("a.txt", "b.txt", "a.gif", "b.gif"):
        make_file(share / name)
    assert daemon.names(share, cluster="type", sort="name:desc") == ["b.txt", "a.txt", "b.gif", "a.gif"]
    assert daemon.names(share, cluster="type:asc", sort="name:desc") == ["b.gif", "a.gif", "b.txt", "a.txt"]
    assert daemon.names(share, cluster="type:desc") == ["a.txt", "b.txt", "a.gif", "b.gif"]
    assert daemon.names(share, cluster="type") == ["a.gif", "b.gif", "a.txt", "b.txt"]


def test_within_a_group_the_order_is_the_fields(daemon, share):
    for name, size in (("a", 50), ("b", 20), ("c", 5000), ("d", 200)):
        make_file(share / name, size)
    reply = daemon.fetch(share, cluster="size", sort="name:desc")
    assert ([e["filename"] for e in reply["datas"]], groups(reply)) == (["d", "c", "b", "a"], [("s", 2), ("xs", 2)])
    reply = daemon.fetch(share, cluster="size:asc", sort="name:desc")
    assert ([e["filename"] for e in reply["datas"]], groups(reply)) == (["b", "a", "d", "c"], [("xs", 2), ("s", 2)])


def test_a_summary_counts_the_whole_listing_in_its_order(daemon, share):
    for n in range(600):
        make_file(share / f"{'bac'[n % 3]}{n}")
    reply = daemon.fetch(share, cluster="name", offset=599)
    assert groups(reply) == [("a", 200), ("b", 200), ("c", 200)]
    assert [e["filename"] for e in reply["datas"]] == ["c599"]


def test_a_group_key_that_is_no_utf8_keeps_the_reply_valid(daemon, share):
    make_file(str(share).encode() + b"/a.\xff\xfe")
    make_file(str(share).encode() + b"/\xff")
    for field in ("name", "type"):
        reply = daemon.fetch(share, cluster=field)
        assert reply["total"] == 2 and sum(count for _, count in groups(reply)) == 2
