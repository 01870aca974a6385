"""The published logger: its lines on standard output, as a program sees them."""

import re

PRELUDE = """
import io, sys, threading, vantrace
from vantrace import performance
logger, recorder = performance.instrument.logger, performance.instrument.recorder
"""
TIMED = re.compile(r"\[ *\d+, *(\d+)\] (START|STOP|INSTANT): (.*?) +; thread \d+; ID \d+")


def told(text):
    """The lines as "KIND name"."""
    matches = [TIMED.fullmatch(line) for line in text.splitlines()]
    assert all(matches), text
    return [f"{match[2]} {match[3]}" for match in matches]


def test_lines_stand_where_prints_stand(python):
    out = python(
        PRELUDE
        + """
print("before")
logger.start()
print()
with vantrace.event("solve"):
    print("inside")
    vantrace.instant("tick")
logger.stop()
vantrace.instant("unheard")
print("after")
"""
    )
    lines = out.splitlines()
    assert lines[:2] == ["before", "Performance Logging started"]
    assert lines[3] == "inside" and lines[-1] == "after"
    assert told("\n".join([lines[2], *lines[4:-1]])) == ["START solve", "INSTANT tick", "STOP solve"]
    assert TIMED.fullmatch(lines[2])[1] == "0"


def test_lines_go_to_the_stream_that_stands_in_place(python):
    out = python(
        PRELUDE
        + """
sys.stdout = kept = io.StringIO()
logger.start()
vantrace.instant("kept")
sys.stdout = sys.__stdout__
vantrace.instant("shown")
print(repr(kept.getvalue()))
"""
    )
    shown, kept = out.splitlines()
    assert told(shown) == ["INSTANT shown"]
    assert "Performance Logging started[" in kept and "INSTANT: kept" in kept


def test_a_stream_whose_write_makes_events_does_not_recurse(python):
    out = python(
        PRELUDE
        + """
class Traced(io.StringIO):
    def write(self, text):
        with vantrace.event("write"):
            vantrace.instant("in write")
            return super().write(text)
sys.stdout = stream = Traced()
logger.start()
with vantrace.event("solve"):
    pass
logger.stop()
sys.stdout = sys.__stdout__
print(stream.getvalue().removeprefix("Performance Logging started"), end="")
"""
    )
    assert told(out) == ["START solve", "STOP solve"]


def test_lines_of_other_threads_come_before_the_next_line(python):
    out = python(
        PRELUDE
        + """
logger.start()
print()
thread = threading.Thread(target=lambda: vantrace.instant("theirs"))
thread.start(); thread.join()
print("waiting")
vantrace.instant("ours")
"""
    )
    lines = out.splitlines()
    assert lines[:2] == ["Performance Logging started", "waiting"]
    assert told("\n".join(lines[2:])) == ["INSTANT theirs", "INSTANT ours"]


def test_lines_that_wait_at_the_end_are_printed_then(python):
    for end in ("", "vantrace.host.unload()", "logger.stop()"):
        out = python(
            PRELUDE
            + """
logger.start()
print(flush=True)
thread = threading.Thread(target=lambda: vantrace.instant("theirs"))
thread.start(); thread.join()
"""
            + end
        )
        lines = out.splitlines()
        assert told("\n".join(lines[1:])) == ["INSTANT theirs"]


def test_names_are_no_formats(python):
    out = python(PRELUDE + "logger.start(); print(); vantrace.instant('100 %s %n %')")
    assert told(out.splitlines()[1]) == ["INSTANT 100 %s %n %"]


def test_the_logger_and_the_recorder_hear_the_same_events(python):
    out = python(
        PRELUDE
        + """
recorder.start()
logger.start()
print()
with vantrace.event("solve"):
    pass
logger.stop()
recorder.stop()
for point in recorder.getAllEventPoints():
    print(point["type"], point["name"])
"""
    )
    lines = out.splitlines()
    assert told("\n".join(lines[1:3])) == ["START solve", "STOP solve"]
    assert lines[3:] == ["start solve", "stop solve"]


def test_threads_that_emit_to_the_end_do_no_harm(python):
    for _ in range(5):
        python(
            PRELUDE
            + """
logger.start()
running = threading.Barrier(5)
def work():
    vantrace.instant("busy")
    running.wait()
    while True:
        vantrace.instant("busy")
for _ in range(4):
    threading.Thread(target=work, daemon=True).start()
running.wait()
"""
        )


def test_the_first_thread_that_prints_is_the_printing_one(python):
    out = python(
        PRELUDE
        + """
started, heard = threading.Event(), threading.Event()
def first():
    logger.start()
    print()
    started.set()
    heard.wait()
    vantrace.instant("theirs")
thread = threading.Thread(target=first); thread.start()
started.wait()
vantrace.instant("ours")
print("waiting")
heard.set()
thread.join()
"""
    )
    lines = out.splitlines()
    assert lines[:2] == ["Performance Logging started", "waiting"]
    assert told("\n".join(lines[2:])) == ["INSTANT ours", "INSTANT theirs"]


def test_starts_and_stops_while_another_thread_prints(python):
    out = python(
        PRELUDE
        + """
started, ended = threading.Event(), threading.Event()
def printing():
    logger.start()
    while not ended.is_set():
        vantrace.instant("busy")
        started.set()
thread = threading.Thread(target=printing); thread.start()
started.wait()
for _ in range(100):
    logger.stop()
    logger.start()
ended.set()
thread.join()
"""
    )
    assert out.count("Performance Logging started") == 101


def test_a_printing_thread_that_outlives_the_program_does_no_harm(python):
    for _ in range(5):
        out = python(
            PRELUDE
            + """
started = threading.Event()
def printing():
    logger.start()
    while True:
        vantrace.instant("busy")
        started.set()
threading.Thread(target=printing, daemon=True).start()
started.wait()
"""
        )
        assert out.startswith("Performance Logging started[")
