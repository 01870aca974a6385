"""Interrupts that come while a cell's recording begins or ends."""

import pytest

from conftest import run_python

pytestmark = pytest.mark.unsanitized

# An interrupt before each line of ours that a recorded cell runs, one after the other.
EVERY_LINE = """
import os, signal, sys
import vantrace
from IPython.core.interactiveshell import InteractiveShell
from vantrace import _frames

shell = InteractiveShell.instance()
vantrace.load_ipython_extension(shell)
ours = os.path.dirname(vantrace.__file__)
# What is shown is no matter here.
vantrace._notebook._cell_output.bundle = lambda *_: displays.append(True) or {"text/plain": ""}

def traced():
    pass

def is_off():
    with vantrace.record() as probe:
        traced()
    return probe.events() == [] and not vantrace.performance.instrument.controls.wereAllEnabled()

def run_interrupted_at(number):
    left = number
    def trace(frame, kind, argument):
        nonlocal left
        if kind == "line":
            left -= 1
            if left == 0:
                sys.settrace(None)
                where.append(f"{frame.f_code.co_name}:{frame.f_lineno}")
                signal.raise_signal(signal.SIGINT)
        return trace if frame.f_code.co_filename.startswith(ours) else None
    sys.settrace(trace)
    try:
        shell.run_line_magic("vantrace", "work()")
    except KeyboardInterrupt:
        return left, True
    finally:
        sys.settrace(None)
    return left, False

def interrupts_come():
    try:
        signal.raise_signal(signal.SIGINT)
        return False
    except KeyboardInterrupt:
        return True

def work():
    global worked
    worked += 1

shell.user_ns["work"] = work
lines = interrupted = worked = 0
displays, where = [], []
while True:
    lines += 1
    left, came = run_interrupted_at(lines)
    assert is_off(), f"still on after an interrupt at {where[-1]}"
    assert interrupts_come(), f"no more interrupts after one at {where[-1]}"
    if left > 0:
        assert not came
        break
    assert came, f"the interrupt at {where[-1]} is lost"
print("done", lines > 100, worked > 1, len(displays) > 1)
"""


def test_an_interrupt_before_any_line_leaves_tracing_off_and_is_not_lost():
    done = run_python("-c", EVERY_LINE)
    assert (done.returncode, done.stdout.strip()) == (0, "done True True True"), done.stderr


HELD = """
import signal
from vantrace._interrupts import Interrupts

def work():
    signal.raise_signal(signal.SIGINT)
    steps.append("worked")

steps = []
before = signal.getsignal(signal.SIGINT)
with Interrupts() as interrupts:
    try:
        interrupts.hold_during(work)
    except KeyboardInterrupt:
        steps.append("came after it")
    try:
        signal.raise_signal(signal.SIGINT)
    except KeyboardInterrupt:
        steps.append("came at once")
assert signal.getsignal(signal.SIGINT) is before
print(steps)
"""


def test_an_interrupt_waits_for_what_must_be_whole(python):
    assert python(HELD) == "['worked', 'came after it', 'came at once']\n"


NESTED = """
import signal
from vantrace._interrupts import Interrupts

def within():
    with Interrupts() as inner:
        try:
            signal.raise_signal(signal.SIGINT)
        except KeyboardInterrupt:
            steps.append("too early")
    steps.append("within")

steps = []
with Interrupts() as outer:
    try:
        outer.hold_during(within)
    except KeyboardInterrupt:
        steps.append("came")
print(steps)
"""


def test_what_is_held_outside_is_held_inside(python):
    assert python(NESTED) == "['within', 'came']\n"


OTHER_HANDLERS = """
import signal, threading
from vantrace._interrupts import Interrupts

signal.signal(signal.SIGINT, signal.SIG_IGN)
with Interrupts() as interrupts:
    interrupts.hold_during(lambda: signal.raise_signal(signal.SIGINT))
assert signal.getsignal(signal.SIGINT) is signal.SIG_IGN

signal.signal(signal.SIGINT, signal.default_int_handler)
heard = []
with Interrupts():
    signal.signal(signal.SIGINT, lambda *_: heard.append("the program's own"))
signal.raise_signal(signal.SIGINT)

def elsewhere():
    with Interrupts() as interrupts:
        interrupts.hold_during(lambda: heard.append("another thread"))

thread = threading.Thread(target=elsewhere)
thread.start()
thread.join()
print(heard)
"""


def test_other_handlers_and_threads_are_let_be(python):
    assert python(OTHER_HANDLERS) == "[\"the program's own\", 'another thread']\n"
