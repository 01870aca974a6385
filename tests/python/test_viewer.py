"""Exports load in a real viewer, which finds the threads, events and times of the recording."""

import json
import subprocess
import sys
from collections import defaultdict
from pathlib import Path

import pytest

import vantrace
from recording_texts import ODD_TEXTS, as_frame, shown
from test_trace_rules import GOOD
from vantrace import performance

pytestmark = pytest.mark.unsanitized

ROOT = Path(__file__).resolve().parents[2]
LOADER = ROOT / "tests/viewer/load_trace.mjs"

# Records the example in this process, and keeps the exports and what the recorder itself tells.
RECORD_EXAMPLE = """
import json, runpy, sys
from vantrace import performance
recorder = performance.instrument.recorder
folder, script = sys.argv[1:3]
sys.argv = sys.argv[2:]
recorder.start()
runpy.run_path(script, run_name="__main__")
recorder.stop()
events = recorder.getAllEvents()
columns = ("name", "source_name", "start_time_point", "stop_time_point")
rows = list(zip(*(list(events[column]) for column in columns)))
stacks = recorder.getAllEventsCollapsedStacks()
with open(folder + "/trace.json", "w", encoding="utf-8") as file:
    file.write(recorder.getAllCompleteEventsTraceEventJson())
with open(folder + "/trace-utc.json", "w", encoding="utf-8") as file:
    file.write(recorder.getAllCompleteEventsTraceEventJsonWithUTC())
with open(folder + "/stacks.txt", "w", encoding="utf-8") as file:
    file.writelines(stack + "\\n" for stack in stacks)
with open(folder + "/events.json", "w", encoding="utf-8") as file:
    json.dump([[n, s, float(b), float(e)] for n, s, b, e in rows], file)
"""


def ask_viewer(*files):
    """What the viewer holds of each file; see tests/viewer/viewer.mjs for the members."""
    done = subprocess.run(
        ["node", LOADER, *files], capture_output=True, text=True, timeout=300, check=False
    )
    assert done.returncode == 0, f"{done.stderr}\n(./dev setup installs the viewer and its browser)"
    return [json.loads(line) for line in done.stdout.splitlines()]


def view(folder, text, name="trace.json"):
    file = folder / name
    file.write_text(text, encoding="utf-8")
    return ask_viewer(file)[0]


def frame_name(shown):
    """The viewer appends an event's arguments to its name."""
    return shown.split(" {", 1)[0]


def test_the_viewer_reads_threads_events_and_times(tmp_path):
    held = view(tmp_path, GOOD)
    assert held["format"] == "Trace Event Format profile"
    assert held["warnings"] == []
    assert "MainThread (tid 1)" in held["shown"]
    totals = {
        profile["name"]: {frame["name"]: frame["total"] for frame in profile["frames"]}
        for profile in held["profiles"]
    }
    assert totals == {
        "python3 (pid 1), MainThread (tid 1)": {
            'solve {"n":"3"}': pytest.approx(100),
            "first": pytest.approx(49.999),
            "(unnamed)": pytest.approx(49.999),
        },
        "python3 (pid 1), worker (tid 2)": {'open {"unfinished":true}': pytest.approx(11)},
    }


def test_the_viewer_tells_of_events_that_do_not_nest(tmp_path):
    held = view(tmp_path, GOOD.replace('"ts":51.000,"dur":49.999', '"ts":51.000,"dur":60.000'))
    assert any("was on the top of the stack" in warning for warning in held["warnings"])


def test_the_viewer_refuses_what_is_no_trace(tmp_path):
    file = tmp_path / "trace.json"
    file.write_text("no trace at all\n")
    done = subprocess.run(["node", LOADER, file], capture_output=True, text=True, check=False)
    assert done.returncode == 1
    assert "Unrecognized format" in json.loads(done.stdout)["said"][0]


def test_an_event_of_any_name_opens(tmp_path):
    recorder = performance.instrument.recorder
    recorder.clearAllEventData()
    recorder.start()
    for name in ODD_TEXTS:
        with vantrace.event(name):
            pass
    recorder.stop()
    (tmp_path / "trace.json").write_text(
        recorder.getAllCompleteEventsTraceEventJson(), encoding="utf-8"
    )
    stacks = recorder.getAllEventsCollapsedStacks()
    (tmp_path / "stacks.txt").write_text("".join(f"{s}\n" for s in stacks), encoding="utf-8")
    recorder.clearAllEventData()

    trace, collapsed = ask_viewer(tmp_path / "trace.json", tmp_path / "stacks.txt")
    [profile] = trace["profiles"]
    assert {frame["name"] for frame in profile["frames"]} == set(map(shown, ODD_TEXTS))
    [profile] = collapsed["profiles"]
    frames = {frame["name"] for frame in profile["frames"]}
    assert frames == {"MainThread", *map(as_frame, ODD_TEXTS)}


@pytest.fixture(scope="module")
def example(tmp_path_factory):
    """The shipped example, recorded: the exports' files and the recorder's events."""
    folder = tmp_path_factory.mktemp("example")
    subprocess.run(
        [sys.executable, "-c", RECORD_EXAMPLE, folder, ROOT / "examples/heat.py"],
        check=True,
        stdout=subprocess.DEVNULL,
    )
    events = json.loads((folder / "events.json").read_text(encoding="utf-8"))
    return folder, events


@pytest.fixture(scope="module")
def seen(example):
    folder, _ = example
    names = ("trace.json", "trace-utc.json", "stacks.txt")
    return dict(zip(names, ask_viewer(*(folder / name for name in names))))


def outermost_totals(events):
    """Nanoseconds by thread and name, an event inside one of its own name counted once."""
    totals = defaultdict(int)
    counted_to = {}
    for name, thread, start, stop in sorted(events, key=lambda event: (event[2], -event[3])):
        begin = max(start, counted_to.get((thread, name), 0))
        if stop > begin:
            totals[thread, name] += round((stop - begin) * 1e9)
            counted_to[thread, name] = stop
    return totals


@pytest.mark.parametrize("file", ["trace.json", "trace-utc.json"])
def test_the_example_s_timeline_opens(example, seen, file):
    _, events = example
    held = seen[file]
    assert held["format"] == "Trace Event Format profile"
    assert held["warnings"] == []

    totals = defaultdict(float)
    counts = defaultdict(int)
    for profile in held["profiles"]:
        assert profile["unit"] == "microseconds"
        thread = profile["name"].split("), ", 1)[1].rsplit(" (tid", 1)[0]
        for frame in profile["frames"]:
            totals[thread, frame_name(frame["name"])] += frame["total"]
            counts[thread, frame_name(frame["name"])] += frame["count"]

    expected = outermost_totals(events)
    assert totals.keys() == expected.keys()
    for key, nanoseconds in expected.items():
        count = sum(key == (thread, name) for name, thread, *_ in events)
        assert counts[key] == count
        # Ends are drawn inward: by nanoseconds, in UTC by steps of 250 ns.
        step = 0.001 if file == "trace.json" else 0.5
        assert totals[key] == pytest.approx(nanoseconds / 1000, abs=step * (count + 3))


def test_the_example_s_stacks_open(example, seen):
    _, events = example
    held = seen["stacks.txt"]
    assert held["format"] == "collapsed stack format"
    [profile] = held["profiles"]
    totals = {frame["name"]: frame["total"] for frame in profile["frames"]}

    by_name = defaultdict(int)
    for (thread, name), nanoseconds in outermost_totals(events).items():
        by_name[name] += nanoseconds
    threads = {thread for _, thread, *_ in events}
    assert totals.keys() == threads | by_name.keys()
    for name, nanoseconds in by_name.items():
        assert totals[name] == pytest.approx(nanoseconds, abs=len(events))
    covered = sum(covered_time(events, thread) for thread in threads)
    assert profile["total"] == pytest.approx(covered, abs=len(events))


def covered_time(events, thread):
    """Nanoseconds in which the thread was inside at least one event."""
    return sum(outermost_totals((("", t, b, e) for _, t, b, e in events if t == thread)).values())


def test_the_command_line_s_trace_opens(tmp_path):
    trace = tmp_path / "trace.json"
    subprocess.run(
        [sys.executable, "-m", "vantrace", "run", "-o", trace, ROOT / "examples/heat.py"],
        check=True,
        capture_output=True,
    )
    held = ask_viewer(trace)[0]
    assert held["warnings"] == []
    assert any("MainThread" in profile["name"] for profile in held["profiles"])
