"""Calls of C functions as events."""

import sys
import threading

import pytest

import vantrace
from conftest import run_python
from test_functions import recorded


def counts(recording):
    return {row.name: row.count for row in recording.summary()}


def sizes(count):
    return [len("text") for _ in range(count)]


def test_c_functions_are_events_where_asked_for():
    assert counts(recorded(sizes, 5, c_calls=True))["builtins.len"] == 5
    assert "builtins.len" not in counts(recorded(sizes, 5))


def test_they_are_named_by_module_or_type():
    import math

    def work():
        values = []
        values.append(math.sqrt(4.0))
        "a,b".split(",")
        dict.fromkeys([1])

    found = counts(recorded(work, c_calls=True))
    assert {"list.append", "math.sqrt", "str.split", "dict.fromkeys"} <= set(found)


def test_calls_that_raise_end():
    def work():
        for _ in range(3):
            with pytest.raises(ValueError):
                int.from_bytes(b"", "neither")

    assert counts(recorded(work, c_calls=True, include="int.*")) == {}
    assert counts(recorded(work, c_calls=True, include=["*work", "int.*"]))["int.from_bytes"] == 3


def test_time_of_a_c_function_is_its_own():
    def work():
        sorted(range(200_000), key=lambda number: -number)

    recording = recorded(work, c_calls=True)
    [row] = [row for row in recording.summary() if row.name == "builtins.sorted"]
    [inner] = [row for row in recording.summary() if row.name.endswith("<lambda>")]
    assert inner.count == 200_000
    assert row.total >= row.self + inner.total


def test_calls_inside_libraries_are_part_of_these():
    import json

    def work():
        json.dumps([1, 2, {"a": 3}], indent=2)

    names = set(counts(recorded(work, c_calls=True)))
    assert not any(name.startswith(("list.", "str.", "builtins.")) for name in names)


def test_every_thread_is_watched():
    ready, go = threading.Event(), threading.Event()

    def work():
        ready.set()
        go.wait()
        sizes(4)

    before = threading.Thread(target=work)
    before.start()
    ready.wait()
    with vantrace.record(functions=True, c_calls=True) as recording:
        later = threading.Thread(target=sizes, args=(3,))
        later.start()
        go.set()
        for thread in (before, later):
            thread.join()
    assert counts(recording)["builtins.len"] == 7
    assert sys.getprofile() is None


def test_the_program_s_own_profile_function_wins_and_is_told(tmp_path):
    script = tmp_path / "script.py"
    script.write_text(
        "import sys\n"
        "def work(): return len('text')\n"
        "seen = []\n"
        "work()\n"
        "sys.setprofile(lambda frame, event, argument: seen.append(event))\n"
        "work()\n"
        "sys.setprofile(None)\n"
        "print(seen[-5:])\n"  # before: the end of the call that set it
    )
    alone = run_python(script)
    done = run_python("-m", "vantrace", "run", "--c-calls", "-o", tmp_path / "t.json", script)
    assert (done.returncode, done.stdout) == (0, alone.stdout)
    assert "the program has a profile function of its own: some C calls are missing" in done.stderr


def test_a_program_without_one_is_told_nothing(tmp_path):
    script = tmp_path / "script.py"
    script.write_text("def work(): return len('text')\nprint(work())\n")
    done = run_python("-m", "vantrace", "run", "--c-calls", "-o", tmp_path / "t.json", script)
    assert (done.returncode, done.stdout) == (0, "4\n")
    assert "builtins.len" in done.stderr
    assert "profile function" not in done.stderr


def test_a_process_ends_in_silence():
    code = """
import threading, vantrace
vantrace.record(functions=True, c_calls=True, max_bytes=1 << 24, keep="last").__enter__()
running = threading.Event()
def loop():
    while True:
        len([]), sorted([2, 1], key=lambda number: number)
        running.set()
for _ in range(3): threading.Thread(target=loop, daemon=True).start()
running.wait()
"""
    for _ in range(3):
        done = run_python("-X", "dev", "-c", code)
        assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
