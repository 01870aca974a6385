"""The check of atomics wants a reason or a partner for every order weaker than the strongest."""

import pathlib
import subprocess
import sys

import pytest

pytestmark = pytest.mark.unsanitized

ROOT = pathlib.Path(__file__).resolve().parents[2]
CHECK = ROOT / "tools" / "check_atomics.py"

LOAD = "return count.load(std::memory_order_relaxed);"
TAKE = "return tail.load(std::memory_order_acquire);"
DECLARED = "std::atomic<int> count;"


@pytest.fixture(name="check")
def fixture_check(tmp_path):
    """Checks a tree of the files given, which are in one library."""

    def run(**files):
        folder = tmp_path / "zandor" / "runtime"
        folder.mkdir(parents=True)
        for name, text in files.items():
            (folder / name.replace("_hpp", ".hpp").replace("_cpp", ".cpp")).write_text(text)
        command = [sys.executable, CHECK, tmp_path]
        result = subprocess.run(command, capture_output=True, text=True, check=False)
        assert result.stderr == ""
        assert result.returncode == (1 if result.stdout else 0)
        return result.stdout

    return run


@pytest.mark.parametrize(
    "text",
    [
        "return count.load();",
        "return count.load(std::memory_order_seq_cst);",
        f"// Relaxed: it only counts.\n{LOAD}\n",
        f"{LOAD}  // relaxed: it only counts\n",
        f"// Pairs with the release in put.\n{TAKE}\n",
        f"{DECLARED}  // relaxed: it only counts\n\n{LOAD}\n",
        f"// Relaxed: they only count.\n{DECLARED}\nstd::atomic<int> other;\n\n{LOAD}\n",
        f"// Released by put,\n// acquired by take.\nstd::atomic<int> tail;\n\n{TAKE}\n",
        "// Relaxed: a switch.\nstd::atomic<int> on;\n\nreturn a[on\n    .load(\nstd::memory_order_relaxed)];",
    ],
)
def test_what_is_argued_passes(check, text):
    assert check(a_cpp=text) == ""


@pytest.mark.parametrize(
    "text, line, what",
    [
        (LOAD, 1, "relaxed on count"),
        (TAKE, 1, "acquire on tail"),
        (f"// A number.\n{LOAD}\n", 2, "relaxed on count"),
        (f"// Relaxed: it only counts.\n\n{LOAD}\n", 3, "relaxed on count"),
        (f"std::atomic<int> tail;  // relaxed for its writer\n\n{TAKE}\n", 3, "acquire on tail"),
        (f"std::atomic<int> tail;  // release\n\n{TAKE}\n", 3, "acquire on tail"),
        (f"// Relaxed: it counts.\n{DECLARED}\n// The end.\nstd::atomic<int> end;\n\n"
         "end.store(1, std::memory_order_relaxed);\n", 6, "relaxed on end"),
        ("__atomic_store_n(&x, 1, __ATOMIC_RELEASE);", 1, "release on None"),
        ("end\n    .store(1,\n           std::memory_order_release);", 3, "release on end"),
    ],
)  # fmt: skip
def test_what_is_not_argued_is_named(check, text, line, what):
    assert check(a_cpp=text) == f"zandor/runtime/a.cpp:{line}: {what} has no reason or partner\n"


def test_a_header_argues_for_the_library(check):
    assert check(a_hpp=f"{DECLARED}  // relaxed: it only counts\n", b_cpp=LOAD) == ""


def test_a_source_argues_for_itself_alone(check):
    declared = f"{DECLARED}  // relaxed: it only counts\n"
    assert check(a_cpp=declared, b_cpp=LOAD).startswith("zandor/runtime/b.cpp:1: ")


def test_tests_are_left_out(check):
    assert check(a_test_cpp=LOAD) == ""


def test_the_whole_tree_is_argued_for():
    command = [sys.executable, CHECK, ROOT]
    assert subprocess.run(command, capture_output=True, text=True, check=False).stdout == ""
