"""The guide to writing plug-ins: its plug-in builds outside the tree, and Python calls it."""

import os
import re

import pytest

from conftest import ROOT, run_python
from test_install import check, prefix

pytestmark = pytest.mark.unsanitized

GUIDE = (ROOT / "docs/plugins.md").read_text(encoding="utf-8")
IS_UNMAPPED = 'assert "libgeometry" not in open("/proc/self/maps").read()\n'


def block(language):
    [text] = re.findall(rf"(?s)```{language}\n(.*?)```", GUIDE)
    return text


@pytest.mark.unsanitized
def test_the_guide_s_plugin_is_built_called_and_unloaded(tmp_path):
    (tmp_path / "geometry.cpp").write_text(block("cpp"), encoding="utf-8")
    (tmp_path / "CMakeLists.txt").write_text(block("cmake"), encoding="utf-8")
    environment = os.environ | {
        "CMAKE_PREFIX_PATH": str(prefix()),
        "CXXFLAGS": "-Wall -Wextra -Wpedantic -Wshadow -Werror",
    }
    check("bash", "-ec", block("sh"), cwd=tmp_path, env=environment)
    done = run_python("-c", block("python") + IS_UNMAPPED, cwd=tmp_path)
    assert (done.returncode, done.stderr) == (0, "")
