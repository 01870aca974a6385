"""The example with workers in three languages: all of them on one timeline."""

import json
import os
from collections import Counter, defaultdict
from pathlib import Path

import pytest
from conftest import BUILD, run_python
from trace_rules import check_trace

EXAMPLE = Path(__file__).resolve().parents[2] / "examples/clients.py"


@pytest.fixture(name="trace", scope="module")
def fixture_trace(tmp_path_factory):
    folder = tmp_path_factory.mktemp("clients")
    done = run_python(
        *("-m", "vantrace", "run", "--clients", "--events-only", "-o", folder / "trace.json"),
        *(EXAMPLE, BUILD / "examples"),
        env=os.environ | {"ZANDOR_RUNTIME_DIR": str(folder / "runtime")},
    )
    assert done.returncode == 0, done.stderr
    assert sorted(done.stdout.splitlines()) == [
        "C++: 3.141593",
        "C: 3.141593",
        "Python: 3.14159",
        "Python: 3.14159",
    ]
    return (folder / "trace.json").read_text()


def test_it_follows_the_rules_of_traces(trace):
    assert check_trace(trace) == []


def test_all_workers_are_processes_with_their_threads(trace):
    events = json.loads(trace)["traceEvents"]
    processes = {e["pid"]: e["args"]["name"] for e in events if e["name"] == "process_name"}
    threads = defaultdict(set)
    for event in events:
        if event["name"] == "thread_name":
            threads[processes[event["pid"]]].add(event["args"]["name"])
    assert {"c-worker", "cpp-worker", "python-1", "python-2"} < set(threads)
    assert threads["cpp-worker"] == {"half 0", "half 1"}
    assert threads["python-1"] == {"MainThread"}


def test_the_workers_events_lie_within_the_wait_for_them(trace):
    events = [event for event in json.loads(trace)["traceEvents"] if event["ph"] == "X"]
    (whole,) = [event for event in events if event["name"] == "all workers"]
    counts = Counter()
    for event in events:
        if event["name"] in ("sum", "half sum", "python sum"):
            counts[event["name"]] += 1
            assert whole["ts"] <= event["ts"]
            assert event["ts"] + event["dur"] <= whole["ts"] + whole["dur"]
    # What they did before they found the recording is not in it.
    assert 0 < counts["sum"] <= 80
    assert 0 < counts["half sum"] <= 160
    assert 0 < counts["python sum"] <= 120
