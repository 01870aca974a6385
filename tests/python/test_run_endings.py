"""`vantrace run`: nothing that was recorded is lost, however the script ends."""

import json
import os
import re
import signal
import subprocess
import sys

import pytest

from conftest import run_python
from trace_rules import check_trace, events_of

WORK = "import vantrace\nwith vantrace.event('work'):\n    pass\n"


@pytest.fixture(name="traced")
def fixture_traced(tmp_path):
    """Runs code under us; gives the finished process and how often each event is in the trace."""

    def run(code, *options):
        script = tmp_path / "script.py"
        script.write_text(code, encoding="utf-8")
        done = run_python("-m", "vantrace", "run", *options, "-o", "t.json", script, cwd=tmp_path)
        assert sorted(os.listdir(tmp_path)) == ["script.py", "t.json"]
        return done, counts(tmp_path / "t.json")

    return run


@pytest.fixture(name="events")
def fixture_events(traced):
    """The same without functions."""
    return lambda code: traced(code, "--events-only")


def counts(path):
    text = path.read_text(encoding="utf-8")
    assert check_trace(text) == []
    found = {}
    for event in events_of(text):
        if event["ph"] in "Xi":  # one without duration is an instant
            found[event["name"]] = found.get(event["name"], 0) + 1
    return found


ENDINGS = {
    "import sys; sys.exit(5)": 5,
    "import sys; sys.exit('that is all')": 1,
    "import sys; sys.exit(None)": 0,
    "raise ValueError('gone')": 1,
    "import os; os._exit(7)": 7,
    "import os; os.kill(os.getpid(), 9)": -signal.SIGKILL,
    "import os, signal; os.kill(os.getpid(), signal.SIGTERM)": -signal.SIGTERM,
    "raise KeyboardInterrupt": -signal.SIGINT,
    "import ctypes; ctypes.string_at(0)": -signal.SIGSEGV,
    "import os; os.abort()": -signal.SIGABRT,
    """
import resource
resource.setrlimit(resource.RLIMIT_AS, (1 << 30, 1 << 30))
kept = []
def keep(size):
    kept.append(bytearray(size))
while True:
    keep(64 << 20)
""": 1,
    """
from concurrent.futures import ProcessPoolExecutor
def fail(number):
    raise ValueError(number)
with ProcessPoolExecutor(1) as pool:
    print(pool.submit(abs, -1).result(), flush=True)
    pool.submit(fail, 2).result()
""": 1,
}


@pytest.mark.parametrize("functions", [True, False], ids=["functions", "events"])
@pytest.mark.parametrize(
    "ending, status",
    [
        # The sanitizer makes a report of a crash, and a plain exit.
        pytest.param(*ending, marks=[pytest.mark.unsanitized] * (ending[1] == -signal.SIGSEGV))
        for ending in ENDINGS.items()
    ],
)
def test_whatever_ends_the_script(traced, tmp_path, ending, status, functions):
    options = [] if functions else ["--events-only"]
    done, found = traced(WORK + "print('worked', flush=True)\n" + ending, *options)
    assert found["work"] == 1
    alone = run_python(tmp_path / "script.py", cwd=tmp_path)
    assert done.returncode == alone.returncode == status
    assert done.stdout == alone.stdout
    assert done.stderr.startswith(alone.stderr)
    assert not has_others_than_ours(done.stderr[len(alone.stderr) :])


def test_the_longest_of_a_script_that_is_killed(traced, tmp_path):
    done, found = traced(
        "import os, vantrace\n"
        "with vantrace.event('long'):\n"
        "    for i in range(100_000):\n"
        "        with vantrace.event('short'): pass\n"
        "os.kill(os.getpid(), 9)\n",
        *("--events-only", "--keep", "longest", "--max-memory", "1M"),
    )
    assert done.returncode == -signal.SIGKILL
    assert found["long"] == 1
    metadata = json.loads((tmp_path / "t.json").read_text(encoding="utf-8"))["metadata"]
    assert found["short"] + int(metadata["dropped_shortest"]) == 100_000


@pytest.mark.unsanitized
def test_the_last_byte_of_memory(traced):
    """The interpreter itself stammers then; what we add must not."""
    done, found = traced(
        WORK
        + """
import resource
with open("/proc/self/statm") as sizes:
    limit = int(sizes.read().split()[0]) * resource.getpagesize() + (16 << 20)
resource.setrlimit(resource.RLIMIT_AS, (limit, limit))
def keep(kept):
    return [kept]
kept = []
while True:
    kept = keep(kept)
"""
    )
    assert done.returncode == 1
    assert "MemoryError" in done.stderr
    assert "_run.py" not in done.stderr and "Exception ignored" not in done.stderr
    assert found["work"] == 1


def has_others_than_ours(text):
    """Whether there is more than a table and notices."""
    return bool(re.search("Traceback|Error|Exception|Fatal|Warning", text))


def test_an_event_that_is_open_then_is_shown(events):
    _, found = events("import os, vantrace\nwith vantrace.event('open'):\n    os._exit(0)\n")
    assert found == {"open": 1}


def test_children_of_children_that_are_killed(events):
    done, found = events(
        """
import os, vantrace
for level in range(3):
    with vantrace.event(f"level {level}"):
        pass
    child = os.fork()
    if child:
        os.waitpid(child, 0)
        os._exit(0)
with vantrace.event("last"):
    os.kill(os.getpid(), 9)
"""
    )
    assert done.returncode == 0
    assert found == {"level 0": 1, "level 1": 1, "level 2": 1, "last": 1}


def test_a_pool_that_is_terminated(events):
    done, found = events(
        """
import multiprocessing, vantrace

def work(number):
    with vantrace.event("job"):
        return number

if __name__ == "__main__":
    pool = multiprocessing.get_context("fork").Pool(3)
    assert pool.map(work, range(60), chunksize=1) == list(range(60))
    pool.terminate()
"""
    )
    assert done.returncode == 0, done.stderr
    assert found == {"job": 60}


def begin(tmp_path, code):
    """Begins a script under us that says when it is ready."""
    (tmp_path / "script.py").write_text(code, encoding="utf-8")
    command = [sys.executable, "-m", "vantrace", "run", "--events-only", "-o", "t.json", "script.py"]
    process = subprocess.Popen(command, cwd=tmp_path, stdout=subprocess.PIPE, text=True)
    assert process.stdout.readline() == "ready\n"
    return process


WAITING = WORK + (
    "import os, signal, sys\nprint('ready', os.getpid(), sep='\\n', flush=True)\n"
)


def test_a_signal_for_us_is_the_scripts(tmp_path):
    handler = "signal.signal(signal.SIGTERM, lambda *_: sys.exit(4))\n"
    process = begin(tmp_path, "import signal, sys\n" + handler + WAITING + "signal.pause()\n")
    process.send_signal(signal.SIGTERM)
    process.communicate(timeout=60)
    assert process.returncode == 4
    assert counts(tmp_path / "t.json") == {"work": 1}


def test_a_script_does_not_outlive_us(tmp_path):
    process = begin(tmp_path, WAITING + "while True: signal.pause()\n")
    script = int(process.stdout.readline())
    process.kill()
    # Both have the pipe: at its end both are gone.
    assert process.communicate(timeout=60)[0] == ""
    assert process.returncode == -signal.SIGKILL
    assert not os.path.exists(f"/proc/{script}/exe")


def test_a_child_that_never_ends_is_not_waited_for(tmp_path):
    code = WAITING + (
        "child = os.fork()\n"
        "if child == 0:\n"
        "    os.close(1); os.close(2)\n"
        "    while True: signal.pause()\n"
        "print(child, flush=True)\n"
    )
    process = begin(tmp_path, code)
    process.stdout.readline()
    child = int(process.stdout.readline())
    process.communicate(timeout=60)
    os.kill(child, signal.SIGKILL)
    assert process.returncode == 0
    assert counts(tmp_path / "t.json") == {"work": 1}
