"""What a terminal would obey in names, paths and texts never reaches it."""

import os
import pty
import re
import subprocess
import sys

import pytest

import vantrace
from conftest import run_python

pytestmark = pytest.mark.unsanitized

# Sets the title, clears the screen, rings, goes back, an eight-bit introducer, turns text round.
EVIL = "e\x1b]0;title\x07\x1b[2J\b\r\x9b31m\u202eevil"
FORBIDDEN = re.compile("[\x00-\x08\x0b\x0c\x0e-\x1f\x7f-\x9f\u202a-\u202e\u2066-\u2069]")
COLOUR = re.compile(r"\x1b\[[0-9;]*m")


def obeyed(text):
    """The characters that a terminal would obey, but for the colours of our own tables."""
    return FORBIDDEN.findall(COLOUR.sub("", text))


@pytest.fixture(name="environment")
def fixture_environment(tmp_path):
    folder = tmp_path / "runtime"
    folder.mkdir(mode=0o700)
    own = {"XDG_RUNTIME_DIR": str(folder), "ZANDOR_RUNTIME_DIR": str(folder / "zandor")}
    return os.environ | own | {"XDG_STATE_HOME": str(tmp_path / f"state{EVIL}"), "TERM": "xterm"}


@pytest.fixture(name="shown")
def fixture_shown(tmp_path, environment):
    """Runs a command in a terminal; gives all that the terminal is sent."""

    def run(*arguments, command=("-m", "vantrace")):
        ours, theirs = pty.openpty()
        process = subprocess.Popen(
            [sys.executable, *command, *map(str, arguments)],
            cwd=tmp_path,
            env=environment,
            stdin=subprocess.DEVNULL,
            stdout=theirs,
            stderr=theirs,
        )
        os.close(theirs)
        parts = []
        with os.fdopen(ours, "rb", buffering=0) as terminal:
            try:
                while part := terminal.read(65536):
                    parts.append(part)
            except OSError:  # the terminal's other end is closed
                pass
        process.wait(60)
        return b"".join(parts).decode()

    return run


SCRIPT = f"""
import threading, vantrace
EVIL = {EVIL!r}
def work(): pass
functions = {{}}
exec(compile("def work(): pass", EVIL + ".py", "exec"), functions)
named = functions["work"]
named.__code__ = named.__code__.replace(co_name=EVIL, co_qualname=EVIL)
def emit():
    with vantrace.event(EVIL, **{{EVIL: EVIL}}):
        vantrace.instant(EVIL)
        vantrace.counter(EVIL, 3)
        for _ in range(100): named()
thread = threading.Thread(target=emit, name=EVIL)
thread.start()
thread.join()
"""


@pytest.fixture(name="script")
def fixture_script(tmp_path):
    path = tmp_path / f"script{EVIL}.py"
    path.write_text(SCRIPT, encoding="utf-8")
    return path


@pytest.fixture(name="trace")
def fixture_trace(tmp_path, environment, script):
    path = tmp_path / f"trace{EVIL}.vtrace"
    done = run_python("-m", "vantrace", "run", "-o", path, script, env=environment)
    assert done.returncode == 0, done.stderr
    return path


@pytest.mark.parametrize(
    "options",
    [
        [],
        ["--all", "--c-calls"],
        ["--count"],
        ["--repeat", "2", "-o", "r.vtrace"],
        ["-o", f"{EVIL}.json"],
    ],
    ids=lambda options: options[0] if options else "plain",
)
def test_run(shown, script, options):
    text = shown("run", *options, script)
    assert "evil" in text
    assert obeyed(text) == []


@pytest.mark.parametrize("command", ["table", "diff", "report"])
def test_commands_on_a_trace(shown, trace, tmp_path, command):
    with vantrace.record(tmp_path / "other.vtrace"):
        pass
    text = shown(command, trace, *(["other.vtrace"] if command == "diff" else []))
    assert "evil" in text
    assert obeyed(text) == []


def test_complaints(shown, trace, tmp_path):
    for arguments in (
        ["table", f"absent{EVIL}"],
        ["export", trace, "-o", f"folder{EVIL}/a.json"],
        ["export", trace, "-o", f"a.{EVIL}"],
        ["run", f"absent{EVIL}"],
        ["run", f"--{EVIL}"],
        [EVIL],
        ["stacks", EVIL],
        ["stats", f"absent{EVIL}"],
        ["diff", trace, f"absent{EVIL}"],
        ["report", f"absent{EVIL}"],
        ["combine", trace, f"absent{EVIL}", "-o", "a.vtrace"],
    ):
        text = shown(*arguments)
        assert "evil" in text
        assert obeyed(text) == [], arguments


def test_damaged_files_are_named(shown, trace, tmp_path):
    cut = tmp_path / f"cut{EVIL}.vtrace"
    cut.write_bytes(trace.read_bytes()[:-40])
    text = shown("table", cut) + shown("export", cut, "-o", f"{EVIL}.json")
    assert obeyed(text) == []


def test_progress(shown, trace):
    code = """
import sys
from vantrace import _progress, _export
_progress._PATIENCE = _progress._PACE = 0
sys.exit(_export.export(sys.argv[1:]))
"""
    text = shown(trace, "-o", f"{EVIL}.json", command=("-c", code))
    assert "about" in text
    assert obeyed(text) == []


def test_product_statistics(shown, environment):
    code = f"""
import vantrace
stats = vantrace.host.private("performance.productStats.logEventTime")
stats({EVIL!r}, {EVIL!r})
"""
    assert run_python("-c", code, env=environment).returncode == 0
    text = shown("stats")
    assert "evil" in text
    assert obeyed(text) == []


def test_clients(shown, environment):
    code = f"""
import sys, time
from vantrace import client
from vantrace._clients import Aggregator
aggregator = Aggregator()
aggregator.start(5)
hostile = client.Client({EVIL!r})
while not hostile.is_wanted: time.sleep(0)
hostile.instant({EVIL!r})
print("ready", flush=True)
sys.stdin.read()
"""
    command = [sys.executable, "-c", code]
    pipe = subprocess.PIPE
    with subprocess.Popen(command, env=environment, stdin=pipe, stdout=pipe) as host:
        assert host.stdout.readline() == b"ready\n"
        text = shown("clients")
        host.stdin.close()
    assert "evil" in text
    assert obeyed(text) == []


def test_stacks_and_snap(shown, environment, tmp_path):
    path = tmp_path / f"dormant{EVIL}.py"
    path.write_text(
        SCRIPT.replace("def emit():\n", "def emit():\n    print('ready', flush=True)\n    input()\n"),
        encoding="utf-8",
    )
    command = [sys.executable, "-m", "vantrace", "run", "--dormant", path]
    pipe = subprocess.PIPE
    with subprocess.Popen(command, env=environment, stdin=pipe, stdout=pipe) as program:
        assert program.stdout.readline() == b"ready\n"
        text = shown("stacks", program.pid)
        assert "evil" in text
        text += shown("snap", "--seconds", "0.05", "-o", f"snap{EVIL}.json", program.pid)
        program.communicate(b"\n", 60)
    assert obeyed(text) == []


def test_the_profiler_s_table(shown, script):
    text = shown("run", "--profile", "--no-table", script)
    assert "evil" in text
    assert obeyed(text) == []


def test_a_recording_at_the_prompt(recorder):
    with vantrace.record() as recording:
        with vantrace.event(EVIL):
            pass
    assert obeyed(str(recording.summary())) == []
    with vantrace.event(EVIL):
        pass
    assert obeyed(repr(recorder.getAllEvents())) == []
