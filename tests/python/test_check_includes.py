"""The check of includes lets the allowed arrows pass and refuses every other."""

import pathlib
import subprocess
import sys

import pytest

pytestmark = pytest.mark.unsanitized

ROOT = pathlib.Path(__file__).resolve().parents[2]
CHECK = ROOT / "tools" / "check_includes.py"

RUNTIME = "zandor/runtime/include/zandor/runtime/array.hpp"
INSTRUMENT = "zandor/instrument/include/zandor/instrument/instrument.hpp"
PRIVATE = "zandor/runtime/pool.hpp"


def check(root):
    command = [sys.executable, CHECK, root]
    return subprocess.run(command, capture_output=True, text=True, check=False)


@pytest.fixture(name="tree")
def fixture_tree(tmp_path):
    """A tree with a header in each part; writes a file that includes one line."""
    parts = ["module", "bridge", "instrument", "performance"]
    headers = [RUNTIME, INSTRUMENT, PRIVATE, *(f"vantrace/{part}/{part}.hpp" for part in parts)]
    for header in headers:
        path = tmp_path / header
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text("#pragma once\n")

    def write(name, include):
        path = tmp_path / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(f"// A file.\n#include <vector>\n  #  include {include}\n")
        return tmp_path

    return write


@pytest.mark.parametrize(
    "source, include",
    [
        ("zandor/runtime/array.cpp", "<zandor/runtime/array.hpp>"),
        ("zandor/runtime/array.cpp", '"zandor/runtime/pool.hpp"'),
        ("zandor/runtime/array.cpp", '"pool.hpp"'),
        ("zandor/instrument/recorder.cpp", "<zandor/runtime/array.hpp>"),
        ("zandor/performance/counter.cpp", "<zandor/instrument/instrument.hpp>"),
        ("vantrace/bridge/marshal.cpp", "<zandor/runtime/array.hpp>"),
        ("vantrace/instrument/counter.cpp", '"vantrace/bridge/bridge.hpp"'),
        ("vantrace/module/entry.cpp", '"vantrace/performance/performance.hpp"'),
        ("vantrace/bridge/bridge_test.cpp", '"vantrace/module/module.hpp"'),
        ("python/src/core.cpp", "<zandor/instrument/instrument.hpp>"),
        ("tests/native/pool.cpp", '"zandor/runtime/pool.hpp"'),
        ("bench/call.cpp", '"vantrace/bridge/bridge.hpp"'),
        ("zandor/runtime/array.cpp", "<not/ours.hpp>"),
    ],
)
def test_allowed_arrow_passes(tree, source, include):
    result = check(tree(source, include))
    assert (result.returncode, result.stdout) == (0, "")


@pytest.mark.parametrize(
    "source, include, reason",
    [
        ("zandor/runtime/array.cpp", "<zandor/instrument/instrument.hpp>", "may not include"),
        ("zandor/instrument/recorder.cpp", '"zandor/runtime/pool.hpp"', "private"),
        ("zandor/instrument/recorder.cpp", '"../runtime/pool.hpp"', "private"),
        ("zandor/instrument/recorder.cpp", '"vantrace/bridge/bridge.hpp"', "may not include"),
        ("zandor/client/ring.c", "<zandor/runtime/array.hpp>", "may not include"),
        ("vantrace/bridge/marshal.cpp", '"vantrace/module/module.hpp"', "may not include"),
        ("vantrace/bridge/marshal.cpp", '"../instrument/instrument.hpp"', "may not include"),
        ("vantrace/instrument/a.cpp", '"vantrace/performance/performance.hpp"', "may not include"),
        ("vantrace/loose.cpp", "<zandor/runtime/array.hpp>", "no rule"),
        ("python/src/core.cpp", '"vantrace/bridge/bridge.hpp"', "may not include"),
        ("python/src/core.cpp", '"zandor/runtime/pool.hpp"', "private"),
        ("examples/embed.cpp", '"vantrace/bridge/bridge.hpp"', "may not include"),
    ],
)
def test_forbidden_arrow_fails_and_is_named(tree, source, include, reason):
    result = check(tree(source, include))
    assert result.returncode == 1
    assert result.stdout.startswith(f"{source}:3: ")
    assert reason in result.stdout
