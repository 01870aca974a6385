"""`vantrace run --dormant`, `vantrace snap` and `vantrace stacks`."""

import json
import os
import re
import signal
import subprocess
import sys
import time

import pytest

from conftest import ROOT, run_python
from trace_rules import check_trace, events_of

# Its processes fork while threads allocate, which the sanitizer's allocator does not survive.
pytestmark = pytest.mark.unsanitized

WORKING = """
import sys, threading
import vantrace

def step(number):
    with vantrace.event("step", number=number):
        return sum(range(200))

def work():
    number = 0
    while not stop.is_set():
        step(number)
        number += 1

stop = threading.Event()
worker = threading.Thread(target=work, name="worker")
worker.start()
print("ready", flush=True)
sys.stdin.readline()
stop.set()
worker.join()
print("whole", flush=True)
"""

TELLING = WORKING.replace(
    "        number += 1\n",
    """\
        number += 1
        is_on = controls.wereAllEnabled()
        if is_on and was_on:
            print("recorded", flush=True)
            stop.wait()
        was_on = is_on
""",
).replace("    number = 0\n", "    number, was_on = 0, False\n")
TELLING = TELLING.replace(
    "import vantrace\n", "import vantrace\ncontrols = vantrace.performance.instrument.controls\n"
)


class Dormant:
    """A script that runs dormant, and waits for a line after it said that it is ready."""

    def __init__(self, folder, code, environment):
        script = folder / "script.py"
        script.write_text(code, encoding="utf-8")
        self._process = subprocess.Popen(
            [sys.executable, "-m", "vantrace", "run", "--dormant", script],
            cwd=folder,
            env=environment,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
        )
        self.pid = self._process.pid
        self.ready = self._process.stdout.readline().split()

    def line(self):
        return self._process.stdout.readline().rstrip()

    def kill(self, number):
        os.kill(self.pid, number)

    def wait(self):
        return self._process.wait(60)

    def end(self):
        """Has it end; gives its status and what else it printed."""
        out, errors = self._process.communicate("\n", 60)
        return self._process.returncode, out, errors


@pytest.fixture(name="environment")
def fixture_environment(tmp_path_factory):
    folder = tmp_path_factory.mktemp("runtime")
    folder.chmod(0o700)
    return os.environ | {"XDG_RUNTIME_DIR": str(folder)}


@pytest.fixture(name="dormant")
def fixture_dormant(tmp_path, environment):
    started = []

    def start(code=WORKING):
        started.append(Dormant(tmp_path, code, environment))
        assert started[-1].ready[0] == "ready"
        return started[-1]

    yield start
    for process in started:
        process._process.kill()
        process._process.communicate()


@pytest.fixture(name="vantrace")
def fixture_vantrace(tmp_path, environment):
    def run(*arguments):
        return run_python("-m", "vantrace", *arguments, cwd=tmp_path, env=environment)

    return run


def named(path):
    text = path.read_text(encoding="utf-8")
    assert check_trace(text) == []
    return [event["name"] for event in events_of(text) if event["ph"] == "X"]


def test_a_snap_records_functions_and_events_of_a_running_program(dormant, vantrace, tmp_path):
    program = dormant()
    done = vantrace("snap", program.pid, "--seconds", "0.2", "-o", "t.json")
    assert done.returncode == 0, done.stderr
    assert done.stderr.splitlines()[-1] == f"vantrace: the trace is {tmp_path / 't.json'}"
    assert {"step", "__main__.step"} <= set(named(tmp_path / "t.json"))
    assert {"step", "__main__.step"} <= {line.split()[0] for line in done.stderr.splitlines()}
    assert program.end() == (0, "whole\n", "")
    assert sorted(os.listdir(tmp_path)) == ["script.py", "t.json"]


def test_there_may_be_many_snaps_each_with_its_own_part(dormant, vantrace, tmp_path):
    program = dormant()
    numbers = []
    for name in ("first.json", "second.json"):
        done = vantrace("snap", "--events-only", "--seconds=0.05", "-o", name, program.pid)
        assert done.returncode == 0, done.stderr
        text = (tmp_path / name).read_text(encoding="utf-8")
        numbers.append([event["args"]["number"] for event in events_of(text) if event["ph"] == "X"])
        assert set(named(tmp_path / name)) == {"step"}
    assert max(numbers[0]) < min(numbers[1])


def test_several_processes_are_in_one_trace(dormant, vantrace, tmp_path):
    programs = [dormant(), dormant()]
    pids = [program.pid for program in programs]
    done = vantrace("snap", "--seconds", "0.1", "-o", "t.json", *pids)
    assert done.returncode == 0, done.stderr
    events = events_of((tmp_path / "t.json").read_text(encoding="utf-8"))
    assert len({event["pid"] for event in events if event["name"] == "step"}) == 2


def test_forks_are_asked_by_their_own_number(dormant, vantrace, tmp_path):
    program = dormant(
        """
import os, sys

def in_child(parent):
    return os.getppid() == parent

parent = os.getpid()
child = os.fork()
if not child:
    print("ready", os.getpid(), flush=True)
    while in_child(parent):
        pass
    os._exit(0)
sys.stdin.readline()
"""
    )
    child = program.ready[1]
    done = vantrace("snap", child, "--seconds", "0.1", "-o", "t.json")
    assert done.returncode == 0, done.stderr
    assert "__main__.in_child" in named(tmp_path / "t.json")


def test_until_it_is_asked_nothing_is_on(dormant):
    program = dormant(
        """
import ctypes, sys, threading
import vantrace
print("ready", flush=True)
sys.stdin.readline()
api = ctypes.pythonapi
api.PyInterpreterState_Get.restype = ctypes.c_void_p
api._PyInterpreterState_GetEvalFrameFunc.restype = ctypes.c_void_p
api._PyInterpreterState_GetEvalFrameFunc.argtypes = [ctypes.c_void_p]
hook = api._PyInterpreterState_GetEvalFrameFunc(api.PyInterpreterState_Get())
print(hook == ctypes.cast(api._PyEval_EvalFrameDefault, ctypes.c_void_p).value)
print(vantrace.performance.instrument.controls.wereAllEnabled(), threading.active_count())
print(sorted({"json", "select", "socket", "signal"} & sys.modules.keys()))
"""
    )
    assert program.end() == (0, "True\nFalse 1\n[]\n", "")


def test_a_snap_ends_early_on_an_interrupt(dormant, tmp_path, environment):
    program = dormant()
    command = [sys.executable, "-m", "vantrace", "snap", "--no-table", "--seconds", "600", "-o", "t.json"]
    snap = subprocess.Popen(
        [*command, str(program.pid)], cwd=tmp_path, env=environment, stderr=subprocess.PIPE, text=True
    )
    wait_for_run_file(tmp_path)
    snap.send_signal(signal.SIGINT)
    _, errors = snap.communicate(timeout=60)
    assert (snap.returncode, errors) == (0, f"vantrace: the trace is {tmp_path / 't.json'}\n")
    assert program.end()[0] == 0


def wait_for_run_file(folder):
    """Until a process records into a run folder there."""
    end = time.monotonic() + 60
    while not list(folder.glob(".vantrace-*.run/*")):
        assert time.monotonic() < end
        time.sleep(0.001)


@pytest.mark.parametrize("ending", ["exit", "kill"])
def test_what_a_process_recorded_before_it_ended_is_in_the_trace(
    dormant, tmp_path, environment, ending
):
    program = dormant(TELLING)
    command = [sys.executable, "-m", "vantrace", "snap", "--no-table", "--seconds", "600", "-o", "t.json"]
    snap = subprocess.Popen(
        [*command, str(program.pid)], cwd=tmp_path, env=environment, stderr=subprocess.PIPE, text=True
    )
    assert program.line() == "recorded"
    if ending == "kill":
        program.kill(signal.SIGKILL)
        assert program.wait() == -signal.SIGKILL
    else:
        assert program.end() == (0, "whole\n", "")
    _, errors = snap.communicate(timeout=60)
    assert snap.returncode == 0
    assert errors.splitlines() == [
        f"vantrace: process {program.pid} ended before its recording did",
        f"vantrace: the trace is {tmp_path / 't.json'}",
    ]
    assert "step" in named(tmp_path / "t.json")


def test_a_program_whose_snap_was_killed_stops_recording(dormant, tmp_path, environment):
    program = dormant(
        TELLING.replace(
            "stop.set()\nworker.join()\n",
            "while controls.wereAllEnabled():\n    pass\nstop.set()\nworker.join()\n",
        )
    )
    command = [sys.executable, "-m", "vantrace", "snap", "--seconds", "600", "-o", "t.json"]
    snap = subprocess.Popen([*command, str(program.pid)], cwd=tmp_path, env=environment)
    assert program.line() == "recorded"
    snap.kill()
    snap.wait(60)
    # It ends once the recording has given the switches back.
    assert program.end() == (0, "whole\n", "")


def test_a_fork_meanwhile_belongs_to_no_snap(dormant, tmp_path, environment, vantrace):
    program = dormant(
        """
import os, sys, threading
import vantrace

def work():
    while not stop.is_set():
        with vantrace.event("step"):
            pass

stop = threading.Event()
threading.Thread(target=work).start()
print("ready", flush=True)
sys.stdin.readline()
child = os.fork()
if not child:
    print(vantrace.performance.instrument.controls.wereAllEnabled(), flush=True)
    os._exit(0)
if child:
    stop.set()
    print(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]))
"""
    )
    command = [sys.executable, "-m", "vantrace", "snap", "--no-table", "--seconds", "600", "-o", "t.json"]
    snap = subprocess.Popen(
        [*command, str(program.pid)], cwd=tmp_path, env=environment, stderr=subprocess.PIPE, text=True
    )
    wait_for_run_file(tmp_path)
    assert program.end() == (0, "False\n0\n", "")
    snap.communicate(timeout=60)
    assert snap.returncode == 0


def test_stacks_tell_what_threads_do(dormant, vantrace, tmp_path):
    program = dormant()
    done = vantrace("stacks", program.pid)
    assert (done.returncode, done.stderr) == (0, "")
    text = done.stdout
    assert text.startswith(f"process {program.pid}\n")
    threads = re.split(r"(?m)^  thread ", text)[1:]
    assert len(threads) == 2
    main, worker = (thread.splitlines() for thread in sorted(threads, key=lambda t: "worker" in t))
    assert re.fullmatch(rf"{program.pid} MainThread, (running|waiting)", main[0])
    line = WORKING.splitlines().index("sys.stdin.readline()") + 1
    assert main[1:] == [f"    <module>  {tmp_path / 'script.py'}:{line}"]
    assert worker[0].split()[1].startswith("worker")
    assert "work" in [frame.split()[0] for frame in worker[1:]]


def test_stacks_of_a_process_that_does_not_run_say_so(dormant, vantrace):
    program = dormant("print('ready', flush=True)\ninput()\n")
    program.kill(signal.SIGSTOP)
    done = vantrace("stacks", program.pid)
    program.kill(signal.SIGCONT)
    assert done.returncode == 2
    assert done.stderr == (
        f"vantrace: process {program.pid} does not answer: it is stopped, "
        "or a native call holds the interpreter's lock\n"
    )


def test_a_process_that_was_killed_leaves_nothing_for_long(dormant, vantrace, environment):
    program = dormant()
    folder = os.path.join(environment["XDG_RUNTIME_DIR"], "vantrace")
    program.kill(signal.SIGKILL)
    program.wait()
    done = vantrace("stacks", program.pid)
    assert done.stderr == f"vantrace: there is no process {program.pid}\n"
    other = dormant()
    assert os.listdir(folder) == [f"dormant-{other.pid}"]
    other.end()
    assert os.listdir(folder) == []


@pytest.mark.parametrize(
    "arguments, complaint",
    [
        (["snap"], "snap takes the number of a process; see vantrace snap --help"),
        (["stacks"], "stacks takes the number of a process; see vantrace stacks --help"),
        (["snap", "x"], "snap takes the numbers of processes, not 'x'"),
        (["stacks", "0"], "stacks takes the numbers of processes, not '0'"),
        (["snap", "--seconds", "0", "1"], "--seconds takes a number of seconds such as 5 or 0.5, not '0'"),
        (["snap", "--seconds"], "--seconds takes a value"),
        (["snap", "--count", "1"], "snap has no option '--count'; see vantrace snap --help"),
        (["snap", "-o", "no/t.json", "1"], "cannot write 'no/t.json': No such file or directory"),
        (["stacks", "1"], "process 1 is not one that vantrace run --dormant started"),
        (["stacks", "999999999"], "there is no process 999999999"),
        (["run", "--dormant", "--count", "x.py"], "--dormant goes without other options: vantrace snap takes them"),
        (["run", "--dormant", "-o", "t.json", "x.py"], "--dormant goes without other options: vantrace snap takes them"),
    ],
)
def test_what_cannot_be_asked(vantrace, tmp_path, arguments, complaint):
    (tmp_path / "x.py").write_text("pass")
    done = vantrace(*arguments)
    assert (done.returncode, done.stderr) == (2, f"vantrace: {complaint}\n".replace("'no/", f"'{tmp_path}/no/"))
    assert os.listdir(tmp_path) == ["x.py"]


def test_a_folder_that_others_may_enter_is_not_used(dormant, vantrace, environment):
    folder = os.path.join(environment["XDG_RUNTIME_DIR"], "vantrace")
    os.mkdir(folder)
    os.chmod(folder, 0o755)
    program = dormant()
    assert os.listdir(folder) == []
    done = vantrace("stacks", program.pid)
    assert done.returncode == 2
    assert "others may enter it" in done.stderr
    assert program.end() == (0, "whole\n", "")


def test_unheard_of_requests_are_refused(dormant, environment, tmp_path):
    import socket

    program = dormant()
    path = os.path.join(environment["XDG_RUNTIME_DIR"], "vantrace", f"dormant-{program.pid}")
    for request in (b"\n", b"[]\n", b"{}\n", b'{"do": "exec"}\n', b'{"do": "record"}\n', b"\xff\n", b"{" * 70000 + b"\n"):
        with socket.socket(socket.AF_UNIX) as peer:
            peer.connect(path)
            peer.sendall(request)
            peer.shutdown(socket.SHUT_WR)
            assert "error" in json.loads(peer.makefile().readline())
    assert program.end() == (0, "whole\n", "")


def test_the_guide_s_example(tmp_path, environment):
    guide = (ROOT / "docs/dormant.md").read_text(encoding="utf-8")
    service = re.search(r"(?s)```python\n(.*?)```", guide)[1]
    # It lasts until the commands are done, however slow the machine.
    service = service.replace("serve(4)", "serve(600)")
    (tmp_path / "service.py").write_text(service, encoding="utf-8")
    commands = re.search(r"(?s)```sh\n(.*?)```", guide)[1]
    function = f'vantrace() {{ exec "{sys.executable}" -m vantrace "$@"; }}\n'
    commands = re.sub(r"(?m)^(vantrace .*[^&])$", r"( \1 )", commands)
    until_there = 'until [ -e "$XDG_RUNTIME_DIR/vantrace/dormant-$!" ]; do :; done'
    commands = commands.replace("sleep 1", until_there).replace("wait\n", "kill $!\n")
    shell = subprocess.Popen(
        ["bash", "-ec", function + commands],
        cwd=tmp_path,
        env=environment,
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        text=True,
        start_new_session=True,
    )
    try:
        out, errors = shell.communicate(timeout=120)
    except subprocess.TimeoutExpired:
        os.killpg(shell.pid, signal.SIGKILL)
        raise
    assert shell.returncode == 0, errors
    assert "vantrace: the trace is" in errors
    assert re.search(r"(?m)^    serve +.*service.py:\d+$", out)
