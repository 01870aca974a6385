"""The report of coverage tells what was reached, of native code and of Python, and what was not."""

import json
import os
import pathlib
import subprocess
import sys

import pytest

pytestmark = pytest.mark.unsanitized

ROOT = pathlib.Path(__file__).resolve().parents[2]
NATIVE = """\
template <class T> int sign(T value) {
    if (value < 0)
        return -1;
    return value > 0 ? 1 : 0;
}

int unused(int value) {
    if (value)
        return 1;
    return 2;
}

int main() { return sign(5) + sign(-5.0); }
"""
PYTHON = """\
def sign(value):
    if value < 0:
        return -1
    return 1


sign(5)
if sign(6):
    print()
"""


def run(*command, **options):
    return subprocess.run(command, check=True, capture_output=True, text=True, **options).stdout


def native_counts(folder):
    """What the compiler's own tools count of a run of the native program."""
    (folder / "zandor/runtime").mkdir(parents=True)
    source, program = folder / "zandor/runtime/sign.cpp", folder / "sign"
    source.write_text(NATIVE)
    flags = ["-fprofile-instr-generate", "-fcoverage-mapping"]
    run("clang++", *flags, "-o", program, source)
    run(program, env=os.environ | {"LLVM_PROFILE_FILE": str(folder / "raw")})
    run("llvm-profdata", "merge", "-o", folder / "all", folder / "raw")
    counts = folder / "native.json"
    counts.write_text(run("llvm-cov", "export", "-instr-profile", folder / "all", program))
    return counts


def python_counts(folder):
    (folder / "python/vantrace").mkdir(parents=True)
    source, counts = folder / "python/vantrace/sign.py", folder / "python.json"
    source.write_text(PYTHON)
    coverage = [sys.executable, "-m", "coverage"]
    run(*coverage, "run", "--branch", source, cwd=folder)
    run(*coverage, "json", "-o", counts, cwd=folder)
    counted = json.loads(counts.read_text())
    # Coverage names files from where it runs, or whole, as their measuring says.
    counted["files"] = {str(folder / path): file for path, file in counted["files"].items()}
    counts.write_text(json.dumps(counted))
    return counts


@pytest.fixture(name="told", scope="module")
def fixture_told(tmp_path_factory):
    """The rows of the report by their first words, and the gaps."""
    folder = tmp_path_factory.mktemp("measured")
    counts = native_counts(folder), python_counts(folder)
    gaps = folder / "gaps.txt"
    tool = ROOT / "tools/coverage_report.py"
    text = run(sys.executable, tool, folder, *counts, gaps)
    rows = {words[0]: words[1:] for line in text.splitlines() if (words := line.split())}
    return rows, gaps.read_text()


def test_a_template_is_reached_where_one_of_what_is_made_of_it_is(told):
    rows, _ = told
    # Of sign: zero is never given. Of unused: nothing is reached.
    assert rows["zandor/runtime/sign.cpp"] == ["11", "5", "54.5%", "6", "3", "50.0%"]


def test_branches_of_python_are_counted_alike(told):
    rows, _ = told
    assert rows["python/vantrace/sign.py"] == ["7", "1", "85.7%", "4", "2", "50.0%"]


def test_folders_are_summed_and_all_of_them_too(told):
    rows, _ = told
    assert rows["zandor/runtime"] == rows["zandor/runtime/sign.cpp"]
    assert rows["python/vantrace"] == rows["python/vantrace/sign.py"]
    assert rows["all"][:2] == ["18", "6"]
    assert rows["all"][3:5] == ["10", "5"]


def test_gaps_name_lines_and_outcomes(told):
    _, gaps = told
    assert gaps.splitlines() == [
        "python/vantrace/sign.py",
        "  lines 3",
        "  2 never to 3",
        "  8 never to the end",
        "zandor/runtime/sign.cpp",
        "  lines 7-11",
        "  4:12 never false",
    ]
