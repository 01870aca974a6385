"""Every Python function as an event."""

import asyncio
import re
import sys
import threading

import pytest

import vantrace
from conftest import run_python
from trace_rules import events_of


def recorded(function, *arguments, **options):
    """Calls a function with functions traced; gives the recording."""
    with vantrace.record(functions=True, **options) as recording:
        function(*arguments)
    return recording


def calls(recording):
    """{name: calls}, names of this file without their module."""
    prefix = __name__ + "."
    return {row.name.removeprefix(prefix): row.count for row in recording.summary()}


def plain(count):
    return count


def outer(count):
    for _ in range(count):
        plain(count)


class Shape:
    def area(self):
        return 1

    @classmethod
    def unit(cls):
        return cls()

    @staticmethod
    def name():
        return "shape"

    @property
    def size(self):
        return 2


def test_each_call_is_an_event_of_its_function():
    assert calls(recorded(outer, 5)) == {"outer": 1, "plain": 5}


def test_calls_nest():
    with vantrace.record(functions=True) as recording:
        outer(3)
    assert {row.name.rpartition(".")[2]: row.total >= row.self for row in recording.summary()} == {
        "outer": True,
        "plain": True,
    }


def test_functions_are_named_by_module_and_qualified_name():
    def work():
        shape = Shape.unit()
        shape.area(), Shape.name(), shape.size
        (lambda: None)()

    prefix = "test_functions_are_named_by_module_and_qualified_name.<locals>."
    assert calls(recorded(work)) == {
        prefix + "work": 1,
        prefix + "work.<locals>.<lambda>": 1,
        "Shape.unit": 1,
        "Shape.area": 1,
        "Shape.name": 1,
        "Shape.size": 1,
    }


def test_file_and_line_of_a_function_are_known():
    recorded(plain, 1)
    from vantrace import _functions

    assert _functions.places()[f"{__name__}.plain"] == (__file__, plain.__code__.co_firstlineno)


def test_traces_tell_where_functions_stand(tmp_path):
    file = tmp_path / "t.json"
    with vantrace.record(file, functions=True, include=["*.outer", "*.plain"]):
        outer(1)
    places = {e["name"]: e["args"]["src"] for e in events_of(file.read_text()) if e["ph"] == "X"}
    lines = {"outer": outer, "plain": plain}
    assert places == {
        f"{__name__}.{name}": f"{__file__}:{function.__code__.co_firstlineno}"
        for name, function in lines.items()
    }


def test_without_asking_for_them_functions_are_no_events():
    with vantrace.record() as recording:
        outer(3)
    assert recording.summary() == []


def test_nothing_is_traced_after_the_block():
    with vantrace.record() as whole:
        recorded(plain, 1)
        outer(3)
    assert calls(whole) == {"plain": 1}


def test_functions_of_libraries_are_collapsed_into_their_callers():
    def work():
        return re.compile("a+b*|c[def]", re.DEBUG * 0), re.purge()

    recording = recorded(work)
    from vantrace import _functions

    assert len(calls(recording)) == 1
    assert recording.functions()["collapsed_calls"] > 10


def test_functions_of_libraries_are_events_where_asked_for():
    names = calls(recorded(re.escape, "a.b", libraries=True))
    assert names["re.escape"] == 1


def test_functions_that_libraries_call_are_events():
    def key(number):
        return -number

    def work():
        re.sub("b", lambda match: str(key(1)), "abab")

    found = calls(recorded(work))
    assert [found[name] for name in sorted(found)] == [2, 1, 2]


@pytest.mark.parametrize(
    ("options", "names"),
    [
        ({"include": "*.plain"}, {"plain"}),
        ({"include": ["*.plain", "*.outer"]}, {"plain", "outer"}),
        ({"exclude": "*.plain"}, {"outer"}),
        ({"include": "*.plain", "exclude": ["*plain"]}, set()),
        ({"include": "nothing"}, set()),
    ],
)
def test_patterns_choose_functions(options, names):
    assert set(calls(recorded(outer, 2, **options))) == names


def test_patterns_of_one_recording_do_not_outlive_it():
    recorded(outer, 2, exclude="*")
    assert set(calls(recorded(outer, 2))) == {"outer", "plain"}


def test_switches_hold_for_functions():
    from vantrace import performance

    controls = performance.instrument.controls
    name = f"{__name__}.plain"
    with vantrace.record(functions=True) as recording:
        outer(2)
        controls.disable(name)
        outer(2)
        controls.enable(name)
        outer(2)
    controls.disableAll()
    assert calls(recording) == {"outer": 3, "plain": 4}


def test_exceptions_end_calls():
    def fail():
        raise ValueError("expected")

    def work():
        for _ in range(3):
            with pytest.raises(ValueError, match="expected"):
                fail()

    name = "test_exceptions_end_calls.<locals>.fail"
    assert calls(recorded(work, include=f"*.{name}")) == {name: 3}


def test_calls_and_resumes_of_a_generator_are_apart():
    def numbers():
        yield 1
        yield 2

    def work():
        for _ in range(3):
            assert list(numbers()) == [1, 2]

    found = calls(recorded(work, include="*numbers*"))
    name = "test_calls_and_resumes_of_a_generator_are_apart.<locals>.numbers"
    assert found == {name: 3, f"{name} (resumed)": 9}


def test_generators_take_exceptions_and_closing():
    seen = []

    def steps():
        try:
            while True:
                try:
                    yield len(seen)
                except KeyError as error:
                    seen.append(error)
        finally:
            seen.append("closed")

    def work():
        generator = steps()
        next(generator)
        assert generator.throw(KeyError("thrown")) == 1
        generator.close()

    found = calls(recorded(work, include="*steps*"))
    assert [type(item) for item in seen] == [KeyError, str]
    assert sorted(found.values()) == [1, 3]


def test_asyncio_tasks_are_context(tmp_path):
    async def inner():
        await asyncio.sleep(0)

    async def work():
        await inner()

    async def main():
        first = asyncio.create_task(work(), name="first")
        second = asyncio.create_task(work(), name="second")
        await asyncio.gather(first, second)

    file = tmp_path / "t.json"
    with vantrace.record(file, functions=True, include="*.inner"):
        asyncio.run(main())
    steps = [event for event in events_of(file.read_text()) if "resumed" in event["name"]]
    assert sorted(step["args"]["task"] for step in steps) == ["first"] * 2 + ["second"] * 2


def test_a_coroutine_without_a_task_has_no_context(tmp_path):
    async def inner():
        return 3

    def work():
        with pytest.raises(StopIteration):
            inner().send(None)

    file = tmp_path / "t.json"
    with vantrace.record(file, functions=True, include="*.inner"):
        work()
    [step] = [event for event in events_of(file.read_text()) if "resumed" in event["name"]]
    assert "task" not in step.get("args", {})


def test_every_thread_is_seen():
    ready, go = threading.Barrier(4), threading.Event()

    def work():
        ready.wait()
        go.wait()
        outer(10)

    threads = [threading.Thread(target=work) for _ in range(3)]
    for thread in threads:
        thread.start()
    ready.wait()
    with vantrace.record(functions=True, include="*outer") as recording:
        go.set()
        for thread in threads:
            thread.join()
        late = threading.Thread(target=work)
        ready.abort()
        late = threading.Thread(target=outer, args=(1,))
        late.start()
        late.join()
    assert calls(recording) == {"outer": 4}


def unfinished(file):
    return [
        event["name"]
        for event in events_of(file.read_text())
        if event["ph"] == "X" and "unfinished" in event.get("args", {})
    ]


def test_frames_that_run_already_are_unfinished_from_then_on(tmp_path):
    file = tmp_path / "t.json"

    def inside():
        with vantrace.record(file, functions=True, include=f"{__name__}.*") as recording:
            plain(1)
        return recording

    recording = inside()
    assert calls(recording) == {"plain": 1}
    names = [name.rpartition(".")[2] for name in unfinished(file)]
    assert names == ["test_frames_that_run_already_are_unfinished_from_then_on", "inside"]


def test_frames_of_other_threads_are_unfinished_from_their_next_call_on(tmp_path):
    file = tmp_path / "t.json"
    runs, go = threading.Event(), threading.Event()

    def waiting():
        runs.set()
        go.wait()
        plain(1)

    thread = threading.Thread(target=waiting)
    thread.start()
    runs.wait()
    with vantrace.record(file, functions=True, include=["*.waiting", "*.plain"]) as recording:
        go.set()
        thread.join()
    assert calls(recording) == {"plain": 1}
    assert [name.rpartition(".")[2] for name in unfinished(file)] == ["waiting"]


class Squares:
    def __getitem__(self, number):
        return number * number


def subscripts(container, count):
    total = 0
    for number in range(count):
        total += container[number]
    return total


def test_subscripts_that_are_specialised_are_seen():
    """In code that is new, that ran before, and that runs already."""
    found = calls(recorded(subscripts, Squares(), 1000))
    assert found == {"subscripts": 1, "Squares.__getitem__": 1000}

    fresh = {}
    exec("def again(container):\n for n in range(1000): container[n]", fresh)
    fresh["again"](Squares())
    found = calls(recorded(fresh["again"], Squares(), include="*getitem*"))
    assert found == {"Squares.__getitem__": 1000}

    container = Squares()
    for round in range(2000):
        if round == 1000:
            recording = vantrace.record(functions=True, include="*getitem*")
            recording.__enter__()
        container[round]
    recording.__exit__(None, None, None)
    assert calls(recording) == {"Squares.__getitem__": 1000}


def test_subscripts_of_lists_become_subscripts_of_objects():
    def mixed(containers):
        for container in containers:
            for number in range(100):
                container[number]

    found = calls(recorded(mixed, [list(range(100)), Squares(), {n: n for n in range(100)}, Squares()]))
    assert found["Squares.__getitem__"] == 200


def test_imports_are_one_event(tmp_path, monkeypatch):
    (tmp_path / "module_a.py").write_text("import module_b, html.parser\ndef f(): pass\nf()")
    (tmp_path / "module_b.py").write_text("import module_c")
    (tmp_path / "module_c.py").write_text("x = 1")
    monkeypatch.syspath_prepend(tmp_path)
    for name in ("html.parser", "html", "_markupbase", "html.entities"):
        monkeypatch.delitem(sys.modules, name, raising=False)

    def work():
        import html.entities
        import module_a

    found = {row.name: row.count for row in recorded(work).summary()}
    assert found.pop(f"{__name__}.test_imports_are_one_event.<locals>.work") == 1
    assert found.pop("import") >= 4
    assert found == {
        "module_a.<module>": 1,
        "module_a.f": 1,
        "module_b.<module>": 1,
        "module_c.<module>": 1,
    }


def test_functions_that_come_and_go_have_their_right_names():
    """Addresses of code objects are used again."""

    def work():
        for number in range(100_000):
            names = {"__name__": "made"}
            exec(f"def f{number % 100}(): pass\nf{number % 100}()", names)

    work_name = "test_functions_that_come_and_go_have_their_right_names.<locals>.work"
    found = calls(recorded(work))
    assert found == {work_name: 1, "made.<module>": 100_000} | {
        f"made.f{number}": 1000 for number in range(100)
    }


@pytest.mark.unsanitized  # which keeps freed memory for a while
@pytest.mark.parametrize("functions", [50_000, pytest.param(2_000_000, marks=pytest.mark.soak)])
def test_memory_stays_flat_while_functions_come_and_go(functions):
    """In an interpreter of its own: the bigger it is, the longer Python lets garbage wait."""
    code = f"""
import gc, re, vantrace

def most_memory():
    with open("/proc/self/status") as status:
        return int(re.search(r"VmHWM:\\s*(\\d+) kB", status.read())[1])

def work(count):
    for number in range(count):
        exec(f"def f{{number % 100}}(): pass\\nf{{number % 100}}()", {{"__name__": "made"}})

with vantrace.record(functions=True, max_bytes=1 << 20, keep="last"):
    work(20_000)
    gc.collect()
    before = most_memory()
    work({functions})
    print(most_memory() - before)
"""
    done = run_python("-c", code, timeout=3600)
    assert (done.returncode, done.stderr) == (0, "")
    assert int(done.stdout) < 1024


def test_recordings_nest():
    with vantrace.record(functions=True) as wide:
        outer(1)
        with vantrace.record(functions=True) as narrow:
            outer(1)
        outer(1)
    assert calls(wide) == {"outer": 3, "plain": 3}
    assert calls(narrow) == {"outer": 1, "plain": 1}


def test_a_sub_interpreter_is_not_traced_and_cannot_trace():
    code = """
import _xxsubinterpreters as interpreters, vantrace
with vantrace.record(functions=True) as recording:
    inner = interpreters.create()
    interpreters.run_string(inner, '''
def inside(): pass
inside()
try:
    from vantrace import _frames
    _frames.start(own="", libraries=(), include=(), exclude=(), with_libraries=False, c_calls=False)
except (ImportError, RuntimeError) as error:
    print(error)
''')
    interpreters.destroy(inner)
    def outside(): pass
    outside()
print([row.name for row in recording.summary()])
"""
    done = run_python("-c", code)
    assert done.stderr == ""
    assert done.stdout.splitlines() == [
        "functions are traced in the main interpreter only",
        "['__main__.outside']",
    ]


def test_a_fork_goes_on_tracing():
    code = """
import os, vantrace
def work(): pass
with vantrace.record(functions=True, include="*.work") as recording:
    work()
    child = os.fork()
    work()
    if child == 0:
        work()
        print([row.count for row in recording.summary()], flush=True)
        os._exit(0)
    os.waitpid(child, 0)
print([row.count for row in recording.summary()])
"""
    done = run_python("-c", code)
    assert (done.stdout, done.stderr) == ("[2]\n[2]\n", "")


def test_totals_are_exact_however_little_memory():
    with vantrace.record(
        functions=True, exact=True, max_bytes=1 << 20, keep="longest"
    ) as recording:
        outer(200_000)
    assert recording.drops()["shortest"] > 100_000
    assert calls(recording) == {"outer": 1, "plain": 200_000}
    for row in recording.summary():
        assert row.minimum * 7 // 8 <= row.p50 <= row.p99 <= row.maximum * 9 // 8
        assert row.self <= row.total


def test_self_times_of_a_thread_add_up_to_its_time():
    def work():
        outer(10_000)
        [plain(number) for number in range(10_000)]

    recording = recorded(work, exact=True)
    rows = {row.name.rpartition(".")[2]: row for row in recording.summary()}
    assert sum(row.self for row in rows.values()) == rows["work"].total


def test_exact_totals_of_a_recording_that_goes_on_and_begins_anew():
    recording = vantrace.record(functions=True, exact=True)
    for _ in range(2):
        with recording:
            outer(2)
    assert calls(recording) == {"outer": 2, "plain": 4}
    recording.clear()
    assert recording.summary() == []


def test_typical_durations_are_known_without_exact_totals():
    [row] = recorded(plain, 1).summary()
    assert row.minimum <= row.p50 * 1.125
    assert row.p99 <= row.maximum
