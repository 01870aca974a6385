"""The programs that rows are measured by: each gives samples of what it is asked for by name."""

import ctypes.util
import importlib.util
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

HERE = pathlib.Path(__file__).parent
# Google Benchmark tells times in the unit of the measurement.
NANOSECONDS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}


class Absent(Exception):
    """What a measurement needs is not installed."""


def _run(command, **options):
    done = subprocess.run(command, check=False, capture_output=True, text=True, **options)
    if done.returncode != 0:
        raise RuntimeError(f"{command[0]} ended with {done.returncode}: {done.stderr[-2000:]}")
    return done.stdout


class GoogleBenchmark:
    """A native program; "NAME" is the time of an iteration, "NAME#COUNTER" a counter of it."""

    def __init__(self, path, prefix=(), needs=None):
        self.path = path
        self.prefix = prefix
        self.needs = needs

    def samples(self, names, count):
        if not self.path.exists() or (self.needs and not shutil.which(self.needs)):
            raise Absent
        wanted = {name: name.partition("#") for name in names}
        benchmarks = "|".join(sorted({re.escape(base) for base, _, _ in wanted.values()}))
        with tempfile.NamedTemporaryFile() as out:
            command = [
                *self.prefix,
                self.path,
                f"--benchmark_filter=^({benchmarks})(/(iterations|process_time|manual_time).*)?$",
                f"--benchmark_repetitions={count}",
                "--benchmark_min_time=0.03",
                "--benchmark_enable_random_interleaving=true",
                "--benchmark_out_format=json",
                f"--benchmark_out={out.name}",
            ]
            _run(command)
            found = json.load(out)["benchmarks"]
        return {name: _readings(found, *wanted[name]) for name in names}


def _readings(found, base, _, counter):
    readings = [_reading(measured, counter) for measured in found if _is(measured, base)]
    if not readings:
        raise RuntimeError(f"there is no measurement named {base}")
    return readings


def _is(measured, base):
    name = re.sub(r"/(iterations:\d+|process_time|manual_time)", "", measured["run_name"])
    return name == base and measured["run_type"] == "iteration"


def _reading(measured, counter):
    if measured.get("error_occurred"):
        raise RuntimeError(f"{measured['name']}: {measured['error_message']}")
    if counter:
        return measured[counter]
    time = "real_time" if "manual_time" in measured["name"] else "cpu_time"
    return measured[time] * NANOSECONDS[measured["time_unit"]]


class PythonProgram:
    """A script below python/, called with the names."""

    def __init__(self, build, name):
        self.script = HERE / "python" / f"{name}.py"
        paths = [build / "python", build / "bench", HERE / "python"]
        self.environment = os.environ | {"PYTHONPATH": ":".join(map(str, paths))}

    def samples(self, names, count):
        if any("yappi" in name for name in names) and not importlib.util.find_spec("yappi"):
            raise Absent
        if "floor_json_gz" in names and not ctypes.util.find_library("deflate"):
            raise Absent
        return json.loads(_run([sys.executable, self.script, *names], env=self.environment))


class OneAnswer:
    """A native program that prints one JSON object for its arguments; "ARGUMENTS#FIELD" is a field.

    An answer serves each of its fields once, in whatever row that is asked for."""

    def __init__(self, path):
        self.path = path
        self.answers = {}
        self.given = {}

    def samples(self, names, count):
        return {name: [self._answer(name)] for name in names}

    def _answer(self, name):
        arguments, _, field = name.partition("#")
        answers = self.answers.setdefault(arguments, [])
        given = self.given[name] = self.given.get(name, 0) + 1
        if given > len(answers):
            answers.append(json.loads(_run([self.path, *arguments.split()])))
        return answers[given - 1][field]


def programs(build):
    """By the names that rows call them."""
    native = build / "bench"
    return {
        "native": GoogleBenchmark(native / "native"),
        "lttng": GoogleBenchmark(native / "lttng", prefix=[HERE / "peers" / "with_lttng"],
                                 needs="lttng-sessiond"),
        "events": PythonProgram(build, "events"),
        "functions": PythonProgram(build, "functions"),
        "exports": PythonProgram(build, "exports"),
        "processes": PythonProgram(build, "processes"),
        "growth": OneAnswer(native / "growth"),
        "switching": OneAnswer(native / "switching"),
    }
