"""The example that ships with the project: right, and recorded."""

import os
import re
from collections import Counter
from pathlib import Path

import pytest

from conftest import run_python
from trace_rules import check_trace, events_of

HEAT = Path(__file__).resolve().parents[2] / "examples/heat.py"


@pytest.fixture(name="recorded", scope="module")
def fixture_recorded(tmp_path_factory):
    """The finished process and its trace."""
    trace = tmp_path_factory.mktemp("heat") / "trace.json"
    wide = os.environ | {"COLUMNS": "160"}
    done = run_python("-m", "vantrace", "run", "-o", trace, HEAT, env=wide)
    assert done.returncode == 0, done.stderr
    return done, trace.read_text(encoding="utf-8")


def rows(output):
    """(n, steps, iterations) of each grid."""
    return [
        tuple(map(int, line.split()[:3]))
        for line in output.splitlines()
        if re.match(r" *\d", line)
    ]


def test_it_prints_the_same_without_us(recorded):
    done = run_python(HEAT)
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout == recorded[0].stdout


def test_its_error_falls_with_the_square_of_the_spacing(recorded):
    found = re.search(r"the error falls with order ([\d.]+), as it should", recorded[0].stdout)
    assert 1.8 < float(found[1]) < 2.2


def test_its_events_are_those_of_the_computation(recorded):
    done, trace = recorded
    assert check_trace(trace) == []
    grids = rows(done.stdout)
    steps, iterations = (sum(row[i] for row in grids) for i in (1, 2))
    counts = Counter(event["name"] for event in events_of(trace) if event["ph"] == "X")
    functions = {name for name in counts if name == "import" or name.startswith("__main__.")}
    assert {"__main__.main", "__main__.solve", "__main__.conjugate_gradients"} < functions
    counts = {name: count for name, count in counts.items() if name not in functions}
    assert counts == {
        "solve": len(grids),
        "assemble": len(grids),
        "output": len(grids),
        "step": steps,
        "right side": steps,
        "conjugate gradients": steps,
        "iteration": iterations,
        "analyse": steps,
        "error norm": steps,
        "spectrum": steps,
    }


def test_its_threads_have_their_names_and_shares(recorded):
    events = events_of(recorded[1])
    names = {e["tid"]: e["args"]["name"] for e in events if e["name"] == "thread_name"}
    of_thread = {
        name: {names[e["tid"]] for e in events if e["ph"] == "X" and e["name"] == name}
        for name in ("solve", "iteration", "analyse", "spectrum")
    }
    assert of_thread["solve"] == of_thread["iteration"] == {"MainThread"}
    assert of_thread["analyse"] == of_thread["spectrum"] == {"analysis"}


def test_context_and_instants_are_in_the_trace(recorded):
    done, trace = recorded
    events = events_of(trace)
    solved = [e["args"] for e in events if e["ph"] == "X" and e["name"] == "solve"]
    assert [int(args["n"]) for args in solved] == [row[0] for row in rows(done.stdout)]
    assert {float(args["tol"]) for args in solved} == {1e-9}
    converged = [e["args"] for e in events if e["name"] == "converged"]
    assert sum(int(args["iterations"]) for args in converged) == sum(
        row[2] for row in rows(done.stdout)
    )


def test_the_table_tells_where_the_time_went(recorded):
    lines = recorded[0].stderr.splitlines()
    assert ", 4 threads, " in lines[0]
    table = [line for line in lines if not line.startswith("vantrace: ")][1:]
    cells = [re.split(r"  +", line) for line in table]
    assert {"iteration", "__main__.conjugate_gradients"} < {name for name, *_ in cells}
    shares = [float(share) for _, _, _, _, share, *_ in cells]
    assert shares == sorted(shares, reverse=True)
