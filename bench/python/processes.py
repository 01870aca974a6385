"""What whole processes take, in milliseconds of CPU time with those that they start."""

import os
import pathlib
import resource
import subprocess
import sys
import tempfile

import timing

ROOT = pathlib.Path(__file__).parents[2]

folder = tempfile.TemporaryDirectory()


def cpu_time():
    """Of the children that ended."""
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, cwd=folder.name).stdout


def whole(*command):
    def sample():
        before = cpu_time()
        run(*command)
        return (cpu_time() - before) * 1e3

    return lambda: sample


script = os.path.join(folder.name, "empty.py")
with open(script, "w", encoding="utf-8") as file:
    file.write("pass\n")
trace = os.path.join(folder.name, "a.json")

with folder:
    timing.main(
        {
            "bare": whole(sys.executable, "-c", "pass"),
            "import": whole(sys.executable, "-c", "import vantrace"),
            "bare_script": whole(sys.executable, script),
            "dev_run": whole(str(ROOT / "dev"), "run", "-o", trace, script),
        },
        samples=7,
    )
