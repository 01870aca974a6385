"""How long processes take, in milliseconds: to import the package, and to a script's first line."""

import os
import pathlib
import resource
import subprocess
import sys
import tempfile
import time

import timing

ROOT = pathlib.Path(__file__).parents[2]

folder = tempfile.TemporaryDirectory()


def cpu_time():
    """Of the children that ended."""
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, cwd=folder.name).stdout


def whole(code):
    """CPU time of an interpreter that runs the code."""

    def sample():
        before = cpu_time()
        run(sys.executable, "-c", code)
        return (cpu_time() - before) * 1e3

    return lambda: sample


def first_line(*command):
    """From the start of the command to the first line of its script."""

    def sample():
        began = time.monotonic_ns()
        return (int(run(*command)) - began) / 1e6

    return lambda: sample


script = os.path.join(folder.name, "first.py")
with open(script, "w", encoding="utf-8") as file:
    file.write("import time; print(time.monotonic_ns())")
trace = os.path.join(folder.name, "a.json")

with folder:
    timing.main(
        {
            "bare": whole("pass"),
            "import": whole("import vantrace"),
            "bare_script": first_line(sys.executable, script),
            "dev_run": first_line(str(ROOT / "dev"), "run", "-o", trace, script),
        },
        samples=11,
    )
