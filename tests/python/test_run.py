"""`vantrace run`: the script is what it would be without us, and is recorded."""

import json
import os
import re
import signal
import subprocess
import sys

import pytest

from conftest import run_python
from trace_rules import check_trace, events_of

RECORDED = "import vantrace\nwith vantrace.event('solve', n=3):\n    pass\n"


@pytest.fixture(name="script")
def fixture_script(tmp_path):
    def write(text, name="script.py"):
        path = tmp_path / name
        path.write_text(text, encoding="utf-8")
        return path

    return write


@pytest.fixture(name="run")
def fixture_run(tmp_path):
    """Runs the command from the test's folder; gives the finished process, its output in bytes."""

    def run(*arguments, **options):
        options = {"cwd": tmp_path, "text": False} | options
        return run_python("-m", "vantrace", "run", *arguments, **options)

    return run


@pytest.fixture(name="same_as_python")
def fixture_same_as_python(run, tmp_path):
    """Runs a script with and without us: output, status and what it says of errors are the same."""

    def check(script, *arguments, **options):
        options = {"cwd": tmp_path, "text": False} | options
        alone = run_python(script, *arguments, **options)
        ours = run("-o", tmp_path / "t.json", script, *arguments, **options)
        assert ours.stdout == alone.stdout
        assert ours.returncode == alone.returncode
        assert ours.stderr.startswith(alone.stderr)
        said = ours.stderr.removeprefix(alone.stderr).decode()
        assert said == "" or said.startswith("vantrace: ")
        return alone

    return check


def lasting(path):
    """The names of the events that the script itself produced, not of its functions."""
    text = path.read_text(encoding="utf-8")
    assert check_trace(text) == []
    names = [event["name"] for event in events_of(text) if event["ph"] == "X"]
    return [name for name in names if name != "import" and not name.startswith("__main__.")]


def test_a_script_is_recorded(run, script, tmp_path):
    done = run("-o", "trace.json", script(RECORDED))
    assert (done.returncode, done.stdout) == (0, b"")
    assert lasting(tmp_path / "trace.json") == ["solve"]


def test_the_table_and_the_trace_s_place_go_to_standard_error(run, script, tmp_path):
    lines = run("--events-only", "-o", "trace.json", script(RECORDED)).stderr.decode().splitlines()
    assert re.fullmatch(r"vantrace: [\d.]+ [mu]?s wall time, 1 thread, 1 event", lines[0])
    assert re.fullmatch(r"vantrace: .+ CPU time, of that about .+ for tracing", lines[1])
    assert lines[2].split() == "event calls total self self % p50 p99".split()
    assert lines[3].split()[:2] == ["solve", "1"]
    assert lines[4] == f"vantrace: the trace is {tmp_path / 'trace.json'}"
    assert len(lines) == 5


def test_the_table_can_be_left_out(run, script, tmp_path):
    lines = run("--no-table", "-o", "trace.json", script(RECORDED)).stderr.decode().splitlines()
    assert lines == [f"vantrace: the trace is {tmp_path / 'trace.json'}"]


def test_the_table_keeps_to_the_terminal_s_width(run, script):
    code = f"import vantrace\nwith vantrace.event({'x' * 300!r}): pass\n"
    for width in (60, 100):
        environment = os.environ | {"COLUMNS": str(width)}
        done = run("--events-only", "-o", "t.json", script(code), env=environment)
        lines = done.stderr.decode().splitlines()
        assert len(lines[3]) == width
        assert "..." in lines[3]


def test_a_script_without_events(run, script, tmp_path):
    done = run("--events-only", "-o", "trace.json", script("print('hello')"))
    assert done.stdout == b"hello\n"
    assert b"0 threads, 0 events" in done.stderr
    assert lasting(tmp_path / "trace.json") == []


def test_collapsed_stacks(run, script, tmp_path):
    run("--events-only", "--output=stacks.folded", script(RECORDED))
    [line] = (tmp_path / "stacks.folded").read_text().splitlines()
    assert line.startswith("MainThread;solve ")


@pytest.mark.parametrize("options", [[], ["--no-table"]])
def test_what_was_dropped_is_told_and_not_on_standard_output(run, script, options):
    path = script(
        "import vantrace\n"
        "for _ in range(100_000):\n"
        "    with vantrace.event('n'): pass\n"
        "print('done')"
    )
    done = run("-o", "t.json", "--max-memory", "1M", *options, path)
    assert done.stdout == b"done\n"
    assert done.stderr.count(b"vantrace: for want of memory ") == 1
    assert b"recorder: " not in done.stderr


def test_traces_without_a_name_of_their_own_never_replace_each_other(run, script, tmp_path):
    path = script(RECORDED, "my script.py")
    for _ in range(3):
        assert run(path).returncode == 0
    traces = [name for name in os.listdir(tmp_path) if name.endswith(".vtrace")]
    assert len(traces) == 3
    for name in traces:
        assert re.fullmatch(r"vantrace-my script-\d{8}-\d{6}(-\d)?\.vtrace", name)
        run_python("-m", "vantrace", "export", tmp_path / name, "-o", tmp_path / "t.json")
        assert lasting(tmp_path / "t.json") == ["solve"]


def test_the_trace_stays_where_the_command_was_given(run, script, tmp_path):
    (tmp_path / "elsewhere").mkdir()
    path = script("import os; os.chdir('elsewhere')\n" + RECORDED)
    run("-o", "trace.json", path)
    run(path)
    assert os.listdir(tmp_path / "elsewhere") == []
    assert len([name for name in os.listdir(tmp_path) if name.endswith((".json", ".vtrace"))]) == 2


def test_standard_output_belongs_to_the_script(same_as_python, script):
    path = script("import sys; sys.stdout.buffer.write(bytes(range(256)) * 300)")
    assert len(same_as_python(path).stdout) == 256 * 300


def test_standard_input_belongs_to_the_script(same_as_python, script):
    path = script("import sys; print(sys.stdin.read().upper())")
    assert same_as_python(path, input=b"text").stdout == b"TEXT\n"


SHOW = """
'''The script's own text.'''
import sys, __main__
from shown import name
print(__name__, __file__, __doc__, __package__, __spec__, __cached__, type(__loader__).__name__)
print(sorted(k for k in globals()), __builtins__)
print(sys.argv, sys.path[0], name)
print(__main__ is sys.modules["__main__"], vars(__main__) is globals())
class Own: pass
print(Own, Own.__module__)
"""


@pytest.mark.parametrize("form", ["script.py", "./script.py", "folder/../script.py", "absolute"])
def test_the_script_is_the_real_main(same_as_python, script, tmp_path, form):
    (tmp_path / "folder").mkdir()
    (tmp_path / "shown.py").write_text("name = 'from beside the script'")
    path = script(SHOW)
    shown = same_as_python(path if form == "absolute" else form, "a", "-o", "--", "--help").stdout
    assert b"'a', '-o', '--', '--help'" in shown
    assert b"from beside the script" in shown


def test_a_script_behind_a_link(same_as_python, script, tmp_path):
    (tmp_path / "folder").mkdir()
    (tmp_path / "folder" / "shown.py").write_text("name = 'from beside the target'")
    target = script(SHOW, "folder/target.py")
    (tmp_path / "link.py").symlink_to(target)
    assert b"from beside the target" in same_as_python("link.py").stdout


def test_modules_of_the_script_can_be_pickled_and_run_in_processes(same_as_python, script):
    path = script(
        """
import multiprocessing, pickle
def square(x): return x * x
class Value: pass
if __name__ == "__main__":
    assert type(pickle.loads(pickle.dumps(Value()))) is Value
    for method in ("fork", "spawn"):
        with multiprocessing.get_context(method).Pool(2) as pool:
            print(pool.map(square, range(5)))
"""
    )
    assert same_as_python(path).stdout == b"[0, 1, 4, 9, 16]\n" * 2


@pytest.mark.parametrize(
    "code",
    [
        "import sys; sys.exit()",
        "import sys; sys.exit(0)",
        "import sys; sys.exit(7)",
        "import sys; sys.exit('a message')",
        "import sys; sys.exit(None)",
        "import sys; sys.exit([1, 2])",
        "raise SystemExit(3)",
        "import os; os._exit(5)",
        "exit(4)",
    ],
)
def test_the_exit_status_is_the_script_s(same_as_python, script, code):
    same_as_python(script("print('out')\n" + code))


@pytest.mark.parametrize(
    "code",
    [
        "1/0",
        "def f():\n    g()\ndef g():\n    raise KeyError('gr\xf6\xdfe')\nf()",
        "def f(:",
        "x = '\\",
        "import nothing_of_that_name",
        "try:\n    1/0\nexcept ZeroDivisionError as e:\n    raise ValueError('next') from e",
        "raise ExceptionGroup('several', [ValueError(1), KeyError(2)])",
        "import sys\nsys.excepthook = lambda *a: print('hook', a[0].__name__)\n1/0",
        "import sys\ndef hook(*a): raise KeyError('in the hook')\nsys.excepthook = hook\n1/0",
        "assert False, 'no'",
        "raise KeyboardInterrupt",
        "import os, signal\nos.kill(os.getpid(), signal.SIGINT)\nprint('not reached?')",
    ],
)
def test_an_exception_shows_as_it_would_without_us(same_as_python, script, code):
    assert same_as_python(script(code)).returncode != 0


def test_an_interrupted_script_dies_of_the_interrupt(run, script, tmp_path):
    path = script(RECORDED + "raise KeyboardInterrupt")
    done = run("-o", "trace.json", path)
    assert done.returncode == -signal.SIGINT
    assert lasting(tmp_path / "trace.json") == ["solve"]


def test_a_failing_script_is_recorded_all_the_same(run, script, tmp_path):
    done = run("-o", "trace.json", script(RECORDED + "1/0"))
    assert done.returncode == 1
    assert lasting(tmp_path / "trace.json") == ["solve"]


def test_threads_and_exit_handlers_of_the_script_are_recorded(run, script, tmp_path):
    path = script(
        """
import atexit, threading, vantrace
main_is_over = threading.Event()
atexit.register(lambda: vantrace.event("at exit")(print)("exit handler"))
def work():
    threading.main_thread().join()
    with vantrace.event("late"):
        print("thread")
threading.Thread(target=work, name="slow").start()
"""
    )
    done = run("--events-only", "-o", "trace.json", path)
    assert done.stdout.splitlines() == [b"thread", b"exit handler"]
    assert sorted(lasting(tmp_path / "trace.json")) == ["at exit", "late"]
    assert b"2 threads, 2 events" in done.stderr


def test_a_forked_child_is_a_process_of_the_trace(run, script, tmp_path):
    path = script(
        """
import os, sys, vantrace
child = os.fork()
with vantrace.event("child" if child == 0 else "parent"):
    pass
if child == 0:
    sys.exit(3)
print(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]))
"""
    )
    done = run("--events-only", "-o", "trace.json", path)
    assert done.stdout == b"3\n"
    assert done.stderr.count(b"vantrace: the trace is ") == 1
    assert done.stderr.count(b" wall time, ") == 1
    assert sorted(lasting(tmp_path / "trace.json")) == ["child", "parent"]


def test_a_script_that_closes_its_streams(run, script, tmp_path):
    path = script(RECORDED + "import sys\nsys.stdout.close(); sys.stderr.close()")
    done = run("-o", "trace.json", path)
    assert (done.returncode, done.stdout) == (0, b"")
    assert done.stderr.decode() == f"vantrace: the trace is {tmp_path / 'trace.json'}\n"
    assert lasting(tmp_path / "trace.json") == ["solve"]


def test_a_reader_that_went_away(script, tmp_path):
    """As with the interpreter alone, the status says that output was lost."""
    path = script("print('x' * 100000)")
    statuses = []
    for command in ([], ["-m", "vantrace", "run", "-o", str(tmp_path / "t.json")]):
        reader, writer = os.pipe()
        os.close(reader)
        with os.fdopen(writer, "wb") as stdout:
            done = subprocess.run(
                [sys.executable, *command, path], stdout=stdout, stderr=subprocess.PIPE, check=False
            )
        statuses.append(done.returncode)
    assert statuses[0] == statuses[1] != 0


def test_a_script_that_records_itself(run, script, tmp_path):
    path = script(
        "import vantrace\n"
        "with vantrace.record('own.json'):\n"
        "    with vantrace.event('a'): pass\n"
        "with vantrace.event('b'): pass\n"
    )
    run("-o", "trace.json", path)
    assert lasting(tmp_path / "own.json") == ["a"]
    assert lasting(tmp_path / "trace.json") == ["a", "b"]


def test_options_end_with_two_dashes(run, script, tmp_path):
    script(RECORDED, "-odd.py")
    assert run("-o", "trace.json", "--", "-odd.py").returncode == 0
    assert lasting(tmp_path / "trace.json") == ["solve"]


@pytest.mark.parametrize(
    ("arguments", "message"),
    [
        ([], "run takes a script"),
        (["--nonsense", "script.py"], "no option '--nonsense'"),
        (["-o"], "-o takes a file"),
        (["-o", "t.json"], "run takes a script"),
        (["nowhere.py"], "cannot open 'nowhere.py': No such file or directory"),
        (["."], "cannot open '.': Is a directory"),
        (["-o", "t.txt", "script.py"], "a trace ends in .vtrace, "),
        (["-o", "nowhere/t.json", "script.py"], "nowhere/t.json': No such file or directory"),
        (["-o", "script.py/t.json", "script.py"], "script.py/t.json': Not a directory"),
        (["-o", "folder.json", "script.py"], "folder.json': Is a directory"),
    ],
)
def test_what_cannot_be_done_is_said_before_the_script_runs(
    run, script, tmp_path, arguments, message
):
    script("print('ran')")
    (tmp_path / "folder.json").mkdir()
    done = run(*arguments)
    assert (done.returncode, done.stdout) == (2, b"")
    [line] = done.stderr.decode().splitlines()
    assert line.startswith("vantrace: ")
    assert message in line
    assert sorted(os.listdir(tmp_path)) == ["folder.json", "script.py"]


def test_an_output_that_becomes_unwritable(run, script, tmp_path):
    (tmp_path / "folder").mkdir()
    path = script(RECORDED + "import shutil, sys\nshutil.rmtree('folder')\nsys.exit(9)")
    done = run("-o", "folder/trace.json", path)
    assert done.returncode == 9
    last = done.stderr.decode().splitlines()[-1]
    assert last.startswith(f"vantrace: cannot write '{tmp_path}/folder/")
    assert os.listdir(tmp_path) == ["script.py"]


@pytest.mark.parametrize("arguments", [["--help"], ["-h"], ["run", "--help"], [], ["tree", "-h"]])
def test_help(arguments):
    done = run_python("-m", "vantrace", *arguments)
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout.startswith("usage: vantrace run ")


def test_version():
    done = run_python("-m", "vantrace", "--version")
    assert re.fullmatch(r"vantrace \d+\.\d+\.\d+\n", done.stdout)


@pytest.mark.parametrize("word", ["dance", "--dance"])
def test_unknown_commands(word):
    done = run_python("-m", "vantrace", word)
    assert (done.returncode, done.stdout) == (2, "")
    assert f"{word!r}; see vantrace --help" in done.stderr


def test_the_trace_tells_thread_and_context(run, script, tmp_path):
    run("--events-only", "-o", "trace.json", script(RECORDED))
    trace = json.loads((tmp_path / "trace.json").read_text(encoding="utf-8"))
    [event] = [event for event in trace["traceEvents"] if event["ph"] == "X"]
    assert str(event["args"]["n"]) == "3"
    names = [e["args"]["name"] for e in trace["traceEvents"] if e["name"] == "thread_name"]
    assert names == ["MainThread"]


def test_garbage_collections_are_recorded_when_asked_for(run, script, tmp_path):
    collecting = script("import gc\ngc.collect()\n")
    run("--events-only", "-o", "with.json", "--gc", collecting)
    run("--events-only", "-o", "without.json", collecting)
    assert "garbage collection" in lasting(tmp_path / "with.json")
    assert "garbage collection" not in lasting(tmp_path / "without.json")
