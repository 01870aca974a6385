"""`vantrace run` with the counter, the profiler and the logger, alone and together."""

import re

import pytest

from conftest import run_python

SCRIPT = """
import sys, threading, vantrace
print("before")
for i in range(3):
    with vantrace.event("phase", i=i):
        vantrace.instant("tick")
thread = threading.Thread(target=lambda: vantrace.instant("theirs"))
thread.start(); thread.join()
from vantrace import performance
print(performance.instrument.controls.wereAllEnabled())
sys.exit(3)
"""
OUTPUT = "before\nTrue\n"
LOGGED = re.compile(r"\] (START|STOP|INSTANT): (\S+) +; thread \d+; ID \d+")
PHASE = ["START phase", "INSTANT tick", "STOP phase"]


@pytest.fixture(name="run")
def fixture_run(tmp_path):
    """Runs the script; gives what is on standard error. Standard output is the script's alone."""
    script = tmp_path / "script.py"
    script.write_text(SCRIPT)

    def run(*options):
        command = ["-m", "vantrace", "run", "-o", "t.json", "--events-only", *options, script]
        done = run_python(*command, cwd=tmp_path)
        assert (done.returncode, done.stdout) == (3, OUTPUT)
        assert (tmp_path / "t.json").exists()
        return done.stderr

    return run


def logged(text):
    return [f"{kind} {name}" for kind, name in LOGGED.findall(text)]


def counted(text):
    """{event: count} of the counter's table."""
    lines = text.split("        count  event\n")[1].splitlines()
    cells = [line.split() for line in lines if not line.startswith(("vantrace", "["))]
    return {name: int(count) for count, name in cells}


def profiled(text):
    """{event: calls} of the profiler's table."""
    lines = text.splitlines()
    head = next(i for i, line in enumerate(lines) if re.match(r"event {38}calls", line))
    rows = {}
    for line in lines[head + 1 :]:
        if line.startswith("vantrace"):
            break
        rows[line.split()[0]] = int(line.split()[1])
    return rows


def test_without_them_nothing_of_theirs_is_said(run):
    said = run()
    assert "Logging" not in said and "count  event" not in said
    heads = [line for line in said.splitlines() if line.startswith("event")]
    assert len(heads) == 1  # the recording's own table


def test_the_counter_alone(run):
    assert counted(run("--count")) == {"phase": 3, "tick": 3, "theirs": 1}


def test_the_profiler_alone(run):
    assert profiled(run("--profile")) == {"phase": 3}


def test_the_logger_alone(run):
    said = run("--log")
    assert said.startswith("Performance Logging started[")
    assert logged(said) == PHASE * 3 + ["INSTANT theirs"]


def test_all_together(run):
    said = run("--log", "--count", "--profile")
    assert counted(said) == {"phase": 3, "tick": 3, "theirs": 1}
    assert profiled(said) == {"phase": 3}
    assert logged(said) == PHASE * 3 + ["INSTANT theirs"]
    assert re.search(r"^phase +3 ", said, re.MULTILINE)  # the recording's own table


def test_functions_are_heard_too(tmp_path):
    script = tmp_path / "script.py"
    script.write_text("def f(): pass\nfor _ in range(5): f()\n")
    command = ["-m", "vantrace", "run", "-o", "t.json", "--count", "--profile", script]
    said = run_python(*command, cwd=tmp_path).stderr
    assert counted(said)["__main__.f"] == 5
    assert profiled(said)["__main__.f"] == 5


LAST = """
import os, vantrace
from vantrace import performance
controls = performance.instrument.controls

class Last:  # goes after every exit handler
    def __del__(self, write=os.write, controls=controls):
        write(1, f"{controls.wereAllEnabled()}\\n".encode())

last = Last()
print(controls.wereAllEnabled(), flush=True)
"""


@pytest.mark.parametrize(
    "options", [["--log"], ["--profile"], ["--count"], ["--log", "--profile", "--count"]]
)
def test_the_switches_are_given_back(tmp_path, options):
    (tmp_path / "last.py").write_text(LAST, encoding="utf-8")
    alone = run_python("last.py", cwd=tmp_path)
    assert alone.stdout == "False\nFalse\n"
    done = run_python("-m", "vantrace", "run", "--events-only", *options, "last.py", cwd=tmp_path)
    assert (done.returncode, done.stdout) == (0, "True\nFalse\n")
