"""The code blocks of the documents run, and their links lead somewhere."""

import importlib
import os
import re
import shlex
import subprocess
import sys

import pytest

from conftest import BUILD, ROOT
from documents import (
    NOT_RUN,
    PAGES,
    TESTED_ELSEWHERE,
    Block,
    all_blocks,
    blocks_in,
    broken_links,
    is_excused,
    run_by,
    runner_of,
)

pytestmark = pytest.mark.unsanitized


def parameters(runner):
    """A test's blocks, for pytest."""
    return [
        pytest.param(block.code, id=f"{block.page}-{block.number}")
        for block in run_by(f"test_documents.{runner}")
    ]


@pytest.mark.parametrize("block", all_blocks(), ids=lambda block: f"{block.page}-{block.number}")
def test_every_block_is_run_by_a_test(block):
    if is_excused(block):
        return
    runner = runner_of(block)
    assert runner, f"nothing runs a block of {block.page}, in {block.language or 'no language'}"
    module, function = runner.split(".")
    assert callable(getattr(importlib.import_module(module), function))


@pytest.mark.parametrize(
    "language, code", [("", "$ ls\n"), ("cpp", "int part();\n"), ("rust", "fn main() {}\n")]
)
def test_a_block_that_nothing_runs_is_found(language, code):
    [block] = blocks_in(f"text\n\n```{language}\n{code}```\n", "new")
    assert block == Block("new", language, code, 0)
    assert not is_excused(block) and runner_of(block) is None


def test_what_is_said_of_blocks_is_of_blocks_that_are_there():
    there = {(block.page, block.language) for block in all_blocks()}
    assert TESTED_ELSEWHERE.keys() | NOT_RUN.keys() <= there


@pytest.mark.parametrize("code", parameters("test_python_blocks_run"))
def test_python_blocks_run(code, tmp_path):
    subprocess.run([sys.executable, "-c", code], check=True, cwd=tmp_path)


@pytest.mark.parametrize("code", parameters("test_cpp_programs_run"))
def test_cpp_programs_run(code, tmp_path):
    (tmp_path / "program.cpp").write_text(code, encoding="utf-8")
    libraries = ("performance", "instrument", "runtime", "client")
    includes = [f"-I{ROOT}/zandor/{name}/include" for name in libraries]
    linked = [f"-L{BUILD}/lib", "-Wl,--as-needed", *(f"-lzandor_{name}" for name in libraries)]
    if "address" in BUILD.name:
        linked.append("-fsanitize=address,undefined")
    command = ["g++", "-std=c++20", "-Wall", "-Wextra", "-Werror", *includes, "program.cpp"]
    plain = {key: value for key, value in os.environ.items() if key != "LD_PRELOAD"}
    subprocess.run([*command, *linked, "-o", "program"], check=True, cwd=tmp_path, env=plain)
    environment = {**plain, "LD_LIBRARY_PATH": f"{BUILD}/lib"}
    run = ["./program", BUILD / "lib/libvantrace.so"]
    subprocess.run(run, check=True, cwd=tmp_path, env=environment)
    if "trace.json" in code:
        assert (tmp_path / "trace.json").read_text(encoding="utf-8").startswith('{"')


def commands_of(page):
    """What a page has its reader type."""
    for block in run_by("test_documents.test_commands_run"):
        if block.page == page and block.language == "sh":
            yield from block.code.splitlines()
        elif block.page == page:
            for line in block.code.splitlines():
                assert line.startswith("$ "), f"{page}: {line}"
                yield line.removeprefix("$ ")


def write_programs(page, folder):
    """Those that the page names in their first line; script.py may be any."""
    (folder / "script.py").write_text("sum(range(1000))\n", encoding="utf-8")
    for block in all_blocks():
        named = re.match(r"# (\w+\.py)\n", block.code)
        if block.page == page and named:
            (folder / named[1]).write_text(block.code, encoding="utf-8")


@pytest.mark.unsanitized
@pytest.mark.parametrize(
    "page", sorted({block.page for block in run_by("test_documents.test_commands_run")})
)
def test_commands_run(page, tmp_path):
    """In their order, in one folder; each leaves the file that -o names."""
    write_programs(page, tmp_path)
    vantrace = f'vantrace() {{ "{sys.executable}" -m vantrace "$@"; }}\n'
    for command in commands_of(page):
        done = subprocess.run(
            ["bash", "-ec", vantrace + command],
            cwd=tmp_path,
            capture_output=True,
            text=True,
            check=False,
        )
        assert done.returncode == 0, f"{command}: {done.stderr}"
        words = shlex.split(command, comments=True)
        if "-o" in words:
            assert (tmp_path / words[words.index("-o") + 1]).stat().st_size > 0
        if words[:2] == ["vantrace", "table"]:
            assert "wall time" in done.stdout
        if "--split" in words:
            assert (tmp_path / "pieces-2.json").exists()


@pytest.mark.parametrize("page", PAGES)
def test_links_lead_somewhere(page):
    assert list(broken_links(PAGES[page])) == []


def test_a_link_that_leads_nowhere_is_found(tmp_path):
    page = tmp_path / "page.md"
    page.write_text(
        "# The Head, so\n[a](page.md) [b](gone.md) [c](#the-head-so) [d](page.md#other) [e](x:y)\n"
    )
    assert list(broken_links(page)) == ["gone.md", "page.md#other"]


def test_the_index_has_every_page():
    index = PAGES["index"].read_text(encoding="utf-8")
    listed = re.findall(r"^\| \[(\w[\w-]*)\.md\]\(\1\.md\) \| \w", index, re.MULTILINE)
    assert sorted(listed) == sorted(PAGES.keys() - {"README", "index"})
