"""Random recordings with chosen times (ties, overlap, reversed stops, long gaps) keep the rules of exports."""

import json
import math
import os
import subprocess
from collections import Counter
from pathlib import Path

from hypothesis import HealthCheck, example, given, settings
from hypothesis import strategies as st

from recording_texts import as_frame, names, shown, texts
from stack_rules import check_collapsed
from trace_rules import check_trace, events_of

ROOT = Path(__file__).resolve().parents[2]
REPLAY = Path(os.environ.get("VANTRACE_BUILD", ROOT / "build/release")) / "tests/replay_events"
DAY = 86_400 * 10**9

# Near the ends of a double's precision, two times that differ may add to the same sum.
late = st.integers(0, 12).map(lambda time: 99 * DAY + time)

# An event of the script: source, start, duration (None: never stopped), name, context, and in which
# order its ends are delivered among others of the same time.
events = st.tuples(
    st.integers(0, 2),
    st.integers(0, 12) | st.integers(0, 10**6) | st.sampled_from([DAY, DAY + 1]) | late,
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
    """What an export shows as lasting: (tid, name, unfinished, start, duration) in nanoseconds."""
    exported = events_of(text)
    ends = {(e["cat"], e["id"]): e["ts"] for e in exported if e["ph"] == "e"}
    for event in exported:
        args = event.get("args", {})
        if event["ph"] == "X":
            duration = event["dur"] * 1000
        elif event["ph"] == "b":
            duration = (ends[event["cat"], event["id"]] - event["ts"]) * 1000
        elif event["ph"] == "i" and "duration_ns" in args:
            duration = args["duration_ns"]
        else:
            continue
        start = int(event["ts"] * 1000)
        yield event["tid"], event["name"], "unfinished" in args, start, int(duration)


def check_shown(text, made, ticks, utc=False):
    """Each event that does not end before it starts is shown once, with its name, start and end."""
    used = sorted({source for source, *_ in [*made, *ticks]})
    first = min((start for _, start, *_ in [*made, *ticks]), default=0)
    last = last_time(made, ticks)
    origin = int(json.loads(text)["metadata"]["origin_utc_ns"]) if utc else 1000
    grid = 250 if utc else 1
    expected = sorted(
        (used.index(source) + 1, shown(name), end is None,
         (origin + start - first) // grid * grid, (last if end is None else end) - start)
        for source, name, start, end in kept(made)
    )
    found = sorted(shown_events(text))
    assert [event[:4] for event in found] == [event[:4] for event in expected]
    # Ends are drawn inward where they meet others: by a step of the grid, or where a double's sum
    # is coarser, by that.
    step = grid + 8 * math.ulp((last - first) / 1000) * 1000
    for (*_, real), (*_, drawn) in zip(expected, found):
        assert real - (len(made) + utc) * step <= drawn < real + grid


def check_exact_times(text, made, ticks):
    """Events that the coarse grid has no room for tell their times to the nanosecond."""
    first = min((start for _, start, *_ in [*made, *ticks]), default=0)
    last = last_time(made, ticks)
    origin = int(json.loads(text)["metadata"]["origin_utc_ns"]) - first
    exact = Counter(
        (str(origin + start), (last if end is None else end) - start)
        for _, _, start, end in kept(made)
    )
    told = Counter(
        (event["args"]["start_ns"], event["args"]["duration_ns"])
        for event in events_of(text)
        if event["ph"] == "i" and "duration_ns" in event.get("args", {})
    )
    assert told <= exact


def check_filtered(text, made, minimum):
    """Only what lasts long enough is shown, no instant that was one, and what is left out counted."""
    durations = [event[2] for event in made]
    negative = [d for d in durations if d is not None and d < 0]
    short = [d for d in durations if d is not None and 0 <= d < minimum]
    left_out = json.loads(text)["metadata"]
    assert left_out["left_out_negative_duration"] == str(len(negative))
    finished = [event for event in shown_events(text) if not event[2]]
    assert len(finished) == len(durations) - durations.count(None) - len(negative) - len(short)
    assert all(event["cat"] == "event" for event in events_of(text) if event["ph"] == "i")


def kept(made):
    """The events that do not end before they start: (source, name, start, end or None)."""
    for source, start, duration, name, *_ in made:
        if duration is None or duration >= 0:
            yield source, name, start, None if duration is None else start + duration


def last_time(made, ticks):
    ends = [start + (duration or 0) for _, start, duration, *_ in made]
    return max([*ends, *(event[1] for event in [*made, *ticks])], default=0)


def expected_stacks(made, ticks, of_sources):
    """Self times by looking at each stretch of time for the last event to start among those open."""
    last = last_time(made, ticks)
    times = {}
    inner = set()
    for source, thread in enumerate(of_sources):
        own = [
            (start, -math.inf if end is None else -end, i, name, last if end is None else end)
            for i, (where, name, start, end) in enumerate(kept(made))
            if where == source
        ]
        own.sort(key=lambda event: event[:3])
        paths = []
        for i, (start, *_, name, _) in enumerate(own):
            around = [j for j in range(i) if own[j][0] <= start < own[j][-1]]
            path = (*(paths[around[-1]] if around else (thread,)), name)
            inner.add((source, path[:-1]))
            paths.append(path)
            times.setdefault((source, path), 0)
        edges = sorted({time for event in own for time in (event[0], event[-1])})
        for begin, end in zip(edges, edges[1:]):
            around = [i for i, event in enumerate(own) if event[0] <= begin and end <= event[-1]]
            if around:
                times[source, paths[around[-1]]] += end - begin
    sums = Counter()
    for (source, path), time in times.items():
        if time > 0 or (source, path) not in inner:
            sums[";".join(map(as_frame, path))] += time
    return sorted((f"{stack} {max(time, 1)}" for stack, time in sums.items()), key=str.encode)


def plain(name, start, duration):
    return 0, start, duration, name, {}, (0, 0)


@given(scripts, st.lists(instants, max_size=4), sources, origins)
@example([plain("a", 0, 20), plain("a 1", 30, 10)], [], ["", "", ""], DAY)  # "a 20" after "a 1 10"
@example(  # as doubles since the origin the inner one would end with the outer one
    [plain("a", 99 * DAY + 3183, 8), plain("a", 99 * DAY + 3188, 3)],
    [(1, 0, "tick")],
    ["", "", ""],
    DAY,
)
@settings(max_examples=150, deadline=None, derandomize=True, suppress_health_check=list(HealthCheck))
def test_exports_keep_the_rules(tmp_path_factory, made, ticks, of_sources, origin):
    folder = tmp_path_factory.mktemp("replay")
    written = replay(folder, script_of(made, ticks, of_sources, origin), minimum=5)

    assert check_trace(written["monotonic.json"]) == []
    assert check_trace(written["utc.json"], utc=True) == []
    assert check_trace(written["filtered.json"]) == []
    assert check_collapsed(written["stacks.txt"]) == []

    check_shown(written["monotonic.json"].decode(), made, ticks)
    check_shown(written["utc.json"].decode(), made, ticks, utc=True)
    check_exact_times(written["utc.json"].decode(), made, ticks)
    check_filtered(written["filtered.json"].decode(), made, minimum=5)
    stacks = written["stacks.txt"].decode().split("\n")[:-1]
    assert stacks == expected_stacks(made, ticks, of_sources)
    rows = [list(map(int, line.split())) for line in written["events.txt"].splitlines()]
    assert sorted(rows) == sorted(
        [source + 1, serial, origin + start, origin + start + duration]
        for serial, (source, start, duration, *_) in enumerate(made, 1)
        if duration is not None
    )
