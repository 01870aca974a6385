"""`vantrace run`: the table is there however the script ends, and of all of its processes."""

import re

import pytest

from conftest import run_python

FUNCTIONS = "def work():\n    pass\nfor _ in range(5):\n    work()\n"
OF_TRACE = "vantrace: what is in the trace, of"


@pytest.fixture(name="said")
def fixture_said(tmp_path):
    """Runs a script under us; gives what it says on standard error."""

    def run(code, *options):
        (tmp_path / "script.py").write_text(code, encoding="utf-8")
        return run_python("-m", "vantrace", "run", *options, "script.py", cwd=tmp_path).stderr

    return run


def calls(text):
    """{name: calls} of a table."""
    rows = re.findall(r"^(\S+) +([\d,]+) .* [mun]?s\b.*$", text, re.MULTILINE)
    assert len(rows) == len(dict(rows)), "more than one table"
    return {name: int(count.replace(",", "")) for name, count in rows}


@pytest.mark.parametrize("ending", ["os.kill(os.getpid(), 9)", "os._exit(3)", "os.abort()"])
def test_a_script_that_cannot_say_it_itself(said, ending):
    text = said(f"{FUNCTIONS}import os\n{ending}\n")
    assert f"{OF_TRACE} 1 process:\n" in text
    assert calls(text)["__main__.work"] == 5


def test_a_script_that_ends_itself_says_it_once(said):
    text = said(FUNCTIONS)
    assert OF_TRACE not in text
    assert calls(text)["__main__.work"] == 5


def test_several_processes_are_joined(said):
    text = said(
        f"""
import os
{FUNCTIONS}
for _ in range(2):
    if os.fork() == 0:
        work()
        os._exit(0)
    os.wait()
"""
    )
    assert f"{OF_TRACE} 3 processes:\n" in text
    assert ", 3 threads, " in text
    assert calls(text)["__main__.work"] == 7


def test_no_table_of_a_killed_script_where_none_is_wanted(said):
    text = said(f"{FUNCTIONS}import os\nos._exit(3)\n", "--no-table")
    assert re.fullmatch(r"vantrace: the trace is .*\n", text)


def test_the_options_of_the_table_hold(said):
    code = f"{FUNCTIONS}def other(): pass\nother()\nimport os\nos._exit(3)\n"
    text = said(code, "--sort", "calls", "--top", "1")
    assert calls(text) == {"__main__.work": 5}


def test_threads_of_the_same_name_are_counted_apart(said):
    text = said(
        """
import threading, vantrace

def work():
    with vantrace.event("work"):
        together.wait()

together = threading.Barrier(3)
threads = [threading.Thread(target=work, name="same") for _ in range(2)]
for thread in threads:
    thread.start()
with vantrace.event("work"):
    together.wait()
for thread in threads:
    thread.join()
""",
        "--events-only",
    )
    assert ", 3 threads, 3 events\n" in text
