"""The code blocks of the documents run, and their links lead somewhere."""

import os
import pathlib
import re
import shlex
import subprocess
import sys

import pytest
from conftest import BUILD

ROOT = pathlib.Path(__file__).parents[2]
DOCUMENTS = [ROOT / "README.md", *sorted((ROOT / "docs").glob("*.md"))]
BLOCK = re.compile(r"^```(\w+)\n(.*?)^```$", re.MULTILINE | re.DOTALL)


def blocks(language):
    for document in DOCUMENTS:
        for number, match in enumerate(BLOCK.finditer(document.read_text())):
            if match[1] == language:
                yield pytest.param(match[2], id=f"{document.stem}-{number}")


@pytest.mark.parametrize("code", blocks("python"))
def test_python_blocks_run(code, tmp_path):
    subprocess.run([sys.executable, "-c", code], check=True, cwd=tmp_path)


def whole_programs():
    """But for those of the guide to C++, which has tests of its own."""
    for block in blocks("cpp"):
        if "int main" in block.values[0] and not block.id.startswith("cpp-"):
            yield block


@pytest.mark.parametrize("code", whole_programs())
def test_whole_cpp_programs_compile_and_run(code, tmp_path):
    (tmp_path / "program.cpp").write_text(code)
    libraries = ("performance", "instrument", "runtime", "client")
    includes = [f"-I{ROOT}/zandor/{name}/include" for name in libraries]
    linked = [f"-L{BUILD}/lib", "-Wl,--as-needed", *(f"-lzandor_{name}" for name in libraries)]
    if "address" in BUILD.name:
        linked.append("-fsanitize=address,undefined")
    command = ["g++", "-std=c++20", "-Wall", "-Wextra", "-Werror", *includes, "program.cpp"]
    plain = {key: value for key, value in os.environ.items() if key != "LD_PRELOAD"}
    subprocess.run([*command, *linked, "-o", "program"], check=True, cwd=tmp_path, env=plain)
    environment = {**plain, "LD_LIBRARY_PATH": f"{BUILD}/lib"}
    subprocess.run(["./program"], check=True, cwd=tmp_path, env=environment)
    assert (tmp_path / "trace.json").read_text().startswith('{"')


def test_commands_on_results_run(tmp_path):
    """Those of the page on results, in their order, about the script that it begins with."""
    page = (ROOT / "docs/reading.md").read_text()
    found = BLOCK.findall(page)
    (tmp_path / "script.py").write_text(next(text for kind, text in found if kind == "python"))
    lines = [line for kind, text in found if kind == "console" for line in text.splitlines()]
    for line in lines:
        prompt, name, *arguments = shlex.split(line)
        assert (prompt, name) == ("$", "vantrace")
        command = [sys.executable, "-m", "vantrace", *arguments]
        done = subprocess.run(command, cwd=tmp_path, check=False, capture_output=True, text=True)
        assert done.returncode == 0, done.stderr
        if "-o" in arguments:
            assert (tmp_path / arguments[arguments.index("-o") + 1]).stat().st_size > 0
        else:
            assert "wall time" in done.stdout
    assert (tmp_path / "pieces-2.json").exists()


def test_links_lead_somewhere():
    for document in DOCUMENTS:
        for target in re.findall(r"\]\(([^)#:]+)\)", document.read_text()):
            assert (document.parent / target).exists(), f"{document.name} links to {target}"
