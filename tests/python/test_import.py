"""What importing the package costs, and where it finds its parts."""

import os
import re
import shutil
import sys
from pathlib import Path

import vantrace
from conftest import run_python
from vantrace import _core


def test_importing_loads_nothing_heavy(python):
    out = python(
        "import sys, vantrace\n"
        "heavy = {'numpy', 'pandas', 'inspect'}\n"
        "print(sorted(m for m in sys.modules if m.split('.')[0] in heavy))\n"
        "print(open('/proc/self/maps').read())"
    )
    modules, _, maps = out.partition("\n")
    assert modules == "[]"
    assert "libzandor_runtime" in maps
    for library in ("libvantrace", "libicu", "libsqlite3", "libxml2", "libtbb", "multiarray"):
        assert library not in maps


def test_the_plugin_is_loaded_at_its_first_need(python):
    out = python(
        "import vantrace\n"
        "def loaded(): return 'libvantrace' in open('/proc/self/maps').read()\n"
        "vantrace.event; vantrace.host; vantrace.record\n"
        "print(loaded())\n"
        "vantrace.performance\n"
        "print(loaded())"
    )
    assert out == "False\nTrue\n"


def test_numpy_is_loaded_at_the_first_column(python):
    out = python(
        "import sys\n"
        "from vantrace import performance\n"
        "identity = performance.instrument.instruments.startEvent('x', [])\n"
        "print('numpy' in sys.modules, repr(identity) != '', 'numpy' in sys.modules)\n"
        "identity['sourceId']\n"
        "print('numpy' in sys.modules)"
    )
    assert out == "False True False\nTrue\n"


def test_what_the_package_offers():
    assert set(vantrace.__all__) <= set(dir(vantrace))
    assert re.fullmatch(r"\d+\.\d+\.\d+", vantrace.__version__)
    for name in vantrace.__all__:
        assert getattr(vantrace, name) is not None
    assert not hasattr(vantrace, "nothing")


def test_star_import(python):
    assert python("from vantrace import *\nprint(performance.utils, StructArray, record)") == (
        "<namespace performance.utils> <class 'vantrace._struct_array.StructArray'> "
        "<class 'vantrace._record.record'>\n"
    )


def test_everything_may_be_moved_together(tmp_path):
    """Package and libraries find each other by where they stand."""
    package = Path(vantrace.__file__).resolve().parent
    libraries = Path(_core.library_folder()).resolve()
    common = Path(os.path.commonpath([package, libraries]))
    there = tmp_path / libraries.relative_to(common)
    shutil.copytree(libraries, there, symlinks=True, dirs_exist_ok=True)
    moved = tmp_path / package.relative_to(common)
    shutil.copytree(package, moved, dirs_exist_ok=True)
    code = (
        "import vantrace\n"
        "from vantrace import performance\n"
        "print(vantrace.__file__)\n"
        "maps = [line.split()[-1] for line in open('/proc/self/maps')]\n"
        "print(*{m for m in maps if 'zandor' in m or 'libvantrace' in m}, sep='\\n')"
    )
    done = run_python("-c", code, env=os.environ | {"PYTHONPATH": str(moved.parent)})
    assert (done.returncode, done.stderr) == (0, "")
    file, *loaded = done.stdout.splitlines()
    assert file == str(moved / "__init__.py")
    assert len(loaded) >= 3
    assert all(library.startswith(f"{tmp_path}/") for library in loaded)


def test_an_unsupported_interpreter_is_told_in_one_sentence(tmp_path):
    """As another version of the interpreter finds the package: without a module of its own."""
    package = tmp_path / "vantrace"
    shutil.copytree(Path(vantrace.__file__).parent, package, ignore=shutil.ignore_patterns("*.so"))
    (package / "_core.cpython-27-x86_64-linux-gnu.so").touch()
    environment = os.environ | {"PYTHONPATH": str(tmp_path)}
    for command in (["-c", "import vantrace"], ["-m", "vantrace", "--version"]):
        done = run_python(*command, env=environment, cwd=tmp_path)
        assert done.returncode == 1
        assert (
            "vantrace is built for cpython-27-x86_64-linux-gnu; "
            f"this interpreter is {sys.implementation.cache_tag}"
        ) in done.stderr.splitlines()[-1]
