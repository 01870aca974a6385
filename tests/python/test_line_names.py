"""Samples of lines name files and functions whatever characters their names have."""

import os
import time

import pytest

import vantrace

ENOUGH = 0.15  # seconds of CPU time
LONG = "é" * 200

# Of each width in which the interpreter keeps texts, and one that is not text at all.
NAMES = [
    (b"plain.py", "plain"),
    ("café.py".encode(), "café"),
    ("測試.py".encode(), "測試"),
    ("\U0001f600.py".encode(), "𠀀x"),
    (b"no text \xff.py", "without_text"),
]


def busy_function(path, name):
    """A function of that name in a file there."""
    code = f"""\
def {name}():
    end = time.thread_time() + {ENOUGH}
    while time.thread_time() < end:
        sum(range(1_000_000))  # {LONG}
"""
    with open(path, "w", encoding="utf-8") as file:
        file.write(code)
    scope = {"time": time}
    exec(compile(code, os.fsdecode(path), "exec"), scope)
    return scope[name]


@pytest.fixture(name="lines", scope="module")
def fixture_lines(tmp_path_factory):
    """The hottest line of each function, by the function's name."""
    folder = os.fsencode(tmp_path_factory.mktemp("names"))
    functions = [busy_function(os.path.join(folder, file), name) for file, name in NAMES]
    with vantrace.record(lines=True) as recording:
        for function in functions:
            function()
    # The hottest come first.
    return {line.function: line for line in reversed(recording.lines()) if line.line == 4}


@pytest.mark.parametrize("file, name", NAMES, ids=["narrow", "latin", "wide", "wider", "bytes"])
def test_the_file_and_the_function_have_their_names(lines, file, name):
    assert os.path.basename(lines[name].file) == file.decode("utf-8", "replace")


@pytest.mark.parametrize("name", [name for _, name in NAMES])
def test_a_long_line_is_cut_between_characters(lines, name):
    text = "sum(range(1_000_000))  # "
    assert lines[name].text == text + LONG[: (160 - len(text)) // 2]
