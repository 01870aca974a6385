"""A Python process ends as it would without us: in silence."""

import pytest

from conftest import EVENT_PRINTER, run_python

PRELUDE = """
import os, sys, threading, vantrace
from vantrace import performance
recorder = performance.instrument.recorder
recorder.start()
with vantrace.event("x", n=1):
    pass
"""


@pytest.fixture(name="ends_in_silence")
def fixture_ends_in_silence(tmp_path):
    def run(code, status=0, out="", timeout=120):
        done = run_python("-X", "dev", "-c", PRELUDE + code, cwd=tmp_path, timeout=timeout)
        assert (done.returncode, done.stdout, done.stderr) == (status, out, "")

    return run


def test_a_plain_script(ends_in_silence):
    ends_in_silence("")


def test_with_objects_of_all_kinds_alive(ends_in_silence):
    ends_in_silence(
        """
events = recorder.getAllEvents()
columns = [events[field] for field in events.fields]
method, event = recorder.getEvents, vantrace.event("kept", value=columns)
event.__enter__()
recording = vantrace.record()
recording.__enter__()
@vantrace.event("decorated")
def function(): pass
"""
    )


def test_with_cycles(ends_in_silence):
    ends_in_silence(
        """
class Node: pass
node = Node()
node.event, node.events = vantrace.event("cycle", node=node), recorder.getAllEvents()
node.itself = node
"""
    )


DAEMON = """
running = threading.Event()
def work():
    while True:
        {body}
        running.set()
for _ in range(4):
    threading.Thread(target=work, daemon=True).start()
running.wait()
"""


@pytest.mark.parametrize(
    "body",
    [
        "with vantrace.event('busy', n=1): pass",
        "vantrace.instant('busy')",
        "len(recorder.getAllEvents())",
        "vantrace.event('busy')(len)([])",
        "vantrace.event('busy')(lambda: [None for _ in range(1000)])()",
        "recorder.clearAllEventData()",
        "performance.instrument.controls.has('x')",
    ],
)
def test_with_threads_running(ends_in_silence, body):
    for _ in range(3):
        ends_in_silence(DAEMON.format(body=body))


def test_with_threads_printing(tmp_path):
    """Their lines go on until the end; then they stand still."""
    code = (
        PRELUDE
        + f"import ctypes; ctypes.CDLL({str(EVENT_PRINTER)!r}).startPrinting()\n"
        + DAEMON.format(body="vantrace.instant('busy')")
    )
    for _ in range(5):
        done = run_python("-c", code, cwd=tmp_path)
        assert (done.returncode, done.stderr) == (0, "")
        assert set(done.stdout.splitlines()[:-1]) == {"INSTANT: busy"}


def test_with_threads_to_wait_for(ends_in_silence):
    ends_in_silence(
        """
def work():
    threading.main_thread().join()
    with vantrace.event("late"):
        len(recorder.getAllEvents())
for _ in range(4):
    threading.Thread(target=work).start()
"""
    )


def test_events_from_exit_handlers_and_destructors(ends_in_silence):
    ends_in_silence(
        """
import atexit
def late():
    with vantrace.event("at exit"):
        vantrace.instant("at exit")
    recorder.getAllEvents()
atexit.register(late)
class Late:
    event, instant = vantrace.event, staticmethod(vantrace.instant)
    def __del__(self):
        with self.event("destructor"):
            self.instant("destructor")
kept = Late()
import builtins
builtins.kept = Late()
"""
    )


def test_the_host_s_lines_after_the_interpreter_go_to_the_descriptor(tmp_path):
    """An exit handler of the C library runs when Python is gone."""
    code = f"""
import ctypes, vantrace
library = ctypes.CDLL({str(EVENT_PRINTER)!r})
libc = ctypes.CDLL(None)
libc.strdup.restype = ctypes.c_void_p
text = ctypes.c_void_p(libc.strdup(b"native\\n"))  # outlives the interpreter
print("python")
libc.on_exit(ctypes.cast(library.printOnExit, ctypes.c_void_p), text)
"""
    done = run_python("-c", code, cwd=tmp_path)
    assert (done.returncode, done.stdout, done.stderr) == (0, "python\nnative\n", "")


def test_after_fork(ends_in_silence):
    ends_in_silence(
        """
child = os.fork()
for _ in range(100):
    with vantrace.event("y", n=2):
        vantrace.instant("z")
names = set(recorder.getAllEvents()["name"])
assert names == ({"x", "y"} if child else {"y"}), names
assert list(set(recorder.getAllEvents()["source_name"])) == ["MainThread"]
if child:
    assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 0
"""
    )


@pytest.mark.parametrize("forks", [30, pytest.param(3000, marks=pytest.mark.soak)])
def test_after_fork_while_threads_emit(ends_in_silence, forks):
    ends_in_silence(
        f"forks = {forks}"
        """
stop = threading.Event()
def work():
    while not stop.is_set():
        for _ in range(100):
            with vantrace.event("busy", text="text"):
                pass
        len(recorder.getEvents("nothing"))
        recorder.clearAllEventData()
threads = [threading.Thread(target=work) for _ in range(3)]
for thread in threads: thread.start()
for _ in range(forks):
    child = os.fork()
    if child == 0:
        with vantrace.event("child"):
            pass
        names = [event["name"] for event in recorder.getAllEvents()]
        recorder.stop()
        os._exit(0 if names == ["child"] else 1)
    assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 0
stop.set()
for thread in threads: thread.join()
""",
        timeout=3600,
    )


def test_with_an_error(tmp_path):
    done = run_python("-c", PRELUDE + "raise SystemExit('last words')", cwd=tmp_path)
    assert (done.returncode, done.stdout, done.stderr) == (1, "", "last words\n")


def test_after_unloading(ends_in_silence):
    ends_in_silence("vantrace.host.unload()")


def test_while_another_thread_unloads(ends_in_silence):
    ends_in_silence("threading.Thread(target=vantrace.host.unload).start()")


WAYS_TO_END = {
    "threads": DAEMON.format(body="with vantrace.event('busy', n=1): pass"),
    "functions": "vantrace.record(functions=True).__enter__()\n"
    + DAEMON.format(body="sorted(range(9), key=lambda n: -n)"),
    "unloading": "threading.Thread(target=vantrace.host.unload).start()",
    "fork": "os.fork()\n" + DAEMON.format(body="vantrace.instant('busy')"),
}


@pytest.mark.parametrize("rounds", [2, pytest.param(200, marks=pytest.mark.soak)])
@pytest.mark.parametrize("way", WAYS_TO_END)
def test_again_and_again(ends_in_silence, way, rounds):
    for _ in range(rounds):
        ends_in_silence(WAYS_TO_END[way])
