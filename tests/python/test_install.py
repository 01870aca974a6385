"""What is installed serves from any folder: CMake projects, pkg-config, pip and Debian packages."""

import importlib.util
import marshal
import os
import re
import shutil
import struct
import subprocess
import sys
from pathlib import Path

import pytest

import vantrace
from conftest import BUILD, ROOT

# An installation of the sanitized build does not run by itself.
pytestmark = pytest.mark.unsanitized

PROGRAM = """
#include <cstdio>
#include <zandor/instrument/controls.hpp>
#include <zandor/instrument/instrument.hpp>
#include <zandor/instrument/listeners.hpp>
#include <zandor/instrument/recorder.hpp>
#include <zandor/performance/timers.hpp>
#include <zandor/runtime/console.hpp>

int main() {
    static const instrument::Instrument solve{"solve"};
    instrument::InstrumentRecorder recorder;
    instrument::listeners.add(recorder);
    instrument::controls.enable("solve");
    { instrument::Scope scope{solve, {{"n", 3}}}; }
    instrument::listeners.remove(recorder);
    std::printf("%zu\\n", recorder.getEvents("solve").size());
}
"""

GUIDE = (ROOT / "docs/installing.md").read_text(encoding="utf-8")
PROJECT = re.search(r"(?s)```cmake\n(.*?)```", GUIDE)[1]


def prefix():
    """Where the package under test was installed to."""
    return Path(vantrace.__file__).resolve().parents[4]


def check(*command, **options):
    done = subprocess.run(
        [os.fspath(part) for part in command],
        capture_output=True,
        text=True,
        timeout=600,
        check=False,
        **options,
    )
    assert done.returncode == 0, done.stdout + done.stderr
    return done.stdout


def byte_code_of(package):
    """What the interpreter reads instead of a package's files, where it is as new as they are."""
    for path in sorted(package.rglob("*.py")):
        compiled = Path(importlib.util.cache_from_source(path))
        content = compiled.read_bytes()
        _, flags, modified, size = struct.unpack_from("<4sIII", content)
        assert (flags, modified, size) == (0, int(path.stat().st_mtime), path.stat().st_size)
        yield path, marshal.loads(content[16:])


@pytest.fixture(name="outside")
def fixture_outside():
    """The environment of somebody who has nothing of the tree on a path."""
    return {key: value for key, value in os.environ.items() if key != "PYTHONPATH"}


@pytest.fixture(name="program")
def fixture_program(tmp_path):
    path = tmp_path / "program.cpp"
    path.write_text(PROGRAM, encoding="utf-8")
    return path


def test_a_cmake_project_finds_the_libraries(program, tmp_path):
    (tmp_path / "CMakeLists.txt").write_text(PROJECT, encoding="utf-8")
    check("cmake", "-S", tmp_path, "-B", tmp_path / "b", f"-DCMAKE_PREFIX_PATH={prefix()}")
    check("cmake", "--build", tmp_path / "b")
    assert check(tmp_path / "b/program") == "1\n"


def test_a_project_that_asks_for_another_version_is_refused(program, tmp_path):
    project = PROJECT.replace("zandor 1.0", "zandor 2.0")
    (tmp_path / "CMakeLists.txt").write_text(project, encoding="utf-8")
    command = ["cmake", "-S", tmp_path, "-B", tmp_path / "b", f"-DCMAKE_PREFIX_PATH={prefix()}"]
    done = subprocess.run(command, capture_output=True, text=True, check=False)
    assert done.returncode != 0
    assert "version: 1.0.0" in done.stderr


def test_pkg_config_tells_how_to_build(program, tmp_path):
    environment = os.environ | {"PKG_CONFIG_PATH": str(prefix() / "lib/pkgconfig")}
    flags = check("pkg-config", "--cflags", "--libs", "zandor-performance", env=environment).split()
    check("g++", "-std=c++20", program, *flags, "-o", tmp_path / "program")
    libraries = os.environ | {"LD_LIBRARY_PATH": str(prefix() / "lib")}
    assert check(tmp_path / "program", env=libraries) == "1\n"


def test_pip_installs_without_network(tmp_path, outside):
    environment = tmp_path / "environment"
    check(sys.executable, "-m", "venv", "--system-site-packages", environment, env=outside)
    install = ["-m", "pip", "install", "--no-index", "--config-settings", f"build-folder={BUILD}"]
    check(environment / "bin/python", *install, ROOT, cwd=tmp_path, env=outside)
    empty = tmp_path / "empty"
    empty.mkdir()
    script = empty / "script.py"
    script.write_text("from vantrace import event, performance\nperformance.utils.getModuleList()\n")
    command = environment / "bin/vantrace"
    version = check(command, "--version", cwd=empty, env=outside)
    assert re.fullmatch(r"vantrace \d+\.\d+\.\d+\n", version)
    check(command, "run", "-o", "trace.vtrace", script, cwd=empty, env=outside)
    assert (empty / "trace.vtrace").stat().st_size > 0
    typed = ["-m", "mypy", "--python-executable", environment / "bin/python", "--strict"]
    assert "no issues" in check(sys.executable, *typed, script, cwd=empty, env=outside)
    check(environment / "bin/python", "-m", "pip", "uninstall", "-y", "vantrace", env=outside)
    assert not list((environment / "lib").glob("lib*.so*"))


def test_the_debian_package_runs_where_it_is_unpacked(tmp_path, outside):
    check("cpack", "-B", tmp_path, cwd=BUILD)
    [package] = tmp_path.glob("*.deb")
    assert "python3-numpy" in check("dpkg-deb", "-f", package, "Depends")
    root = tmp_path / "root"
    check("dpkg-deb", "-x", package, root)
    code = "import vantrace; vantrace.performance.utils.getModuleList(); print(vantrace.__file__)"
    found = check(
        sys.executable,
        "-c",
        code,
        cwd=tmp_path,
        env=outside | {"PYTHONPATH": str(root / "usr/lib/python3/dist-packages")},
    )
    assert found.startswith(str(root))
    for path, code in byte_code_of(Path(found.strip()).parent):
        assert code.co_filename == f"/{path.relative_to(root)}"
    types = {path.name for path in Path(found.strip()).parent.glob("*.pyi")}
    assert {"__init__.pyi", "_published.pyi"} <= types
    assert check(root / "usr/bin/vantrace", "--version", env=outside).startswith("vantrace ")


def test_the_package_is_installed_with_its_byte_code():
    package = Path(vantrace.__file__).parent
    files = {path.name: code.co_filename for path, code in byte_code_of(package)}
    assert files["_record.py"] == str(package / "_record.py")


def test_importing_prints_nothing(tmp_path):
    assert check(sys.executable, "-c", "import vantrace", cwd=tmp_path) == ""


def test_an_installation_can_be_moved(tmp_path, outside):
    moved = shutil.copytree(prefix(), tmp_path / "elsewhere", symlinks=True)
    out = check(moved / "bin/vantrace", "tree", cwd=tmp_path, env=outside)
    assert out.startswith("performance: ")
