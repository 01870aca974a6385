"""`vantrace diff`: two runs side by side, by name."""

import json
import re

import pytest

import vantrace
from conftest import run_python

pytestmark = pytest.mark.unsanitized


@pytest.fixture(name="command")
def fixture_command(tmp_path):
    def run(*arguments):
        return run_python("-m", "vantrace", "diff", *arguments, cwd=tmp_path)

    return run


@pytest.fixture(name="write")
def fixture_write(tmp_path):
    """Writes a trace with so many calls of each name."""

    def write(file, **calls):
        with vantrace.record(tmp_path / file) as recording:
            for name, count in calls.items():
                for _ in range(count):
                    with vantrace.event(name):
                        pass
        return {row.name: row for row in recording.summary()}

    return write


def entries(done):
    return {entry["name"]: entry for entry in json.loads(done.stdout)["names"]}


def rows(text):
    lines = [line for line in text.splitlines() if not line.startswith("vantrace: ")]
    return [re.split("  +", line) for line in lines]


def test_each_name_of_either_is_compared(command, write):
    before = write("a.vtrace", same=10, gone=5)
    after = write("b.vtrace", same=30, new=7)
    done = command("a.vtrace", "b.vtrace", "--json")
    assert (done.returncode, done.stderr) == (0, "")
    found = entries(done)
    assert found.keys() == {"same", "gone", "new"}
    assert (found["same"]["before"], found["same"]["after"]) == (
        before["same"].self,
        after["same"].self,
    )
    assert (found["same"]["calls_before"], found["same"]["calls_after"]) == (10, 30)
    assert (found["gone"]["after"], found["gone"]["percent"]) == (0, -100)
    assert (found["new"]["before"], found["new"]["percent"]) == (0, None)


def test_the_most_changed_comes_first(command, write):
    write("a.vtrace", a=10, b=100, c=50)
    write("b.vtrace", a=15, b=10, c=50)
    done = command("--by", "calls", "a.vtrace", "b.vtrace")
    assert rows(done.stdout) == [
        ["event", "change", "%", "calls A", "calls B"],
        ["b", "-90", "-90.0%", "100", "10"],
        ["a", "+5", "+50.0%", "10", "15"],
    ]
    done = command("--by=calls", "--top=1", "a.vtrace", "b.vtrace")
    assert [row[0] for row in rows(done.stdout)] == ["event", "b", "... and 1 more"]


def test_a_file_beside_itself_has_not_changed(command, write):
    write("a.vtrace", a=10)
    done = command("--fail-if", "0%", "a.vtrace", "a.vtrace")
    assert done.returncode == 0
    assert done.stdout.splitlines()[-1] == "vantrace: no name changed"


def test_growth_beyond_what_is_allowed_is_the_status(command, write):
    write("a.vtrace", a=100, b=10)
    write("b.vtrace", a=115, b=11)
    given = ("--by", "calls", "a.vtrace", "b.vtrace")
    assert command(*given, "--fail-if", "20%").returncode == 0
    done = command(*given, "--fail-if", "10%")
    assert (done.returncode, done.stderr) == (1, "vantrace: 'a' grew: +15.0%\n")
    assert command(*given, "--fail-if=10%", "--json").returncode == 1
    write("c.vtrace", a=100)
    assert command("--by=calls", "b.vtrace", "c.vtrace", "--fail-if=10%").returncode == 0


def test_what_is_too_little_to_tell_does_not_fail(command, write):
    write("a.vtrace", a=1000, rare=1)
    write("b.vtrace", a=1000, rare=9)
    assert command("--by=calls", "a.vtrace", "b.vtrace", "--fail-if=10%").returncode == 0


def test_a_new_name_fails_when_it_is_not_small(command, write):
    write("a.vtrace", a=10)
    write("b.vtrace", a=10, b=10)
    done = command("--by=calls", "a.vtrace", "b.vtrace", "--fail-if=500%")
    assert (done.returncode, done.stderr) == (1, "vantrace: 'b' grew: new\n")


def test_medians_of_repeated_runs_are_compared(command, write):
    for number, count in enumerate((10, 12, 50), 1):
        write(f"a-{number}.vtrace", a=count, steady=5)
    for number, count in enumerate((20, 24, 22), 1):
        write(f"b-{number}.vtrace", a=count, steady=9)
    done = command("--by=calls", "a.vtrace", "b.vtrace", "--json", "--fail-if=1%")
    found = entries(done)
    assert (found["a"]["before"], found["a"]["after"], found["a"]["spread"]) == (12, 22, 40)
    assert (found["a"]["is_change"], found["a"]["fails"]) == (False, False)
    assert (found["steady"]["spread"], found["steady"]["fails"]) == (0, True)
    assert done.returncode == 1
    text = command("--by=calls", "a.vtrace", "b.vtrace").stdout
    assert "vantrace: medians of 3 and 3 runs" in text
    # What is a change comes first; within the spread there is no percentage.
    assert [(row[0], row[2]) for row in rows(text)[1:]] == [("steady", "+80.0%"), ("a", "~")]


def test_the_wall_time_is_compared_too(command, write):
    write("a.vtrace", a=1)
    write("b.vtrace", a=5000)
    done = command("a.vtrace", "b.vtrace", "--fail-if=10%")
    assert done.returncode == 1
    assert re.match(r"vantrace: [\d.]+ [nmu]?s before, [\d.]+ [mu]?s after: \+", done.stdout)
    assert done.stderr.startswith("vantrace: the wall time grew: +")


@pytest.mark.parametrize(
    "arguments, complaint",
    [
        (["a.vtrace"], "diff takes two files, not 1"),
        (["a.vtrace", "missing.vtrace"], "cannot read 'missing.vtrace': No such file"),
        (["--fail-if", "10", "a.vtrace", "a.vtrace"], "--fail-if takes a share such as 10%"),
        (["--by", "size", "a.vtrace", "a.vtrace"], "--by takes one of self, total, calls"),
        (["--odd", "a.vtrace", "a.vtrace"], "diff has no option '--odd'"),
        (["a.vtrace", "a.vtrace", "--top"], "--top takes a value"),
    ],
)
def test_what_is_asked_wrongly_is_said(command, write, arguments, complaint):
    write("a.vtrace", a=1)
    done = command(*arguments)
    assert (done.returncode, done.stdout) == (2, "")
    assert done.stderr.startswith("vantrace: ") and complaint in done.stderr
