"""Exports to `.prof`, as the standard library's pstats reads them."""

import io
import pstats

import pytest

import vantrace
from conftest import run_python
from vantrace._pstats import statistics_of


def key(name):
    return ("~", 0, name)


def test_calls_times_and_callers_come_from_the_stacks():
    stacks = [
        (-1, "main", 0, 0),
        (0, "solve", 2, 1_000_000_000),
        (1, "step", 10, 3_000_000_000),
        (0, "step", 1, 500_000_000),
    ]
    assert statistics_of(stacks) == {
        key("solve"): (2, 2, 1.0, 4.0, {}),
        key("step"): (11, 11, 3.5, 3.5, {key("solve"): (10, 10, 3.0, 3.0)}),
    }


def test_recursion_counts_once_in_the_total():
    stacks = [(-1, "main", 0, 0), (0, "f", 1, 10), (1, "g", 1, 20), (2, "f", 1, 30), (3, "g", 2, 40)]
    found = statistics_of(stacks)
    assert found[key("f")] == (1, 2, 40 / 1e9, 100 / 1e9, {key("g"): (1, 1, 30 / 1e9, 70 / 1e9)})
    assert found[key("g")] == (1, 3, 60 / 1e9, 90 / 1e9, {key("f"): (1, 3, 60 / 1e9, 90 / 1e9)})


def test_a_thread_of_an_event_s_name_is_no_caller():
    stacks = [(-1, "f", 0, 0), (0, "f", 1, 10)]
    assert statistics_of(stacks) == {key("f"): (1, 1, 10 / 1e9, 10 / 1e9, {})}


@pytest.fixture(name="profile")
def fixture_profile(tmp_path):
    """What pstats reads of an export, and the recording that it is of."""
    with vantrace.record(tmp_path / "own.vtrace") as recording:
        for number in range(20):
            with vantrace.event("outer"):
                for _ in range(number):
                    with vantrace.event("inner"):
                        pass
    done = run_python("-m", "vantrace", "export", "own.vtrace", "-o", "own.prof", cwd=tmp_path)
    assert (done.returncode, done.stderr) == (0, "")
    text = io.StringIO()
    return pstats.Stats(str(tmp_path / "own.prof"), stream=text), text, recording


def test_pstats_has_what_the_recording_tells(profile):
    stats, _, recording = profile
    for row in recording.summary():
        primitive, calls, own, total, _ = stats.stats[key(row.name)]
        assert (primitive, calls) == (row.count, row.count)
        assert own == pytest.approx(row.self / 1e9, abs=1e-12)
        assert total == pytest.approx(row.total / 1e9, abs=1e-12)
    assert stats.total_tt == pytest.approx(sum(row.self for row in recording.summary()) / 1e9)


def test_pstats_sorts_prints_and_adds_it(profile, tmp_path):
    stats, text, _ = profile
    stats.add(str(tmp_path / "own.prof"))
    stats.sort_stats("cumulative").print_stats()
    stats.print_callers("inner")
    assert "420 function calls in" in text.getvalue()
    assert "inner  <-     380    0.000    0.000  outer" in text.getvalue()


def test_very_deep_stacks_are_no_recursion_of_ours():
    depth = 100_000
    stacks = [(-1, "main", 0, 0), *((i, "f", 1, 1) for i in range(depth))]
    assert statistics_of(stacks)[key("f")][:2] == (1, depth)
