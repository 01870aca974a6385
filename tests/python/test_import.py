"""What importing the package costs, and where it finds its parts."""

import os
import re
import sys

import vantrace


def test_importing_loads_nothing_heavy(python):
    out = python(
        "import sys, vantrace\n"
        "print(sorted(m for m in sys.modules if m.split('.')[0] in ('numpy', 'pandas', 'inspect')))\n"
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


def test_the_package_may_be_moved(python, tmp_path):
    """Everything is found relative to the package."""
    root = os.path.dirname(os.path.dirname(vantrace.__file__))
    sanitized = "LD_PRELOAD" in os.environ
    folder = tmp_path / "link"
    folder.symlink_to(root)
    code = (
        f"import sys; sys.path.insert(0, {str(folder)!r})\n"
        "import vantrace\n"
        "print(vantrace.performance, vantrace.__file__)"
    )
    assert python(code).startswith("<namespace performance>") or sanitized
    assert sys.executable
