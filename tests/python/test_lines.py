"""Samples of lines: where inside functions time passes, also in native calls."""

import hashlib
import json
import signal
import subprocess
import threading
import time
import types

import pytest

import vantrace
from conftest import run_python
from driven_page import DrivenBrowser
from vantrace import _sampler
from vantrace._core import Trace
from vantrace._lines import LineTimes

ENOUGH = 0.15  # seconds of CPU time, so that samples of it can be told from chance


def line_of(text):
    """The number of this file's line that ends with a mark."""
    with open(__file__, encoding="utf-8") as file:
        [number] = [number for number, line in enumerate(file, 1) if line.rstrip().endswith(text)]
    return number


def busy_seconds(work):
    end = time.thread_time() + ENOUGH
    while time.thread_time() < end:
        work()


def in_native_code():
    end = time.thread_time() + ENOUGH
    while time.thread_time() < end:
        sum(range(3_000_000))  # native


def in_python():
    number = 0
    end = time.thread_time() + ENOUGH
    while time.thread_time() < end:
        for _ in range(400_000):
            number += 1  # pure
    return number


def without_the_lock():
    end = time.thread_time() + ENOUGH
    data = bytes(10_000_000)
    while time.thread_time() < end:
        hashlib.sha256(data)  # unlocked


def found(recording, mark):
    number = line_of(mark)
    [line] = [line for line in recording.lines() if (line.file, line.line) == (__file__, number)]
    return line


def test_time_in_a_native_call_is_its_lines():
    with vantrace.record(lines=True) as recording:
        in_native_code()
    line = recording.lines()[0]
    assert (line.file, line.line) == (__file__, line_of("# native"))
    assert line.function == "in_native_code"
    assert line.text == "sum(range(3_000_000))  # native"
    assert line.cpu > 0 and line.self >= line.cpu and line.self >= line.held > 0


def test_time_in_library_functions_is_the_line_that_called_them():
    data = {str(i): [i] * 5 for i in range(3000)}
    with vantrace.record(lines=True) as recording:
        end = time.thread_time() + ENOUGH
        while time.thread_time() < end:
            json.dumps(data, indent=1)  # dumped
    assert found(recording, "# dumped").self > 0
    assert not any("/json/" in line.file for line in recording.lines())


def test_libraries_have_lines_where_they_are_asked_for():
    with vantrace.record(lines=True, libraries=True) as recording:
        busy_seconds(lambda: json.dumps({str(i): [i] * 5 for i in range(300)}, indent=1))
    assert any("/json/" in line.file for line in recording.lines())
    assert not any("/vantrace/" in line.file for line in recording.lines())


def test_who_has_the_interpreters_lock_is_told():
    with vantrace.record(lines=True) as recording:
        in_python()
        without_the_lock()
    pure, unlocked = found(recording, "# pure"), found(recording, "# unlocked")
    assert pure.held > pure.self / 2
    assert unlocked.held < unlocked.self / 2
    assert unlocked.cpu > 0


def test_a_thread_that_waits_has_neither_cpu_time_nor_the_lock():
    over = threading.Event()

    def wait():
        over.wait()  # waiting

    waiting = threading.Thread(target=wait, name="waits")
    with vantrace.record(lines=True) as recording:
        waiting.start()
        in_python()
        over.set()
        waiting.join()
    line = found(recording, "# waiting")
    assert line.self > 0
    assert line.cpu < line.self / 2 and line.held < line.self / 2


def test_threads_are_told_by_name():
    def work():
        with vantrace.event("work"):
            in_python()

    thread = threading.Thread(target=work, name="my worker")
    with vantrace.record(lines=True) as recording:
        with vantrace.event("main"):
            thread.start()
            thread.join()
    names = {thread.name for thread in recording.line_times().threads}
    assert "MainThread" in names
    assert "my worker" in names


def test_lines_are_none_where_they_were_not_asked_for():
    with vantrace.record() as recording:
        pass
    assert recording.lines() is None and recording.line_times() is None


def test_lines_can_be_asked_for_meanwhile_and_cleared():
    with vantrace.record(lines=True) as recording:
        in_python()
        before = found(recording, "# pure").self
        in_python()
        assert found(recording, "# pure").self > before > 0
        recording.clear()
        in_native_code()
        assert not any(line.line == line_of("# pure") for line in recording.lines())


def test_a_trace_file_has_the_lines(tmp_path):
    with vantrace.record(tmp_path / "own.vtrace", lines=True) as recording:
        with vantrace.event("all"):
            in_native_code()
    assert LineTimes(Trace(tmp_path / "own.vtrace").lines()).lines == recording.lines()
    recording.save(tmp_path / "own.json")
    assert json.loads((tmp_path / "own.json").read_text())["traceEvents"]


def test_combined_traces_have_the_lines_of_all(tmp_path):
    with vantrace.record(tmp_path / "own.vtrace", lines=True), vantrace.event("all"):
        in_native_code()
    command = ["combine", "own.vtrace", "own.vtrace", "-o", "two.vtrace"]
    assert run_python("-m", "vantrace", *command, cwd=tmp_path).returncode == 0
    [one, two] = [
        LineTimes(Trace(tmp_path / name).lines()) for name in ("own.vtrace", "two.vtrace")
    ]
    assert two.ticks == 2 * one.ticks
    assert two.lines[0].self == 2 * one.lines[0].self


def codes_of(code):
    yield code
    for constant in code.co_consts:
        if isinstance(constant, types.CodeType):
            yield from codes_of(constant)


def test_lines_of_instructions_are_those_that_the_interpreter_tells():
    compared = 0
    for module in (json.decoder, subprocess, threading, types):
        with open(module.__file__, encoding="utf-8") as file:
            whole = compile(file.read(), module.__file__, "exec")
        for code in codes_of(whole):
            for begin, end, line in code.co_lines():
                for offset in range(begin, end, 2):
                    place = (code.co_linetable, code.co_firstlineno, offset)
                    assert _sampler.line_at(*place) == (line or 0)
                    compared += 1
    assert compared > 5000


def test_a_line_table_may_hold_anything():
    for seed in range(300):
        table = hashlib.sha512(bytes([seed % 256, seed // 256])).digest()
        for offset in (0, 2, 40, 10**6):
            assert isinstance(_sampler.line_at(table, 1, offset), int)
    assert _sampler.line_at(b"", 1, 0) == 0


def test_deep_recursion_is_sampled():
    def deep(depth):
        if depth:
            deep(depth - 1)
        else:
            in_python()

    with vantrace.record(lines=True) as recording:
        deep(600)
    assert found(recording, "# pure").self > 0


def test_threads_code_and_frames_may_come_and_go():
    def work():
        for number in range(40):
            text = f"def f{number}(n):\n    return [i * {number} for i in range(n)]\nf{number}(200)"
            exec(compile(text, f"made {number}", "exec"), {})
            list(i for i in range(50))

    with vantrace.record(lines=True, libraries=True) as recording:
        for _ in range(60):
            threads = [threading.Thread(target=work) for _ in range(4)]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()
    times = recording.line_times()
    assert times.ticks > 0
    assert all(line.self >= line.cpu >= 0 for line in times.lines)


def test_several_recordings_sample_at_once():
    with vantrace.record(lines=True) as outer:
        in_native_code()
        with vantrace.record(lines=True) as inner:
            in_python()
    assert found(outer, "# pure").self > 0 and found(outer, "# native").self > 0
    assert not any(line.line == line_of("# native") for line in inner.lines())


FORKING = """
import os, sys, time

def busy(seconds):
    end = time.thread_time() + seconds
    while time.thread_time() < end:
        sum(range(3_000_000))

def parents():
    busy(0.15)

def childs():
    busy(0.15)

child = os.fork()
if child == 0:
    childs()  # in the child
    os._exit(0)
os.waitpid(child, 0)
parents()  # in the parent
if "kill" in sys.argv:
    os.kill(os.getpid(), 9)
"""


def run_forking(folder, *arguments):
    (folder / "forking.py").write_text(FORKING)
    return run_python(
        *("-m", "vantrace", "run", "--lines", "-o", "own.vtrace", "forking.py", *arguments),
        cwd=folder,
    )


def lines_by_process(file):
    threads, lines, _, times = Trace(file).lines()
    return {(threads[time[1]][0], lines[time[2]][1]) for time in times if time[2] >= 0}


@pytest.mark.unsanitized
def test_a_run_says_the_hottest_lines_and_has_those_of_children(tmp_path):
    done = run_forking(tmp_path)
    assert done.returncode == 0
    by_process = lines_by_process(tmp_path / "own.vtrace")
    busy = {process for process, function in by_process if function == "busy"}
    assert len(busy) == 2
    assert "vantrace: hottest lines, of " in done.stderr
    head, first = done.stderr[done.stderr.index("\nline ") :].splitlines()[1:3]
    assert head.split() == ["line", "self", "self", "%", "on", "CPU", "lock", "source"]
    assert first.startswith("forking.py:7 ") and first.endswith("sum(range(3_000_000))")


@pytest.mark.unsanitized
def test_a_process_that_is_killed_leaves_its_lines(tmp_path):
    assert run_forking(tmp_path, "kill").returncode == -signal.SIGKILL
    by_process = lines_by_process(tmp_path / "own.vtrace")
    assert len({process for process, function in by_process if function == "busy"}) == 2


@pytest.mark.unsanitized
def test_a_full_disk_costs_lines_and_nothing_else(tmp_path):
    code = """
import resource, sys, time, vantrace
resource.setrlimit(resource.RLIMIT_FSIZE, (64, 64))
with vantrace.record(lines=True, folder=sys.argv[1]) as recording:
    end = time.thread_time() + 0.1
    while time.thread_time() < end:
        sum(range(3_000_000))
assert not recording.has_all_lines
print("went on")
"""
    done = run_python("-c", code, tmp_path)
    assert (done.returncode, done.stdout) == (0, "went on\n"), done.stderr


def test_the_program_may_end_without_taking_leave(tmp_path):
    code = """
import os, sys, threading, vantrace
recording = vantrace.record(lines=True)
recording.__enter__()
threading.Thread(target=lambda: sum(range(1_000_000)), daemon=True).start()
if sys.argv[1] == "exit":
    os._exit(3)
sys.exit(3)
"""
    for ending in ("exit", "return"):
        done = run_python("-c", code, ending, cwd=tmp_path)
        assert (done.returncode, done.stdout, done.stderr) == (3, "", "")


def test_a_child_after_fork_goes_on_without_samples(tmp_path):
    code = """
import os, vantrace
with vantrace.record(lines=True) as recording:
    child = os.fork()
    if child == 0:
        assert recording.lines() == []
os.waitpid(child, 0) if child else os._exit(0)
print(recording.line_times().ticks >= 0)
"""
    assert run_python("-c", code, cwd=tmp_path).stdout == "True\n"


def test_where_lines_cannot_be_sampled_run_says_so(tmp_path):
    code = """
import sys
sys.modules["vantrace._sampler"] = None  # as in a build for another interpreter
from vantrace._cli import main
sys.exit(main(["run", "--lines", "script.py"]))
"""
    (tmp_path / "script.py").write_text("print('ran')")
    done = run_python("-c", code, cwd=tmp_path)
    assert (done.returncode, done.stdout) == (2, "")
    assert done.stderr == "vantrace: lines are sampled by CPython 3.11 only\n"


@pytest.fixture(name="page", scope="module")
def fixture_page(tmp_path_factory):
    folder = tmp_path_factory.mktemp("lines")
    with vantrace.record(folder / "own.vtrace", lines=True):
        with vantrace.event("first"):
            in_native_code()
        with vantrace.event("second"):
            in_python()
    done = run_python("-m", "vantrace", "report", "own.vtrace", "-o", "own.html", cwd=folder)
    assert done.returncode == 0
    with vantrace.record(folder / "without.vtrace"), vantrace.event("only"):
        pass
    done = run_python("-m", "vantrace", "report", "without.vtrace", "-o", "without.html", cwd=folder)
    assert done.returncode == 0
    browser = DrivenBrowser()
    yield browser, folder
    browser.close()


@pytest.mark.unsanitized
def test_a_report_shows_lines_by_function(page):
    browser, folder = page
    browser.open(str(folder / "own.html"))
    functions = [text.split()[0] for text in browser.texts("#bylines .function th")]
    assert {"in_native_code", "in_python"} <= set(functions)
    sources = browser.texts("#bylines .source code")
    assert "sum(range(3_000_000))  # native" in sources
    assert str(line_of("# native")) in browser.texts("#bylines .place")
    assert "MainThread" in browser.texts("#bythreads tbody th")
    assert browser.seen() == {"errors": [], "messages": [], "requests": []}


@pytest.mark.unsanitized
def test_search_and_range_filter_lines(page):
    browser, folder = page
    browser.open(str(folder / "own.html"))
    browser.fill("#search", "# native")
    assert browser.texts("#bylines .source code") == ["sum(range(3_000_000))  # native"]
    browser.fill("#search", "")
    browser.drag(".plot", 0.0, 0.2)
    sources = browser.texts("#bylines .source code")
    assert "sum(range(3_000_000))  # native" in sources
    assert "number += 1  # pure" not in sources


@pytest.mark.unsanitized
def test_a_report_without_samples_has_no_lines(page):
    browser, folder = page
    browser.open(str(folder / "without.html"))
    assert browser.ask("document.querySelector('#lines').hidden") is True
