"""The documents: their code blocks, their links, and who runs which block."""

import re
from collections import namedtuple

from conftest import ROOT

PAGES = {"README": ROOT / "README.md"} | {
    "index" if path.stem == "README" else path.stem: path
    for path in sorted((ROOT / "docs").glob("*.md"))
}

Block = namedtuple("Block", "page language code number")

# Blocks that tests of their own run, by page and language.
TESTED_ELSEWHERE = {
    ("cpp", "cmake"): "test_cpp_guide.test_a_program_of_the_guide_builds_and_runs",
    ("cpp", "cpp"): "test_cpp_guide.test_a_program_of_the_guide_builds_and_runs",
    ("dormant", "sh"): "test_dormant.test_the_guide_s_example",
    ("installing", "cmake"): "test_install.test_a_cmake_project_finds_the_libraries",
    ("notebook", "ipython"): "test_notebook.test_the_cells_of_the_guide_run",
    ("plugins", "cmake"): "test_plugin_guide.test_the_guide_s_plugin_is_built_called_and_unloaded",
    ("plugins", "cpp"): "test_plugin_guide.test_the_guide_s_plugin_is_built_called_and_unloaded",
    ("plugins", "python"): "test_plugin_guide.test_the_guide_s_plugin_is_built_called_and_unloaded",
    ("plugins", "sh"): "test_plugin_guide.test_the_guide_s_plugin_is_built_called_and_unloaded",
    ("report", "console"): "test_report.test_the_commands_of_the_page_about_it_run",
    ("view", "console"): "test_view.test_the_example_of_the_page_about_it_runs",
}
# And those that nothing runs, with the reason.
NOT_RUN = {
    ("README", "sh"): "it runs all tests, this one too",
    ("cost", "sh"): "measuring takes minutes; the rows' tables are tested in test_bench",
}
_HERE = {
    "python": "test_documents.test_python_blocks_run",
    "console": "test_documents.test_commands_run",
    "sh": "test_documents.test_commands_run",
}


def blocks_in(text, page=""):
    """The fenced blocks of a page's text."""
    found, language, lines = [], None, []
    for line in text.splitlines():
        if not line.startswith("```"):
            lines.append(line)
        elif language is None:
            language, lines = line.removeprefix("```").strip(), []
        else:
            found.append(Block(page, language, "\n".join([*lines, ""]), len(found)))
            language = None
    assert language is None, f"{page}: a block does not end"
    return found


def all_blocks():
    for page, path in PAGES.items():
        yield from blocks_in(path.read_text(encoding="utf-8"), page)


def runner_of(block):
    """The test that runs a block, as module.function; none where there is no such test."""
    if runner := TESTED_ELSEWHERE.get((block.page, block.language)):
        return runner
    if block.language == "cpp":
        return "test_documents.test_cpp_programs_run" if "int main" in block.code else None
    return _HERE.get(block.language)


def run_by(runner):
    """The blocks that a test runs."""
    return [block for block in all_blocks() if runner_of(block) == runner and not is_excused(block)]


def is_excused(block):
    """Whether it is no code, but what a program prints; or is known not to be run."""
    return block.language == "text" or (block.page, block.language) in NOT_RUN


def broken_links(path):
    """The links of a page that lead nowhere in the tree."""
    for target in re.findall(r"\]\(([^)]+)\)", path.read_text(encoding="utf-8")):
        file, _, heading = target.partition("#")
        if ":" in file:
            continue  # elsewhere
        there = path.parent / file if file else path
        if not there.exists() or heading and heading not in _headings(there):
            yield target


def _headings(path):
    """As links name them."""
    titles = re.findall(r"^#+ (.*)$", path.read_text(encoding="utf-8"), re.MULTILINE)
    return {re.sub(r"[^\w\- ]", "", title.lower()).replace(" ", "-") for title in titles}
