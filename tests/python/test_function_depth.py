"""Recursion goes as deep with functions traced as without."""

import sys
import threading

import pytest

import vantrace
from conftest import run_python
from test_functions import calls


def down(number):
    return 0 if number == 0 else 1 + down(number - 1)


@pytest.fixture(name="no_limit")
def fixture_no_limit():
    limit = sys.getrecursionlimit()
    sys.setrecursionlimit(1_000_000)
    yield
    sys.setrecursionlimit(limit)


@pytest.fixture(name="small_stacks")
def fixture_small_stacks():
    before = threading.stack_size(256 * 1024)
    yield
    threading.stack_size(before)


def test_recursion_beyond_the_c_stack_works_and_is_told(no_limit):
    with vantrace.record(functions=True, include="*.down") as recording:
        assert down(400_000) == 400_000
    found = calls(recording)
    assert found["(too deep to trace)"] == recording.functions()["deep_stretches"] == 1
    assert 1000 < found[f"{__name__}.down"] < 400_000
    [stretch] = [row for row in recording.summary() if row.name == "(too deep to trace)"]
    assert 0 < stretch.total <= recording.functions()["deep_time"]


def test_tracing_goes_on_on_the_way_out(no_limit):
    def leaf():
        pass

    def climb(number):
        if number:
            climb(number - 1)
            if number % 1000 == 0:
                leaf()

    with vantrace.record(functions=True, include="*.leaf") as recording:
        climb(200_000)
        below = calls(recording)
        leaf()
    [(name, count)] = [item for item in calls(recording).items() if item[0].endswith("leaf")]
    # Those above the half of the stack where tracing was given up, and the last one.
    assert 1 < count < 200
    assert below[name] == count - 1


def test_a_thread_with_a_small_stack(small_stacks, in_thread):
    deepest = sys.getrecursionlimit() - 50
    with vantrace.record(functions=True, include="*.down") as recording:
        assert in_thread(lambda: down(deepest)) == deepest
    assert calls(recording)[f"{__name__}.down"] > 50


def test_the_limit_of_recursion_is_what_it_was(in_thread):
    def depth():
        deepest = 0

        def dive(number):
            nonlocal deepest
            deepest = number
            dive(number + 1)

        with pytest.raises(RecursionError):
            dive(0)
        return deepest

    alone = in_thread(depth)
    with vantrace.record(functions=True):
        assert in_thread(depth) == alone


def test_recursion_through_c_is_what_it_was(in_thread):
    class Nested:
        def __init__(self, inner):
            self.inner = inner

        def __repr__(self):
            return f"<{self.inner!r}>"

    def text():
        nested = None
        for _ in range(300):
            nested = Nested(nested)
        return repr(nested)

    alone = in_thread(text)
    with vantrace.record(functions=True, include="*__repr__") as recording:
        assert in_thread(text) == alone
    assert list(calls(recording).values()) == [300]


def test_a_deep_thread_and_a_small_one_while_another_makes_a_million_calls():
    code = """
import sys, threading, vantrace
sys.setrecursionlimit(1_000_000)
def leaf(): pass
def down(number): return 0 if number == 0 else 1 + down(number - 1)
def many():
    for _ in range(1_000_000): leaf()
results = []
with vantrace.record(functions=True, max_bytes=1 << 24, keep="last") as recording:
    threading.stack_size(256 * 1024)
    small = threading.Thread(target=lambda: results.append(down(2_000)))
    threading.stack_size(0)
    deep = threading.Thread(target=lambda: results.append(down(400_000)))
    busy = threading.Thread(target=many)
    for thread in (busy, deep, small): thread.start()
    for thread in (busy, deep, small): thread.join()
print(sorted(results), recording.functions()["deep_stretches"] > 0)
"""
    done = run_python("-c", code)
    assert (done.returncode, done.stdout) == (0, "[2000, 400000] True\n")


def test_the_child_of_a_fork_is_traced_while_another_thread_was_deep():
    code = """
import os, sys, threading, vantrace
sys.setrecursionlimit(1_000_000)
deep, go = threading.Event(), threading.Event()
def down(number):
    if number:
        return down(number - 1)
    deep.set()
    go.wait()
def leaf(): pass
with vantrace.record(functions=True, include="*.leaf") as recording:
    thread = threading.Thread(target=down, args=(200_000,))
    thread.start()
    deep.wait()
    child = os.fork()
    leaf()
    if child == 0:
        print([row.count for row in recording.summary()], flush=True)
        os._exit(0)
    os.waitpid(child, 0)
    go.set()
    thread.join()
    leaf()
print([row.count for row in recording.summary() if row.name.endswith("leaf")])
"""
    done = run_python("-c", code)
    assert (done.stdout, done.stderr) == ("[1]\n[1]\n", "")


def test_a_script_may_recurse_as_deep_as_without_us(tmp_path):
    script = tmp_path / "script.py"
    script.write_text(
        """
import atexit, sys, threading
def depth(number=1):
    try:
        return depth(number + 1)
    except RecursionError:
        return number
print(depth())
sys.setrecursionlimit(500)
print(depth(), sys.getrecursionlimit())
atexit.register(lambda: print(depth()))
threading.Thread(target=lambda: print(depth())).start()
"""
    )
    done = run_python("-m", "vantrace", "run", "-o", tmp_path / "t.json", script)
    assert done.stdout == run_python(script).stdout != ""


def test_run_tells_of_recursion_too_deep_to_trace(tmp_path):
    script = tmp_path / "script.py"
    script.write_text(
        "import sys; sys.setrecursionlimit(500_000)\n"
        "def down(n): return 0 if n == 0 else 1 + down(n - 1)\n"
        "print(down(400_000))\n"
    )
    done = run_python("-m", "vantrace", "run", "-o", tmp_path / "t.json", script)
    assert (done.returncode, done.stdout) == (0, "400000\n")
    assert "vantrace: recursion too deep to trace, 1 time for " in done.stderr
