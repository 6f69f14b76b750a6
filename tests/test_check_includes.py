"""The include check must find what it is there for."""

import pathlib
import subprocess
import sys
import tempfile

import pytest

SCRIPT = pathlib.Path(__file__).resolve().parent / "check_includes.py"


@pytest.fixture
def folder():
    with tempfile.TemporaryDirectory() as made:
        yield pathlib.Path(made)


def run_check(folder, files):
    src = folder / "src"
    src.mkdir()
    for name, text in files.items():
        path = src / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)
    result = subprocess.run([sys.executable, str(SCRIPT), str(src)], capture_output=True, text=True, timeout=60)
    return result.returncode, result.stdout.splitlines()


GOOD = {
    "platform/include/hxservice.h": "#include <stddef.h>\n",
    "platform/include/hxrest.h": '#include "hxservice.h"\n',
    "platform/host/bus.cpp": '#include "platform/include/hxrest.h"\n#include "platform/host/bus.h"\n',
    "platform/host/bus.h": "",
    "service/log.h": "",
    "service/log.cpp": '#include "service/log.h"\n#include "platform/include/hxservice.h"\n#include <string>\n',
    "entry/names.h": "",
    "ordering/sorters.h": '#include "entry/names.h"\n',
    "listing/walk.h": '#include "ordering/sorters.h"\n#include "service/log.h"\n',
    "describe/formatter.h": '#include "listing/walk.h"\n',
    "cache/store.h": '#include "describe/formatter.h"\n',
    "daemon/run.h": '#include "cache/store.h"\n',
    "client/main.cpp": "#include <vector>\n",
    "main.cpp": '#include "daemon/run.h"\n',
}


def test_a_tree_that_keeps_the_directions_passes(folder):
    assert run_check(folder, GOOD) == (0, [])


def test_the_real_tree_passes():
    result = subprocess.run([sys.executable, str(SCRIPT)], capture_output=True, text=True, timeout=60)
    assert (result.returncode, result.stdout) == (0, "")


@pytest.mark.parametrize("name, text, fault", [
    ("service/log.h", '#include "entry/names.h"\n', 'service/log.h:1: service may not include entry ("entry/names.h")'),
    ("entry/names.h", '#include "platform/include/hxservice.h"\n',
     'entry/names.h:1: entry may not include platform/include ("platform/include/hxservice.h")'),
    ("ordering/sorters.h", '\n#include "service/log.h"\n',
     'ordering/sorters.h:2: ordering may not include service ("service/log.h")'),
    ("listing/other.h", '#include "describe/formatter.h"\n',
     'listing/other.h:1: listing may not include describe ("describe/formatter.h")'),
    ("describe/other.h", '#include "cache/store.h"\n',
     'describe/other.h:1: describe may not include cache ("cache/store.h")'),
    ("describe/other.h", '#include "ordering/sorters.h"\n',
     'describe/other.h:1: describe may not include ordering ("ordering/sorters.h")'),
    ("cache/other.h", '#include "listing/walk.h"\n', 'cache/other.h:1: cache may not include listing ("listing/walk.h")'),
    ("client/main.cpp", '#include "service/log.h"\n',
     'client/main.cpp:1: client may not include service ("service/log.h")'),
    ("daemon/other.cpp", '#include "platform/host/bus.h"\n',
     'daemon/other.cpp:1: daemon may not include platform/host ("platform/host/bus.h")'),
    ("daemon/other.cpp", "#include <platform/host/bus.h>\n",
     'daemon/other.cpp:1: daemon may not include platform/host ("platform/host/bus.h")'),
    ("platform/host/bus.cpp", '#include "service/log.h"\n',
     'platform/host/bus.cpp:1: platform/host may not include service ("service/log.h")'),
    ("platform/include/hxservice.h", '#include "platform/host/bus.h"\n',
     'platform/include/hxservice.h:1: platform/include may not include platform/host ("platform/host/bus.h")'),
    ("main.cpp", '  #  include  "service/log.h"\n', 'main.cpp:1: main.cpp may not include service ("service/log.h")'),
    ("service/log.cpp", '#include "log.h"\n', 'service/log.cpp:1: "log.h" is to be written "service/log.h"'),
    ("service/log.cpp", '#include "hxservice.h"\n', 'service/log.cpp:1: "hxservice.h" is no file under src/'),
    ("service/log.cpp", '#include "../entry/names.h"\n', 'service/log.cpp:1: "../entry/names.h" leaves its folder'),
    ("extra/new.h", "", "extra/new.h: no known room"),
    ("service/log.h", '#include "service/log.h"\n', "circle: service/log.h -> service/log.h"),
])
def test_a_fault_is_named(folder, name, text, fault):
    assert run_check(folder, {**GOOD, name: text}) == (1, [fault])


def test_a_circle_of_several_files_is_named(folder):
    status, faults = run_check(folder, {
        "entry/a.h": '#include "entry/b.h"\n',
        "entry/b.h": '#include "entry/c.h"\n',
        "entry/c.h": '#include "entry/a.h"\n',
    })
    assert (status, faults) == (1, ["circle: entry/a.h -> entry/b.h -> entry/c.h -> entry/a.h"])


def test_every_fault_is_listed(folder):
    status, faults = run_check(folder, {
        "entry/a.h": "",
        "service/a.h": '#include "entry/a.h"\n#include "missing.h"\n',
    })
    assert status == 1
    assert faults == ['service/a.h:1: service may not include entry ("entry/a.h")',
                      'service/a.h:2: "missing.h" is no file under src/']


def test_comments_and_texts_are_no_includes(folder):
    text = '// #include "entry/names.h"\n/*\n#include "entry/names.h"\n*/\nconst char *a = "/* \\" //";\n'
    assert run_check(folder, {**GOOD, "service/log.h": text}) == (0, [])


def test_a_missing_folder_is_an_error(folder):
    result = subprocess.run([sys.executable, str(SCRIPT), str(folder / "none")], capture_output=True, timeout=60)
    assert result.returncode == 2
