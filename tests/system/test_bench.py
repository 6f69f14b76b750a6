"""The measurements run, check what they measure, and leave their results and nothing else."""

import json
import os
import pathlib
import subprocess
import tempfile
import xml.etree.ElementTree

from harness.instance import TOP, binary_folder


def run_bench(*options):
    """In a temporary folder of its own, which holds nothing afterwards; its path is short, since sockets lie below it."""
    with tempfile.TemporaryDirectory(prefix="b-") as folder:
        os.chmod(folder, 0o755)
        done = subprocess.run(
            ["/usr/bin/python3", str(TOP / "bench/run.py"), "--binaries", str(binary_folder()), *options],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=300, check=False,
            env={**os.environ, "TMPDIR": folder})
        assert list(pathlib.Path(folder).glob("dirwell-*")) == [], "something is left behind"
    return done


def test_a_small_run_of_the_bench_writes_figures_and_a_plot(tmp_path):
    done = run_bench("--scale", "500", "--rounds", "2", "--output", str(tmp_path))
    assert done.returncode == 0, done.stderr.decode()[-4000:]
    text = done.stdout.decode()
    assert "ALL SIZES DIVIDED BY 500" in text
    for row in ("floor", "dirwell", "create.cache", "last page", "sort group", "cluster permission", "lang THA",
                "dirwell, 8 clients", "first reply", "page of videos"):
        assert f"\n{row} " in text, row
    (report,) = tmp_path.glob("*.json")
    results = json.loads(report.read_text())
    assert results["settings"]["rounds"] == 2 and results["machine"]["cores"] > 0
    assert len(results["groups"]["flat"]["dirwell"]["seconds"]) == 2
    assert results["groups"]["flat"]["dirwell"]["peak_mb"] > 1
    assert len(results["stages"]) > 50
    assert {"work", "value", "limit", "unit", "met"} == set(results["targets"][0])
    (plot,) = tmp_path.glob("*.svg")
    assert xml.etree.ElementTree.parse(plot).getroot().tag == "{http://www.w3.org/2000/svg}svg"


def test_the_bench_fails_where_a_reply_is_not_what_is_measured(tmp_path):
    """Here every folder holds an entry less than it should; a listing cut short must not look fast."""
    script = ("import sys; sys.argv[0] = {run!r}; sys.path.insert(0, {folder!r})\n"
              "import data\nreal = data.make_flat\n"
              "data.make_flat = lambda folder, entries: real(folder, entries - 1)\n"
              "import run\nrun.main()\n").format(run=str(TOP / "bench/run.py"), folder=str(TOP / "bench"))
    done = subprocess.run(["/usr/bin/python3", "-c", script, "--binaries", str(binary_folder()), "--scale", "500", "--rounds", "1",
                           "--output", str(tmp_path / "results"), "--no-stages", "--no-videos"],
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=120, check=False)
    assert done.returncode != 0
    assert "tells of 199 entries and not of 200" in done.stderr.decode()
    assert not (tmp_path / "results").exists()
