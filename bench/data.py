"""The folders that are measured: the same on every machine and every time."""

import os
import random
import shutil
import subprocess

SEED = 20240229
TREE_FOLDERS = 2_000
VIDEOS = 500

WORDS = ("annual archive backup beach birthday budget camera christmas concert contract copy customer design draft "
         "export family final garden holiday house image invoice journal kitchen letter list meeting mountain movie "
         "notes order photo picture plan portrait presentation project receipt recording report scan school screen "
         "script sketch song spring statement summer table tax template test text tour trip version video wedding "
         "winter work").split()
ACCENTED = ("été élan Ärger Überblick señal año coração façade garçon Çeşme İzmir žluťoučký kůň řeka łódź święto "
            "ősz újság ångström smørrebrød Привет отчёт фото музыка Ελλάδα φωτογραφία 旅行 写真 東京 テスト ノート 文件 "
            "照片 图像 報告 사진 여행 ภาพถ่าย เอกสาร tiếng việt").split()
EXTENSIONS = ("jpg jpg jpg jpg JPG png png mp4 mkv mov mp3 mp3 flac pdf pdf docx docx xlsx txt txt txt zip tar.gz html "
              "md csv iso psd raw cpp py").split()
OWNERS = (0, 1, 2, 3, 33, 65534)  # of which every Debian machine knows the names
NAMELESS = 61_234  # nobody's, as of an account that was deleted
MODES = (0o644, 0o644, 0o664, 0o600, 0o755, 0o444)
OLDEST = 1_262_304_000  # 2010-01-01
SPAN = 14 * 365 * 86_400


def name_of(chance, number):
    """A name that nobody else in the folder has, since it holds the number; a tenth of them is accented."""
    words = ACCENTED if chance.randrange(10) == 0 else WORDS
    first = words[chance.randrange(len(words))]
    second = words[chance.randrange(len(words))]
    extension = EXTENSIONS[chance.randrange(len(EXTENSIONS))]
    kind = chance.randrange(6)
    if kind == 0:
        return f"{first}_{second}{number}.{extension}"
    if kind == 1:
        return f"{first.capitalize()} {second} {number}.{extension}"
    if kind == 2:
        return f"{first.upper()}_{10_000_000 + number * 37}.{extension}"
    if kind == 3:
        day = number % 28 + 1
        return f"20{chance.randrange(10, 24)}-{chance.randrange(1, 13):02}-{day:02} {first} {second} ({number}).{extension}"
    if kind == 4:
        return f"{number:06} - {first.capitalize()} {second.capitalize()}.{extension}"
    return f"{first}-{second}-v{chance.randrange(10)}.{chance.randrange(100)}-{number}"


def owner_of(chance):
    """Mostly one owner's, as home folders are."""
    if chance.randrange(4) != 0:
        return OWNERS[-1]
    return NAMELESS if chance.randrange(20) == 0 else OWNERS[chance.randrange(len(OWNERS))]


def make_file(chance, path):
    """A sparse file: its size costs the disk nothing."""
    descriptor = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o600)
    try:
        os.ftruncate(descriptor, chance.randrange(1 << chance.randrange(34)))
        os.fchown(descriptor, owner_of(chance), owner_of(chance))
        os.fchmod(descriptor, MODES[chance.randrange(len(MODES))])
        time = OLDEST + chance.randrange(SPAN)
        os.utime(descriptor, (time, time))
    finally:
        os.close(descriptor)


def make_flat(folder, entries):
    """So many files in one folder."""
    folder.mkdir()
    chance = random.Random(SEED + entries)
    for number in range(entries):
        make_file(chance, f"{folder}/{name_of(chance, number)}")


def make_tree(folder, entries, folders):
    """So many entries in all below `folder`, of them so many folders, each below any earlier one."""
    folder.mkdir()
    chance = random.Random(SEED)
    places = [(str(folder), 0)]
    for number in range(folders):
        parent, depth = places[chance.randrange(len(places))]
        if depth > 6:
            parent, depth = places[0]
        place = f"{parent}/{name_of(chance, number)}"
        os.mkdir(place)
        places.append((place, depth + 1))
    for number in range(entries - folders):
        place, _ = places[chance.randrange(len(places))]
        make_file(chance, f"{place}/{name_of(chance, folders + number)}")


def make_videos(folder, count):
    """So many clips of a second, every other one of them H.265, each a file of its own."""
    folder.mkdir()
    encoders = (["libx265", "-x265-params", "log-level=error"], ["libx264"])
    for number in range(count):
        path = folder / f"clip {number:03}.mp4"
        if number < len(encoders):
            subprocess.run(["ffmpeg", "-v", "error", "-f", "lavfi", "-i", "testsrc=size=320x240:rate=10:duration=1", "-c:v",
                            *encoders[number], str(path)], stdin=subprocess.DEVNULL, check=True)
        else:
            shutil.copyfile(folder / f"clip {number % len(encoders):03}.mp4", path)
