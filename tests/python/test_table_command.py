"""`vantrace table`: where the time of a trace file went."""

import os
import re
import signal
import subprocess

import pytest

import vantrace
from conftest import run_python


@pytest.fixture(name="command")
def fixture_command(tmp_path):
    def run(*arguments):
        return run_python("-m", "vantrace", "table", *arguments, cwd=tmp_path)

    return run


@pytest.fixture(name="trace")
def fixture_trace(tmp_path):
    """A trace file, and the recording that it is of."""
    with vantrace.record() as recording:
        for number in range(100):
            with vantrace.event("outer"):
                for name in ("inner", f"n{number % 4}"):
                    with vantrace.event(name):
                        pass
    recording.save(tmp_path / "own.vtrace")
    return recording


def cells_of(text):
    lines = [line for line in text.splitlines() if not line.startswith("vantrace: ")]
    return {cells[0]: cells[1:] for cells in (re.split("  +", line) for line in lines[1:])}


def test_the_table_is_that_of_the_recording(command, trace):
    done = command("own.vtrace")
    assert (done.returncode, done.stderr) == (0, "")
    head = done.stdout.splitlines()
    assert re.fullmatch(r"vantrace: [\d.]+ [mu]?s wall time, 1 thread, 300 events", head[0])
    assert re.fullmatch(r"vantrace: \d+ % of it is in the widest 3 of 6 names", head[1])
    assert head[2].split() == "event calls total self self % p50 p99".split()
    found = cells_of(done.stdout)
    summary = {line.name: line for line in trace.summary()}
    assert {name: int(cells[0]) for name, cells in found.items()} == {
        name: line.count for name, line in summary.items()
    }
    assert list(found) == [line.name for line in trace.summary()]


def test_order_and_length_are_as_asked(command, trace):
    done = command("--sort=name", "--top", "2", "own.vtrace")
    assert list(cells_of(done.stdout))[:2] == ["inner", "n0"]
    assert "... and 4 more names" in done.stdout.splitlines()


def test_what_the_trace_has_not_is_said(command, tmp_path):
    with vantrace.record(max_bytes=1 << 20, keep="longest") as recording:
        for _ in range(100_000):
            with vantrace.event("n"):
                pass
    recording.save(tmp_path / "part.vtrace")
    [line] = [line for line in command("part.vtrace").stdout.splitlines() if "memory" in line]
    assert re.fullmatch(
        r"vantrace: for want of memory [\d,]+ events, the shortest, up to [\d.]+ [nmu]?s, "
        r"are not in the trace, nor in the table",
        line,
    )


@pytest.mark.parametrize(
    "arguments, complaint",
    [
        ([], "table takes one file, not 0"),
        (["a", "b"], "table takes one file, not 2"),
        (["missing"], "cannot read 'missing': No such file"),
        (["--odd", "own.vtrace"], "table has no option '--odd'"),
        (["--sort", "size", "own.vtrace"], "--sort takes one of"),
        (["--keep", "last", "own.vtrace"], "table has no option '--keep'"),
    ],
)
def test_what_is_asked_wrongly_is_said(command, trace, arguments, complaint):
    done = command(*arguments)
    assert (done.returncode, done.stdout) == (2, "")
    assert done.stderr.startswith("vantrace: ") and complaint in done.stderr


@pytest.mark.parametrize("command", [("table", "own.vtrace"), ("tree",), ("diff", *2 * ["own.vtrace"])])
def test_a_reader_that_has_seen_enough_is_no_error(trace, tmp_path, command):
    reading, writing = os.pipe()
    os.close(reading)
    with open(writing, "wb") as output:
        pipes = {"capture_output": False, "stdout": output, "stderr": subprocess.PIPE}
        done = run_python("-m", "vantrace", *command, cwd=tmp_path, **pipes)
    assert (done.returncode, done.stderr) == (128 + signal.SIGPIPE, "")
