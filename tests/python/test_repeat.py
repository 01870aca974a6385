"""`vantrace run --repeat`: medians of several runs, which diff compares."""

import json
import re
import signal

import pytest

from conftest import run_python

pytestmark = pytest.mark.unsanitized

SCRIPT = """
import os, sys, vantrace
path = os.path.join(os.path.dirname(__file__), "runs")
with open(path, "a") as runs:
    runs.write(f"{os.getpid()} {sys.argv[1:]}\\n")
number = len(open(path).readlines())
for _ in range(10 * number):
    with vantrace.event("work"):
        pass
print("run", number)
"""


@pytest.fixture(name="run")
def fixture_run(tmp_path):
    def run(*arguments, script=SCRIPT):
        (tmp_path / "script.py").write_text(script)
        return run_python("-m", "vantrace", *arguments, cwd=tmp_path)

    return run


def test_each_run_is_a_process_and_a_trace_of_its_own(run, tmp_path):
    done = run("run", "--repeat", "3", "-o", "own.vtrace", "script.py", "--odd", "x")
    assert (done.returncode, done.stdout) == (0, "run 1\nrun 2\nrun 3\n")
    runs = [line.split(" ", 1) for line in (tmp_path / "runs").read_text().splitlines()]
    assert len({process for process, _ in runs}) == 3
    assert [said for _, said in runs] == ["['--odd', 'x']"] * 3
    assert sorted(path.name for path in tmp_path.glob("*.vtrace")) == [
        f"own-{number}.vtrace" for number in (1, 2, 3)
    ]
    for number in (1, 2, 3):
        table = run("table", f"own-{number}.vtrace").stdout
        assert re.search(rf"^work +{10 * number} ", table, re.MULTILINE)


def test_the_table_tells_medians_and_spread(run):
    done = run("run", "--repeat=3", "--events-only", "-o", "own.vtrace", "script.py")
    said = done.stderr.splitlines()
    heads = [line for line in said if line.startswith("vantrace: medians of 3 runs; wall time ")]
    assert len(heads) == 1
    assert re.search(r"^work +20 ", done.stderr, re.MULTILINE)
    assert said[-1] == "vantrace: the traces are own-1.vtrace to own-3.vtrace"
    assert sum("wall time" in line for line in said) == 1


def test_no_table_is_none(run):
    done = run("run", "--repeat=2", "--no-table", "-o", "own.vtrace", "script.py")
    assert "medians" not in done.stderr and done.returncode == 0


def test_diff_takes_all_of_them(run, tmp_path):
    for name in ("a", "b"):
        run("run", "--repeat=3", "--events-only", "-o", f"{name}.vtrace", "script.py")
        (tmp_path / "runs").unlink()
    done = run("diff", "--json", "--by=calls", "a.vtrace", "b.vtrace", "--fail-if=0%")
    assert done.returncode == 0
    [work] = [entry for entry in json.loads(done.stdout)["names"] if entry["name"] == "work"]
    assert (work["before"], work["after"], work["spread"]) == (20, 20, 20)


def test_a_run_that_fails_ends_it_all(run, tmp_path):
    script = SCRIPT + "sys.exit(7 if number == 2 else 0)\n"
    done = run("run", "--repeat=5", "-o", "own.vtrace", "script.py", script=script)
    assert (done.returncode, done.stdout) == (7, "run 1\nrun 2\n")
    assert "medians" not in done.stderr
    assert len(list(tmp_path.glob("own-*.vtrace"))) == 2


def test_a_run_that_is_killed_ends_it_all_alike(run):
    script = SCRIPT + "os.kill(os.getpid(), 9)\n"
    done = run("run", "--repeat=5", "-o", "own.vtrace", "script.py", script=script)
    assert done.returncode == -signal.SIGKILL


def test_what_would_count_as_a_run_is_in_the_way(run, tmp_path):
    for name in ("own.vtrace", "own-4.vtrace"):
        (tmp_path / name).touch()
        done = run("run", "--repeat=3", "-o", "own.vtrace", "script.py")
        assert (done.returncode, done.stdout) == (2, "")
        assert f"{name!r} is in the way" in done.stderr
        (tmp_path / name).unlink()


@pytest.mark.parametrize(
    "options, complaint",
    [
        (["--repeat", "0"], "--repeat takes a number of runs"),
        (["--repeat", "many"], "--repeat takes a number of runs"),
        (["--repeat", "2", "-o", "own.json"], "--repeat writes .vtrace files, not 'own.json'"),
    ],
)
def test_what_is_asked_wrongly_is_said(run, options, complaint):
    done = run("run", *options, "script.py")
    assert (done.returncode, done.stdout) == (2, "")
    assert complaint in done.stderr
