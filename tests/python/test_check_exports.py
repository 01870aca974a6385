"""The check of exports finds whatever would show, or pin, more of the plug-in than it should."""

import pathlib
import subprocess
import sys

import pytest

pytestmark = pytest.mark.unsanitized

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
    def run(source, *flags, name="libvantrace.so"):
        code, library = tmp_path / "code.cpp", tmp_path / name
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


MODULE = 'extern "C" void* PyInit__core() { return nullptr; }\n'
MODULE_NAME = "_core.cpython-311-x86_64-linux-gnu.so"


def test_a_module_with_its_init_function_alone_is_good(check):
    assert check(MODULE, name=MODULE_NAME) == (0, "")


def test_anything_else_of_a_module_is_found(check):
    status, text = check(MODULE + "int more() { return 1; }\n", name=MODULE_NAME)
    assert status == 1
    assert "exports _Z4morev" in text


def test_a_host_library_may_export_its_own_and_instances_of_the_standard_library(check):
    source = "#include <vector>\nnamespace zandor { std::vector<int> f(int n) { return {n, n}; } }\n"
    assert check(source, "-O0", name="libzandor_runtime.so") == (0, "")


def test_what_is_not_a_host_library_s_own_is_found(check):
    source = "namespace other { int f() { return 1; } }\n"
    status, text = check(source, name="libzandor_runtime.so")
    assert status == 1
    assert "exports other::f()" in text


def test_a_client_library_exports_its_c_functions_alone(check):
    good = 'extern "C" int zandor_client_more() { return 1; }\n'
    assert check(good, name="libzandor_client.so") == (0, "")
    status, text = check(good + "int f() { return 1; }\n", name="libzandor_client.so")
    assert status == 1
    assert "exports _Z1fv" in text
