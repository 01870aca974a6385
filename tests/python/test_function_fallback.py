"""Functions seen by the profile hook, where the frame-evaluation hook cannot be had."""

import os

import pytest

from conftest import run_python
from trace_rules import events_of

# Other tools that take every extra slot of code objects.
SLOTS_TAKEN = """
import ctypes
request = ctypes.pythonapi._PyEval_RequestCodeExtraIndex
while request(None) >= 0:
    pass
"""

STUBBORN_HOOK = """
typedef void *(*Hook)(void *, void *, int);
void _PyInterpreterState_SetEvalFrameFunc(void *, Hook);
void *PyInterpreterState_Get(void);
void *_PyEval_EvalFrameDefault(void *, void *, int);

static void *hook(void *thread, void *frame, int throws) {
    _PyInterpreterState_SetEvalFrameFunc(PyInterpreterState_Get(), hook);
    return _PyEval_EvalFrameDefault(thread, frame, throws);
}
void put_in(void) { _PyInterpreterState_SetEvalFrameFunc(PyInterpreterState_Get(), hook); }
void take_out(void) {
    _PyInterpreterState_SetEvalFrameFunc(PyInterpreterState_Get(), _PyEval_EvalFrameDefault);
}
"""

WORK = """
import re, threading, vantrace
class Squares:
    def __getitem__(self, number):
        return number * number
def numbers(count):
    for number in range(count):
        yield number
def fail():
    raise ValueError
def work(count):
    total = sum([square(number) for number in range(count)])
    squares = Squares()
    for number in numbers(count):
        total += squares[number]
        try:
            fail()
        except ValueError:
            total += 1
    re.sub("b", lambda match: str(square(1)), "abab")
    return total
def square(number):
    return number * number
def later():
    work(3)
def report(recording):
    for row in sorted(recording.summary()):
        if row.name != "import":
            print(row.name, row.count)
"""

EACH_IN_ITS_THREAD = (
    WORK
    + """
ready, go = threading.Barrier(2), threading.Event()
def runs_before():
    ready.wait()
    go.wait()
    work(4)
early = threading.Thread(target=runs_before)
early.start()
ready.wait()
with vantrace.record(functions=True, exact=True) as recording:
    work(100)
    go.set()
    early.join()
    thread = threading.Thread(target=later)
    thread.start()
    thread.join()
work(1)
report(recording)
"""
)


@pytest.fixture(name="cause", params=["slots", "hook"])
def fixture_cause(request, compile_library):
    """Code that keeps us from having the hook, and what the table says of it."""
    if request.param == "slots":
        return SLOTS_TAKEN, "other tools took all extra slots of code objects"
    library = compile_library("stubborn_hook", STUBBORN_HOOK)
    code = f"import ctypes\nctypes.PyDLL({str(library)!r}).put_in()\n"
    return code, "another tool lets no other frame-evaluation hook be"


def printed(code):
    done = run_python("-c", code)
    assert (done.returncode, done.stderr) == (0, "")
    return done.stdout


def test_names_and_totals_are_those_of_the_hook(cause):
    """But for the calls that make generators, which only the hook sees."""
    by_hook = printed(EACH_IN_ITS_THREAD).splitlines()
    by_profile = printed(cause[0] + EACH_IN_ITS_THREAD).splitlines()
    assert by_hook.count("__main__.numbers 3") == 1
    by_hook.remove("__main__.numbers 3")
    assert by_profile == by_hook
    assert "__main__.square 113" in by_profile


def printed_by_profile(code):
    """What code prints where there is no hook."""
    return printed(SLOTS_TAKEN + WORK + code).splitlines()


def test_the_table_says_so(cause, tmp_path):
    (tmp_path / "sitecustomize.py").write_text(cause[0])
    script = tmp_path / "script.py"
    script.write_text(WORK + "print(work(5))\n")
    environment = os.environ | {"PYTHONPATH": f"{tmp_path}:{os.environ['PYTHONPATH']}"}
    done = run_python(
        "-m", "vantrace", "run", "-o", tmp_path / "t.json", script, env=environment
    )
    assert (done.returncode, done.stdout) == (0, run_python(script).stdout)
    assert "__main__.square" in done.stderr
    reason = cause[1]
    line = f"vantrace: functions were seen by the profile hook, which slows them more: {reason}"
    assert line in done.stderr.splitlines()


def test_frames_that_run_already_are_unfinished(cause, tmp_path):
    file = tmp_path / "t.json"
    assert printed(
        cause[0]
        + WORK
        + f"""
def inside():
    with vantrace.record({str(file)!r}, functions=True) as recording:
        square(1)
    return recording
report(inside())
"""
    ) == "__main__.square 1\n"
    names = [e["name"] for e in events_of(file.read_text()) if "unfinished" in e.get("args", {})]
    assert names == ["__main__.<module>", "__main__.inside"]


def test_steps_of_tasks_have_their_context(tmp_path):
    file = tmp_path / "t.json"
    printed_by_profile(
        f"""
import asyncio
async def inner():
    await asyncio.sleep(0)
async def main():
    await asyncio.gather(*(asyncio.create_task(inner(), name=name) for name in "ab"))
with vantrace.record({str(file)!r}, functions=True, include="*.inner*"):
    asyncio.run(main())
"""
    )
    steps = [event for event in events_of(file.read_text()) if "resumed" in event["name"]]
    assert sorted(step["args"]["task"] for step in steps) == ["a", "a", "b", "b"]


def test_c_calls_are_events_where_asked_for():
    assert printed_by_profile(
        """
with vantrace.record(functions=True, c_calls=True, include=["*.fail", "*sorted"]) as recording:
    sorted([])
    work(2)
report(recording)
"""
    ) == ["__main__.fail 2"]


def test_a_program_s_own_profile_function_wins_and_that_is_told():
    assert printed_by_profile(
        """
import sys
seen = []
with vantrace.record(functions=True) as recording:
    square(1)
    sys.setprofile(lambda frame, event, argument: seen.append(frame.f_code.co_name))
    square(2)
    sys.setprofile(None)
report(recording)
print(seen.count("square"), recording.functions()["had_other_profile"])
threading.setprofile(print)
with vantrace.record(functions=True) as recording:
    square(1)
print(threading.getprofile() is print, recording.functions()["had_other_profile"])
"""
    ) == ["__main__.square 1", "2 True", "True False"]


def test_recursion_is_as_deep_as_without_us():
    assert printed_by_profile(
        """
import sys
sys.setrecursionlimit(500_000)
def down(number):
    return 0 if number == 0 else 1 + down(number - 1)
with vantrace.record(functions=True, exact=True, include="*.down") as recording:
    down(400_000)
report(recording)
"""
    ) == ["__main__.down 400001"]


def test_functions_that_come_and_go_have_their_right_names():
    lines = printed_by_profile(
        """
import gc, resource
def make(count):
    for number in range(count):
        exec(f"def f{number % 10}(): pass\\nf{number % 10}()", {"__name__": "made"})
with vantrace.record(functions=True, exact=True, include="made.f*") as recording:
    make(5_000)
    before = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
    make(15_000)
    print(resource.getrusage(resource.RUSAGE_SELF).ru_maxrss - before < 1024)
report(recording)
"""
    )
    assert lines == ["True"] + [f"made.f{number} 2000" for number in range(10)]


def test_an_audit_hook_that_refuses_is_heard_and_leaves_nothing_behind():
    assert printed_by_profile(
        """
import sys
def refuse(event, arguments):
    if event == "sys.setprofile" and refuses:
        raise PermissionError("no profile functions here")
refuses = True
sys.addaudithook(refuse)
try:
    with vantrace.record(functions=True):
        pass
except PermissionError as error:
    print(error)
refuses = False
with vantrace.record(functions=True) as recording:
    square(1)
report(recording)
"""
    ) == ["no profile functions here", "__main__.square 1"]
