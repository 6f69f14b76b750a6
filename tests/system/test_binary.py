"""How the programs are linked and compiled: what makes a mistake in them hard to use."""

import re
import subprocess

import pytest

from harness.instance import binary_folder, build_setting


def read_elf(name, *options):
    return subprocess.run(["readelf", "-W", *options, str(binary_folder() / name)], capture_output=True, text=True,
                          check=True).stdout


@pytest.mark.parametrize("name", ["dirwell", "dirwellctl"])
def test_a_program_lies_anywhere_and_nothing_of_it_is_written_and_run(name):
    assert re.search(r"Type:\s+DYN \(Position-Independent Executable file\)", read_elf(name, "-h"))
    segments = [line.split() for line in read_elf(name, "-l").splitlines() if line.startswith("  ")]
    stack, = [words for words in segments if words[0] == "GNU_STACK"]
    assert "E" not in stack[6]
    assert [words for words in segments if words[0] == "GNU_RELRO"]
    assert not [words for words in segments if words[0] == "LOAD" and "RWE" in "".join(words[6:-1])]


@pytest.mark.parametrize("name", ["dirwell", "dirwellctl"])
def test_every_symbol_is_bound_at_the_start(name):
    """Each forked process would bind anew what is bound later, and the table of symbols could be written till then."""
    dynamic = read_elf(name, "-d")
    assert re.search(r"\(FLAGS\)\s+.*BIND_NOW", dynamic)
    assert re.search(r"\(FLAGS_1\)\s+Flags: .*\bNOW\b", dynamic)
    assert "TEXTREL" not in dynamic and "RPATH" not in dynamic and "RUNPATH" not in dynamic


def test_an_overrun_of_a_buffer_ends_the_process():
    """In what is run on the appliance; sanitizers and debuggers have their own ways."""
    guarded = build_setting("DIRWELL_SANITIZE") == "" and build_setting("CMAKE_BUILD_TYPE").startswith("Rel")
    symbols = read_elf("dirwell", "--dyn-syms")
    assert ("__stack_chk_fail@" in symbols) == guarded
    assert bool(re.search(r"\b__\w+_chk@", symbols)) == guarded


def test_no_checked_form_of_a_call_goes_past_the_faults():
    """The C library has them beside the plain ones; which is called is the compiler's to say."""
    given = set(re.findall(r"\bUND (\w+)", read_elf("dirwell", "--dyn-syms")))
    failing = set(re.findall(r"\bDEFAULT +\d+ (\w+)", read_elf("tests/faults/libdirwell_faults.so", "--dyn-syms")))
    assert {"open", "read", "recv"} <= given & failing
    checked = {name for name in given if re.fullmatch(r"__\w+_(chk|2)", name)}
    assert {name for name in checked if re.sub("^__(.*)_(chk|2)$", r"\1", name) in failing} <= failing
