"""Random recordings with chosen times (ties, overlap, reversed stops, long gaps) keep the rules of exports."""

import json
import os
import subprocess
from collections import Counter
from pathlib import Path

from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

from recording_texts import names, stands_for, texts
from stack_rules import check_collapsed
from trace_rules import check_trace, events_of

ROOT = Path(__file__).resolve().parents[2]
REPLAY = Path(os.environ.get("VANTRACE_BUILD", ROOT / "build/release")) / "tests/replay_events"
DAY = 86_400 * 10**9

# An event of the script: source, start, duration (None: never stopped), name, context, and in which
# order its ends are delivered among others of the same time.
events = st.tuples(
    st.integers(0, 2),
    st.integers(0, 12) | st.integers(0, 10**6) | st.sampled_from([DAY, DAY + 1, 99 * DAY]),
    st.none() | st.integers(-3, 8) | st.integers(0, 10**6) | st.sampled_from([DAY, 99 * DAY]),
    names,
    st.dictionaries(texts.filter(bool), texts, max_size=2),
    st.tuples(st.integers(0, 3), st.integers(0, 3)),
)
instants = st.tuples(st.integers(0, 2), st.integers(0, 12) | st.integers(0, 10**6), names)
scripts = st.lists(events, max_size=12)
origins = st.sampled_from([10**9, 81_234_567_890_123, 30 * DAY])
sources = st.lists(names, min_size=3, max_size=3)


def hexadecimal(text):
    return text.encode().hex()


def script_of(made, ticks, of_sources, origin):
    """The lines of a script, in the order of their times; a reversed stop follows its start."""
    lines = [("source", hexadecimal("client"), hexadecimal(name)) for name in of_sources]
    edges = []
    for serial, (source, start, duration, name, context, (first, last)) in enumerate(made, 1):
        flat = [hexadecimal(text) for pair in context.items() for text in pair]
        times = [start] if duration is None else [start, start + duration]
        for kind, time, order in zip(("start", "stop"), times, (first, last)):
            turn = (max(time, start), kind == "stop" and time <= start, order, serial)
            fields = (kind, source + 1, serial, origin + time, hexadecimal(name), *flat)
            edges.append((turn, fields))
    for serial, (source, time, name) in enumerate(ticks, len(made) + 1):
        fields = ("instant", source + 1, serial, origin + time, hexadecimal(name))
        edges.append(((time, False, 0, serial), fields))
    lines += [fields for _, fields in sorted(edges, key=lambda edge: edge[0])]
    return "".join("\t".join(map(str, fields)) + "\n" for fields in lines)


def replay(folder, script, minimum=-1):
    done = subprocess.run(
        [REPLAY, folder, str(minimum)], input=script, capture_output=True, text=True, check=False
    )
    assert done.returncode == 0, done.stderr
    return {path.name: path.read_bytes() for path in Path(folder).iterdir()}


def shown_events(text):
    """What an export shows as lasting: (tid, start, duration, name, unfinished), microseconds."""
    exported = events_of(text)
    ends = {(e["cat"], e["id"]): e["ts"] for e in exported if e["ph"] == "e"}
    for event in exported:
        args = event.get("args", {})
        if event["ph"] == "X":
            duration = event["dur"]
        elif event["ph"] == "b":
            duration = ends[event["cat"], event["id"]] - event["ts"]
        elif event["ph"] == "i" and "duration_ns" in args:
            duration = int(args["duration_ns"]) / 1000
        else:
            continue
        yield event["tid"], event["ts"], duration, event["name"], "unfinished" in args


def check_against_script(text, made, ticks):
    """Each event that does not end before it starts is shown once, with its name, start and end."""
    used = sorted({source for source, *_ in [*made, *ticks]})
    kept = [event for event in made if event[2] is None or event[2] >= 0]
    shown = sorted(shown_events(text), key=lambda event: event[:2])
    assert len(shown) == len(kept)
    begin = min(start for _, start, *_ in [*made, *ticks]) if kept else 0
    for source, start, duration, name, *_ in kept:
        match = next(
            entry
            for entry in shown
            if entry[0] == used.index(source) + 1
            and round(entry[1] * 1000) - 1000 == start - begin
            and entry[4] == (duration is None)
            and (duration is None or -len(made) <= round(entry[2] * 1000) - duration <= 1)
            and stands_for(entry[3], name)
        )
        shown.remove(match)


@given(scripts, st.lists(instants, max_size=4), sources, origins)
@settings(max_examples=150, deadline=None, derandomize=True, suppress_health_check=list(HealthCheck))
def test_exports_keep_the_rules(tmp_path_factory, made, ticks, of_sources, origin):
    folder = tmp_path_factory.mktemp("replay")
    written = replay(folder, script_of(made, ticks, of_sources, origin), minimum=5)

    assert check_trace(written["monotonic.json"]) == []
    assert check_trace(written["utc.json"], utc=True) == []
    assert check_trace(written["filtered.json"]) == []
    assert check_collapsed(written["stacks.txt"]) == []

    check_against_script(written["monotonic.json"], made, ticks)
    rows = [list(map(int, line.split())) for line in written["events.txt"].splitlines()]
    assert sorted(rows) == sorted(
        [source + 1, serial, origin + start, origin + start + duration]
        for serial, (source, start, duration, *_) in enumerate(made, 1)
        if duration is not None
    )
