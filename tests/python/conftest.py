"""What the tests of the Python package share."""

import ctypes
import gc
import os
import signal
import subprocess
import sys
import threading
from pathlib import Path

import pytest


ROOT = Path(__file__).resolve().parents[2]
# What runs us in the background may have its children ignore these; tests send them.
signal.signal(signal.SIGINT, signal.default_int_handler)
for ignored in (signal.SIGHUP, signal.SIGQUIT):
    signal.signal(ignored, signal.SIG_DFL)

BUILD = Path(os.environ.get("VANTRACE_BUILD", ROOT / "build/release"))
EVENT_PRINTER = BUILD / "tests/plugins/event_printer.so"


def run_python(*arguments, **options):
    """Runs the interpreter that runs the tests; gives the finished process with its text."""
    options = {"capture_output": True, "text": True, "timeout": 120, "check": False} | options
    return subprocess.run([sys.executable, *map(str, arguments)], **options)


@pytest.fixture(name="python")
def fixture_python(tmp_path):
    """Runs code in a new interpreter, which must succeed and print no error; gives its output."""

    def run(code, *arguments):
        done = run_python("-c", code, *arguments, cwd=tmp_path)
        assert done.returncode == 0, done.stderr
        assert done.stderr == ""
        return done.stdout

    return run


@pytest.fixture(name="small_disk")
def fixture_small_disk(tmp_path):
    """A folder with a disk of two megabytes."""
    folder = tmp_path / "small"
    folder.mkdir()
    mount = ["mount", "-t", "tmpfs", "-o", "size=2m", "none", folder]
    if os.geteuid() != 0 or subprocess.run(mount, check=False).returncode != 0:
        pytest.skip("only root may mount a disk")
    yield folder
    subprocess.run(["umount", folder], check=True)


@pytest.fixture(name="no_leaks")
def fixture_no_leaks(request):
    """The test ends with as many host arrays as it began with."""
    from vantrace import _core

    gc.collect()
    before = _core.live_array_count()
    yield
    request.node.funcargs.clear()  # which hold what fixtures made until after this
    gc.collect()
    assert _core.live_array_count() == before


@pytest.fixture(name="recorder")
def fixture_recorder():
    """The published recorder, empty and started."""
    from vantrace import performance

    recorder = performance.instrument.recorder
    recorder.clearAllEventData()
    recorder.start()
    yield recorder
    if recorder.isActive():
        recorder.stop()
    recorder.clearAllEventData()
    performance.instrument.controls.disableAll()


@pytest.fixture(name="event_printer")
def fixture_event_printer():
    """A native library whose listener prints events on the host's console, or throws."""
    from vantrace import performance

    library = ctypes.CDLL(EVENT_PRINTER)
    performance.instrument.controls.enableAll()
    yield library
    library.stopListening()
    performance.instrument.controls.disableAll()


@pytest.fixture(name="in_thread")
def fixture_in_thread():
    """Runs a function in a thread of a name and waits for it; its result or error is the call's."""

    def run(function, name="worker"):
        outcome = []

        def work():
            try:
                outcome.append((function(), None))
            except BaseException as error:
                outcome.append((None, error))

        thread = threading.Thread(target=work, name=name)
        thread.start()
        thread.join()
        result, error = outcome[0]
        if error:
            raise error
        return result

    return run


@pytest.fixture(name="compile_library")
def fixture_compile_library(tmp_path):
    """Compiles C text to a shared library."""

    def compile_library(name, text=""):
        source = tmp_path / f"{name}.c"
        source.write_text(text)
        library = tmp_path / f"lib{name}.so"
        environment = {key: value for key, value in os.environ.items() if key != "LD_PRELOAD"}
        subprocess.run(
            ["cc", "-shared", "-fPIC", "-o", library, source], check=True, env=environment
        )
        return library

    return compile_library
