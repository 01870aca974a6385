"""What long exports tell a terminal, and what an interrupt leaves of them."""

import os
import pty
import signal
import subprocess
import sys

import pytest

import vantrace
from vantrace._core import Trace, combine_traces
from vantrace._progress import Progress


class Terminal:
    def __init__(self):
        self.text = ""

    def isatty(self):
        return True

    def write(self, text):
        self.text += text

    def flush(self):
        pass


class Clock:
    now = 0.0

    def __call__(self):
        return self.now


def test_nothing_is_shown_in_the_first_second():
    terminal, clock = Terminal(), Clock()
    with Progress("exporting", 100, terminal, clock) as progress:
        progress(10)
        clock.now = 0.9
        progress(50)
    assert terminal.text == ""


def test_the_line_is_rewritten_and_taken_away():
    terminal, clock = Terminal(), Clock()
    with Progress("exporting", 100, terminal, clock) as progress:
        clock.now = 1.0
        progress(10)
        progress(11)  # too soon after the last
        clock.now = 2.0
        progress(500)
    first, second, blank, end = terminal.text.split("\r")[1:]
    assert (first, second) == ("vantrace: exporting, about 10 %", "vantrace: exporting, about 99 %")
    assert blank == " " * len(second) and end == ""


def test_what_is_no_terminal_is_not_written_to(tmp_path):
    clock = Clock()
    with open(tmp_path / "file", "w+") as file:
        with Progress("exporting", 100, file, clock) as progress:
            clock.now = 5.0
            progress(50)
        assert file.tell() == 0


@pytest.fixture(name="trace")
def fixture_trace(tmp_path):
    with vantrace.record() as recording:
        for _ in range(1000):
            with vantrace.event("n"):
                pass
    recording.save(tmp_path / "own.vtrace")
    return tmp_path / "own.vtrace"


def test_progress_tells_the_bytes_that_were_read(trace, tmp_path):
    told = []
    opened = Trace(trace, told.append)
    assert told and told == sorted(told)
    surveyed = told[-1]
    opened.save_json(tmp_path / "a.json")
    assert told[-1] >= 3 * surveyed


SAVES = {
    "a.json": Trace.save_json,
    "a.json.gz": Trace.save_json,
    "a.folded": Trace.save_stacks,
    "a.speedscope.json": Trace.save_speedscope,
    "parts.json": lambda trace, path: trace.save_parts(path, 8192),
}


@pytest.mark.parametrize("name", SAVES)
def test_an_interrupt_leaves_no_file(trace, tmp_path, name):
    is_time = False

    def interrupt(_):
        if is_time:
            signal.raise_signal(signal.SIGINT)

    opened = Trace(trace, interrupt)
    is_time = True
    with pytest.raises(KeyboardInterrupt):
        SAVES[name](opened, tmp_path / name)
    assert os.listdir(tmp_path) == ["own.vtrace"]
    is_time = False
    SAVES[name](opened, tmp_path / name)
    assert (tmp_path / name).exists()


def test_an_interrupt_ends_combining(trace, tmp_path):
    with pytest.raises(KeyboardInterrupt):
        combine_traces([str(trace)] * 2, tmp_path / "both.vtrace", lambda _: signal.raise_signal(2))
    assert os.listdir(tmp_path) == ["own.vtrace"]


def test_the_command_ends_by_the_interrupt_and_says_nothing(trace, tmp_path):
    code = """
import signal, sys
from vantrace import _progress, _export
_progress.Progress.__call__ = lambda self, done: signal.raise_signal(signal.SIGINT)
_export.export(sys.argv[1:])
"""
    command = [sys.executable, "-c", code, str(trace), "-o", str(tmp_path / "a.json")]
    done = subprocess.run(command, capture_output=True, check=False)
    assert (done.returncode, done.stdout, done.stderr) == (-signal.SIGINT, b"", b"")
    assert os.listdir(tmp_path) == ["own.vtrace"]


def test_a_terminal_is_as_it_was_after_a_long_export(trace, tmp_path):
    code = """
import sys, time
from vantrace import _progress, _export
_progress._PATIENCE = _progress._PACE = 0
sys.exit(_export.export(sys.argv[1:]))
"""
    ours, theirs = pty.openpty()
    command = [sys.executable, "-c", code, str(trace), "-o", str(tmp_path / "a.json")]
    assert subprocess.run(command, stderr=theirs, check=False).returncode == 0
    os.close(theirs)
    text = os.read(ours, 65536).decode()
    os.close(ours)
    assert "\rvantrace: exporting, about " in text
    assert text.endswith(" \r") and "\n" not in text
