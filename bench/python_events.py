#!/usr/bin/python3
"""What events and calls cost from Python, in CPU time of the process, and how soon `./dev run` reaches a script."""

import os
import pathlib
import statistics
import subprocess
import sys
import tempfile
import time

import vantrace
from vantrace import performance

ROOT = pathlib.Path(__file__).parents[1]
ROUNDS = 200_000
REPEATS = 7


class Empty:
    """The floor of a `with` block written in Python's own terms."""

    __slots__ = ()

    def __enter__(self):
        return None

    def __exit__(self, *error):
        return None


def loop(body, setup):
    names = dict(setup)
    exec(f"def run():\n for _ in range({ROUNDS}):\n  {body}", names)
    return names["run"]


def nanoseconds(body, **setup):
    """CPU time of one round beyond that of an empty loop: the median of several runs, taken in turn."""
    empty, measured = loop("pass", setup), loop(body, setup)
    times = []
    for _ in range(REPEATS):
        began = time.process_time_ns()
        empty()
        between = time.process_time_ns()
        measured()
        times.append((time.process_time_ns() - between) - (between - began))
    return statistics.median(times) / ROUNDS


def row(name, value, unit="ns"):
    print(f"{name:54}{value:10.1f} {unit}")


def first_line(command):
    """Milliseconds from starting a command to its script's first line; the median of several."""
    with tempfile.TemporaryDirectory() as folder:
        script = pathlib.Path(folder, "first.py")
        script.write_text("import time; print(time.monotonic_ns())")
        times = []
        for number in range(REPEATS):
            began = time.monotonic_ns()
            arguments = [part.format(out=f"{folder}/{number}.json", script=script) for part in command]
            done = subprocess.run(arguments, check=True, capture_output=True, cwd=folder)
            times.append(int(done.stdout) - began)
    return statistics.median(times) / 1e6


def main():
    event, instant, utils = vantrace.event, vantrace.instant, performance.utils
    row("with block of an empty Python class", nanoseconds("with e: pass", e=Empty()))
    row("with vantrace.event, inactive", nanoseconds("with event('n'): pass", event=event))
    row("getNanosecondTimer()", nanoseconds("timer()", timer=utils.getNanosecondTimer))
    has = performance.instrument.controls.has
    row("controls.has(text)", nanoseconds("has('n')", has=has))
    with tempfile.TemporaryDirectory() as folder, vantrace.record(os.path.join(folder, "t.folded")):
        row("with vantrace.event, recorded", nanoseconds("with event('n'): pass", event=event))
        row("the same with a number", nanoseconds("with event('n', k=1): pass", event=event))
        row("vantrace.instant, recorded", nanoseconds("instant('n')", instant=instant))
    dev = str(ROOT / "dev")
    row("python script.py to its first line", first_line([sys.executable, "{script}"]), "ms")
    row("./dev run script.py to its first line", first_line([dev, "run", "-o", "{out}", "{script}"]), "ms")


if __name__ == "__main__":
    main()
