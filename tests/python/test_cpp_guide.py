"""The guide to the C++ interface: its programs build against an installation, and run."""

import os
import re
import subprocess

import pytest

from conftest import BUILD, ROOT
from test_install import check, prefix
from trace_rules import check_trace, events_of

pytestmark = pytest.mark.unsanitized

GUIDE = (ROOT / "docs/cpp.md").read_text(encoding="utf-8")
PROJECT = re.search(r"(?s)```cmake\n(.*?)```", GUIDE)[1]
PROGRAMS = re.findall(r"(?s)## ([^\n]+)\n(?:(?!\n## ).)*?```cpp\n(.*?)```", GUIDE)


def test_every_program_of_the_guide_is_found():
    assert len(PROGRAMS) == GUIDE.count("```cpp") == 6


@pytest.mark.unsanitized
@pytest.mark.parametrize("code", [pytest.param(code, id=title) for title, code in PROGRAMS])
def test_a_program_of_the_guide_builds_and_runs(code, tmp_path):
    (tmp_path / "program.cpp").write_text(code, encoding="utf-8")
    (tmp_path / "CMakeLists.txt").write_text(PROJECT, encoding="utf-8")
    flags = "-DCMAKE_CXX_FLAGS=-Wall -Wextra -Wpedantic -Wshadow -Werror"
    check("cmake", "-S", tmp_path, "-B", tmp_path / "b", f"-DCMAKE_PREFIX_PATH={prefix()}", flags)
    check("cmake", "--build", tmp_path / "b")
    check(tmp_path / "b/program", cwd=tmp_path)
    for trace in tmp_path.glob("*.json"):
        assert check_trace(trace.read_text(encoding="utf-8")) == []


def native_example(trace):
    return subprocess.run(
        [BUILD / "examples/native", trace], capture_output=True, text=True, check=False, timeout=300
    )


def test_the_native_example_tells_where_its_time_went(tmp_path):
    done = native_example(tmp_path / "trace.json")
    assert (done.returncode, done.stderr) == (0, "")
    counts = {
        line[:26].strip(): int(line[26:].split()[0]) for line in done.stdout.splitlines()[1:-1]
    }
    # Two threads do each step; the second one opens the wait that the first one ends.
    assert counts["run"] == 1
    assert counts["step"] == counts["sweep"] == 2 * counts["waiting for the other half"] > 2


def test_the_trace_of_the_native_example_has_both_threads(tmp_path):
    native_example(tmp_path / "trace.json")
    text = (tmp_path / "trace.json").read_text(encoding="utf-8")
    assert check_trace(text) == []
    events = events_of(text)
    names = {e["tid"]: e["args"]["name"] for e in events if e["name"] == "thread_name"}
    assert set(names.values()) == {"main", "worker"}
    assert {names[e["tid"]] for e in events if e["name"] == "sweep"} == {"main", "worker"}
    handed_over = [e for e in events if e["ph"] == "b"]
    assert {e["name"] for e in handed_over} == {"waiting for the other half"}
    [run] = [e for e in events if e["name"] == "run"]
    assert (run["args"]["n"], run["args"]["method"]) == (256, "jacobi")


def test_the_native_example_says_when_it_cannot_write(tmp_path):
    done = native_example(tmp_path / "none/trace.json")
    assert done.returncode == 1
    assert done.stderr.startswith("native: ")
    assert os.listdir(tmp_path) == []
