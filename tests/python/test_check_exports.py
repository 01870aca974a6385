"""The check of exports finds whatever would show, or pin, more of the plug-in than it should."""

import pathlib
import subprocess
import sys

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
CHECK = ROOT / "tools" / "check_exports.py"

ENTRIES = """
extern "C" int ZDInitialize_vantrace() { return 0; }
extern "C" int ZDTerminate_vantrace() { return 0; }
"""
PINNED = """
struct A { ~A(); int n; };
A::~A() { n = 0; }
int f() { static thread_local A a; return a.n; }
"""
UNIQUE = """
template <class T> struct A { static T n; };
template <class T> T A<T>::n = 1;
int f() { return A<int>::n++; }
"""
VERSIONED = f"-Wl,--version-script={ROOT / 'vantrace' / 'vantrace.map'}"


@pytest.fixture(name="check")
def fixture_check(tmp_path):
    def run(source, *flags):
        code, library = tmp_path / "plugin.cpp", tmp_path / "plugin.so"
        code.write_text(source)
        subprocess.run(["g++", "-shared", "-fPIC", *flags, code, "-o", library], check=True)
        command = [sys.executable, CHECK, library]
        result = subprocess.run(command, capture_output=True, text=True, check=False)
        return result.returncode, result.stdout

    return run


def test_two_entry_points_are_good(check):
    assert check(ENTRIES, VERSIONED) == (0, "")


def test_further_export_is_found(check):
    status, text = check(ENTRIES + 'extern "C" int more() { return 1; }\n')
    assert status == 1
    assert "exports more" in text


def test_missing_entry_point_is_found(check):
    status, text = check("int unrelated() { return 1; }\n", VERSIONED)
    assert status == 1
    assert "does not export ZDInitialize_vantrace" in text


def test_unique_symbol_is_found(check):
    status, text = check(ENTRIES + UNIQUE)
    assert status == 1
    assert "unique symbol" in text


def test_thread_local_destructor_is_found(check):
    status, text = check(ENTRIES + PINNED, VERSIONED)
    assert status == 1
    assert "thread-local" in text
