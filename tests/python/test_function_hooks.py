"""Tracing of functions beside other tools in the same interpreter."""

import ctypes

import pytest

import vantrace
from conftest import run_python
from test_functions import calls, outer, recorded

OTHER_HOOK = """
typedef void *(*Hook)(void *, void *, int);
Hook _PyInterpreterState_GetEvalFrameFunc(void *);
void _PyInterpreterState_SetEvalFrameFunc(void *, Hook);
void *PyInterpreterState_Get(void);
void *_PyEval_EvalFrameDefault(void *, void *, int);

static Hook before;
static long seen;

static void *hook(void *thread, void *frame, int throws) {
    ++seen;
    return before(thread, frame, throws);
}
void put_in(void) {
    before = _PyInterpreterState_GetEvalFrameFunc(PyInterpreterState_Get());
    _PyInterpreterState_SetEvalFrameFunc(PyInterpreterState_Get(), hook);
}
void take_out(void) { _PyInterpreterState_SetEvalFrameFunc(PyInterpreterState_Get(), before); }
void clear_all(void) {
    _PyInterpreterState_SetEvalFrameFunc(PyInterpreterState_Get(), _PyEval_EvalFrameDefault);
}
int is_clear(void) {
    return _PyInterpreterState_GetEvalFrameFunc(PyInterpreterState_Get()) ==
           _PyEval_EvalFrameDefault;
}
long count(void) {
    long counted = seen;
    seen = 0;
    return counted;
}
"""


@pytest.fixture(name="other")
def fixture_other(compile_library):
    """Another tool with a hook of its own; in the end there must be none."""
    other = ctypes.PyDLL(compile_library("other_hook", OTHER_HOOK))
    assert other.is_clear()
    yield other
    assert other.is_clear()


def seen_by(other, function, *arguments):
    other.count()
    function(*arguments)
    return other.count()


BOTH = {"outer": 1, "plain": 3}


def test_a_hook_that_was_there_before_is_chained(other):
    other.put_in()
    with vantrace.record(functions=True) as recording:
        assert seen_by(other, outer, 3) >= 4
    assert calls(recording)["plain"] == 3
    assert seen_by(other, outer, 3) >= 4
    other.take_out()


def test_a_hook_that_comes_later_sees_functions_too(other):
    recording = vantrace.record(functions=True)
    recording.__enter__()
    other.put_in()
    assert seen_by(other, outer, 3) >= 4
    other.take_out()
    recording.__exit__(None, None, None)
    assert calls(recording)["plain"] == 3


def test_a_hook_that_stays_longer_keeps_ours_as_a_mere_link(other):
    recording = vantrace.record(functions=True)
    recording.__enter__()
    other.put_in()
    outer(3)
    recording.__exit__(None, None, None)
    assert seen_by(other, outer, 3) >= 4
    again = recorded(outer, 3)  # goes on behind the other one
    assert seen_by(other, outer, 3) >= 4
    other.take_out()
    third = recorded(outer, 3)
    assert calls(recording)["plain"] == 3
    assert calls(again) == calls(third) == BOTH


def test_a_hook_that_takes_ours_out_is_told(other):
    """It was there first, and sets back what it found."""
    other.put_in()
    recording = vantrace.record(functions=True)
    recording.__enter__()
    outer(3)
    other.take_out()
    outer(3)
    recording.__exit__(None, None, None)
    assert calls(recording)["plain"] == 3
    assert recording.functions()["was_taken_out"]
    after = recorded(outer, 3)
    assert calls(after) == BOTH
    assert not after.functions()["was_taken_out"]


def test_a_hook_that_clears_all_does_not_keep_us_from_coming_back(other):
    recording = vantrace.record(functions=True)
    recording.__enter__()
    other.put_in()
    recording.__exit__(None, None, None)
    other.clear_all()
    assert calls(recorded(outer, 3)) == BOTH
    other.put_in()
    assert calls(recorded(outer, 3)) == BOTH
    other.take_out()


@pytest.fixture(name="same_with_us")
def fixture_same_with_us(tmp_path):
    """Runs a script with and without us: what it prints and how it ends are the same."""

    def check(code, text_in=""):
        script = tmp_path / "script.py"
        script.write_text(code)
        options = {"cwd": tmp_path, "input": text_in}
        alone = run_python(script, **options)
        ours = run_python("-m", "vantrace", "run", "-o", tmp_path / "t.json", script, **options)
        assert ours.stdout == alone.stdout
        assert ours.returncode == alone.returncode
        assert ours.stderr.startswith(alone.stderr)
        return alone.stdout

    return check


WORK = """
import sys
def square(number):
    return number * number
def work(count):
    total = 0
    for number in range(count):
        total += square(number)
    return total, sorted([3, 1, 2], key=lambda number: -number), [n for n in numbers(3)]
def numbers(count):
    for number in range(count):
        yield number
"""


@pytest.mark.parametrize("hook", ["settrace", "setprofile"])
def test_a_program_s_own_trace_and_profile_functions(same_with_us, hook):
    printed = same_with_us(
        WORK
        + f"""
seen = []
def note(frame, event, argument):
    seen.append((frame.f_code.co_name, event, frame.f_lineno))
    return note
sys.{hook}(note)
work(5)
sys.{hook}(None)
print(*seen, sep="\\n")
"""
    )
    assert printed.count("'square', 'call'") == 5


def test_trace_functions_of_threads(same_with_us):
    printed = same_with_us(
        WORK
        + """
import threading
seen = []
def note(frame, event, argument):
    seen.append((frame.f_code.co_name, event))
threading.setprofile(note)
thread = threading.Thread(target=work, args=(3,))
thread.start()
thread.join()
threading.setprofile(None)
print(*[line for line in seen if line[0] in ("square", "work", "numbers")], sep="\\n")
"""
    )
    assert printed.count("'square', 'call'") == 3


def test_the_standard_profiler(same_with_us):
    printed = same_with_us(
        WORK
        + """
import cProfile, pstats
profiler = cProfile.Profile()
profiler.runcall(work, 100)
rows = pstats.Stats(profiler).stats
print(*sorted((key[2], value[:2], len(value[4])) for key, value in rows.items()), sep="\\n")
"""
    )
    assert "'square', (100, 100)" in printed


def test_the_standard_debugger(same_with_us):
    printed = same_with_us(
        WORK + "\nimport pdb\npdb.set_trace()\nprint(work(2))\n",
        "break square\ncontinue\nargs\nstep\nnext\nreturn\nclear 1\ny\ncontinue\n",
    )
    assert "-> return number * number" in printed


def test_the_coverage_of_lines(same_with_us):
    printed = same_with_us(
        WORK
        + """
import coverage, io
measured = coverage.Coverage(data_file=None, include=["*script.py"])
measured.start()
exec(compile(open("script.py").read().split("import coverage")[0] + "work(4)", "script.py", "exec"))
measured.stop()
text = io.StringIO()
measured.report(file=text, show_missing=True)
print(text.getvalue())
"""
    )
    assert "script.py" in printed


def test_tracebacks_and_frames(same_with_us):
    same_with_us(
        WORK
        + """
import inspect, traceback
def inner():
    print([frame.function for frame in inspect.stack()][:2])
    raise LookupError("expected")
def middle():
    try:
        inner()
    except LookupError:
        traceback.print_exc(file=sys.stdout)
    print(sys._getframe().f_lineno, sys._getframe(1).f_code.co_name, sorted(locals()))
middle()
inner()
"""
    )
