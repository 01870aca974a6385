"""Product statistics: logged by the private methods, read by `vantrace stats`."""

import contextlib
import json
import os
import sqlite3
import stat

import pytest

from conftest import run_python

LOG = """
import sys, vantrace
from vantrace import performance
def log(kind, name, detail):
    vantrace.host.private(f"performance.productStats.{kind}")(name, detail)
"""


@pytest.fixture(name="state")
def fixture_state(tmp_path):
    return tmp_path / "state"


@pytest.fixture(name="log")
def fixture_log(state, tmp_path):
    """Runs code that logs, in a process of its own."""

    def run(code):
        environment = os.environ | {"XDG_STATE_HOME": str(state)}
        done = run_python("-c", LOG + code, cwd=tmp_path, env=environment)
        assert done.returncode == 0, done.stderr
        return done

    return run


@pytest.fixture(name="stats")
def fixture_stats(state, tmp_path):
    def run(*arguments):
        environment = os.environ | {"XDG_STATE_HOME": str(state)}
        return run_python("-m", "vantrace", "stats", *arguments, cwd=tmp_path, env=environment)

    return run


def rows(state):
    with contextlib.closing(sqlite3.connect(state / "vantrace/product_stats.db")) as database:
        return database.execute("SELECT kind, name, detail FROM event ORDER BY id").fetchall()


def test_the_private_methods_log_rows(log, state):
    log('log("logEventTime", "a", "ü 1")')
    log('log("logEventBeginTime", "b", ""); log("logEventEndTime", "b", "")')
    assert rows(state) == [("time", "a", "ü 1"), ("begin", "b", ""), ("end", "b", "")]
    assert stat.S_IMODE((state / "vantrace/product_stats.db").stat().st_mode) == 0o600


def test_rows_of_threads_and_children_are_there_at_the_end(log, state):
    log(
        """
import os, threading
def work(name):
    for i in range(50):
        log("logEventTime", name, str(i))
threads = [threading.Thread(target=work, args=("thread",)) for _ in range(4)]
for thread in threads: thread.start()
for thread in threads: thread.join()
if os.fork() == 0:
    work("child")
    sys.exit()
os.wait()
"""
    )
    names = [name for _, name, _ in rows(state)]
    assert names.count("thread") == 200
    assert names.count("child") == 50


def test_where_they_cannot_be_kept_one_line_says_so(log, state):
    state.write_text("a file where the folder should be")
    done = log('for i in range(3): log("logEventTime", "a", "b")')
    assert done.stdout.startswith("vantrace: product statistics are not kept: ")
    assert done.stdout.count("\n") == 1
    assert done.stderr == ""


def test_methods_are_reached_by_the_private_door_alone(python):
    out = python(
        "from vantrace import performance\n"
        "print(hasattr(performance.productStats, 'logEventTime'), dir(performance.productStats))"
    )
    assert out.startswith("False ") and "logEvent" not in out


def test_nothing_logged_is_a_sentence(stats, state):
    done = stats()
    assert (done.returncode, done.stdout) == (0, "")
    assert done.stderr.startswith("vantrace: no product statistics were logged; ")
    assert str(state) in done.stderr
    assert not state.exists()


def test_stats_sums_up_by_name(log, stats):
    log(
        """
for i in range(3):
    log("logEventTime", "tick", str(i))
    log("logEventBeginTime", "load", "library")
    log("logEventEndTime", "load", "library")
log("logEventBeginTime", "open", "library")
"""
    )
    done = stats()
    assert (done.returncode, done.stderr) == (0, "")
    head, columns, *table = done.stdout.splitlines()
    assert head.startswith("vantrace: 10 rows from ")
    assert columns.split() == ["name", "times", "begun", "ended", "total", "longest"]
    cells = {line.split()[0]: line.split()[1:] for line in table}
    assert cells["tick"] == ["3"]
    assert cells["load"][:2] == ["3", "3"] and len(cells["load"]) == 6
    assert cells["open"] == ["1"]


def test_stats_as_json(log, stats):
    log('log("logEventBeginTime", "load", "x"); log("logEventEndTime", "load", "x")')
    found = json.loads(stats("--json").stdout)
    assert [row["kind"] for row in found["events"]] == ["begin", "end"]
    (interval,) = found["intervals"]
    assert interval["duration_ns"] == interval["end_utc_ns"] - interval["begin_utc_ns"] >= 0


def test_statistics_on_a_full_disk(small_disk, log, stats, state):
    state.symlink_to(small_disk)
    log('log("logEventTime", "before", "")')
    filler = small_disk / "filler"
    with filler.open("wb", buffering=0) as file, contextlib.suppress(OSError):
        while file.write(bytes(4096)):
            pass
    done = log(
        'for i in range(3):\n    log("logEventTime", "meanwhile", "x" * 50_000)\nprint("unharmed")'
    )
    unharmed, line = sorted(done.stdout.splitlines(), key=len)
    assert (unharmed, done.stderr) == ("unharmed", "")
    assert line.startswith("vantrace: product statistics are not kept: ")
    assert [row[1] for row in rows(state)] == ["before"]
    assert "before" in stats().stdout
    filler.unlink()
    log('log("logEventTime", "after", "")')
    assert [row[1] for row in rows(state)] == ["before", "after"]


def test_stats_of_another_file(log, stats, state, tmp_path):
    log('log("logEventTime", "tick", "x")')
    (state / "vantrace").rename(tmp_path / "elsewhere")
    assert "tick" in stats(tmp_path / "elsewhere/product_stats.db").stdout


@pytest.mark.parametrize("content", [b"no database at all" * 100, b""])
def test_a_file_that_is_no_database_is_an_error(stats, tmp_path, content):
    file = tmp_path / "other.db"
    file.write_bytes(content)
    done = stats(file)
    assert (done.returncode, done.stdout) == (2, "")
    assert done.stderr.startswith(f"vantrace: cannot read product statistics from '{file}': ")


@pytest.mark.parametrize(
    "arguments, words",
    [(["--yaml"], "stats has no option '--yaml'"), (["a", "b"], "stats takes one file, not 2")],
)
def test_wrong_arguments(stats, arguments, words):
    done = stats(*arguments)
    assert done.returncode == 2
    assert words in done.stderr
