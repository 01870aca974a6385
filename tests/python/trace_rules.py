"""The rules that an exported trace keeps, checked from its text alone.

    violations = check_trace(text)                  # trace-event JSON, times since the origin
    violations = check_trace(text, utc=True)        # the same with absolute UTC times

Each returns a list of sentences, one a violation, empty for a good file. Nothing here knows how the
files are written: it reads the bytes as a viewer does, numbers as the text has them (for the rules
on decimals) and once more as doubles (for the rules on nesting).
"""

import json
import math
import re
import unicodedata
from collections import Counter, defaultdict
from decimal import Decimal

LARGEST_EXACT_INTEGER = 2**53

# What each phase has: members that it must have, then those it may have.
MEMBERS = {
    "M": ({"ph", "name", "pid", "tid", "args"}, set()),
    "X": ({"ph", "name", "cat", "pid", "tid", "ts", "dur"}, {"args"}),
    "i": ({"ph", "name", "cat", "pid", "tid", "ts", "s"}, {"args"}),
    "C": ({"ph", "name", "cat", "pid", "tid", "ts", "args"}, set()),
    "b": ({"ph", "name", "cat", "pid", "tid", "ts", "id"}, {"args"}),
    "e": ({"ph", "name", "cat", "pid", "tid", "ts", "id"}, {"args"}),
    "s": ({"ph", "name", "cat", "pid", "tid", "ts", "id"}, {"args"}),
    "f": ({"ph", "name", "cat", "pid", "tid", "ts", "id", "bp"}, {"args"}),
}
TRACK_METADATA = {"process_name", "process_sort_index", "thread_name", "thread_sort_index"}
REQUIRED_METADATA = {
    "the origin in monotonic nanoseconds": re.compile(r"origin.*monotonic|monotonic.*origin", re.I),
    "the origin in UTC nanoseconds": re.compile(r"origin.*utc|utc.*origin", re.I),
    "the clock": re.compile(r"clock", re.I),
    "what was dropped": re.compile(r"dropped", re.I),
    "a version": re.compile(r"version", re.I),
}


def check_trace(text, utc=False):
    """Returns what is wrong with a trace-event JSON file given as bytes or str."""
    violations = []
    document = _parse(text, violations)
    if document is None:
        return violations
    violations += _check_document(document)
    events = document.get("traceEvents")
    if not isinstance(events, list):
        return violations + ["traceEvents is not a list"]
    shaped = [event for event in events if _has_its_shape(event, violations)]
    if len(shaped) < len(events):
        return violations
    for check in (
        _check_metadata_events,
        _check_tracks,
        _check_texts,
        lambda all_events: _check_times(all_events, utc),
        _check_order,
        lambda all_events: _check_nesting(all_events, utc),
        _check_async_pairs,
        _check_flows,
        lambda all_events: _check_unfinished(all_events, utc),
    ):
        violations += check(shaped)
    return violations


def events_of(text):
    """The events of a trace-event JSON text, times as Decimal."""
    return _loads(text if isinstance(text, str) else text.decode("utf-8"))["traceEvents"]


# The document


def _loads(text):
    def refuse(word):
        raise ValueError(f"{word} is not JSON")

    def members(pairs):
        twice = [name for name, count in Counter(name for name, _ in pairs).items() if count > 1]
        if twice:
            raise ValueError(f"an object has the member {twice[0]!r} twice")
        return dict(pairs)

    def real(digits):
        # With an exponent, which only an argument may have, the decimals do not tell the precision.
        return float(digits) if "e" in digits.lower() else Decimal(digits)

    return json.loads(text, parse_float=real, parse_constant=refuse, object_pairs_hook=members)


def _parse(text, violations):
    if isinstance(text, bytes):
        try:
            text = text.decode("utf-8")
        except UnicodeDecodeError as error:
            violations.append(f"not UTF-8: {error}")
            return None
    if not text.startswith('{"'):
        violations.append(f'does not begin with {{" but with {text[:2]!r}')
        return None
    try:
        return _loads(text)
    except ValueError as error:
        violations.append(f"not JSON: {error}")
        return None


def _check_document(document):
    for name in document.keys() - {"displayTimeUnit", "metadata", "traceEvents"}:
        yield f"unknown member {name!r} beside the events"
    if document.get("displayTimeUnit") != "ns":
        yield f'displayTimeUnit is {document.get("displayTimeUnit")!r}, not "ns"'
    for path, value in _walk(document):
        if isinstance(value, str) and any("\ud800" <= c <= "\udfff" for c in value):
            yield f"{path} has a lone surrogate"
        if isinstance(value, int) and abs(value) > LARGEST_EXACT_INTEGER:
            yield f"{path} is the integer {value}, which a double does not hold"
    yield from _check_metadata(document.get("metadata"))


def _check_metadata(metadata):
    if not isinstance(metadata, dict):
        yield "metadata is missing"
        return
    for name, value in metadata.items():
        if not isinstance(value, str):
            yield f"metadata {name!r} is {value!r}, not a text"
    for meaning, pattern in REQUIRED_METADATA.items():
        found = [value for name, value in metadata.items() if pattern.search(name)]
        if not found:
            yield f"metadata does not tell {meaning}"
        elif "origin" in meaning and not re.fullmatch(r"-?\d+", str(found[0])):
            yield f"metadata tells {meaning} as {found[0]!r}"


def _walk(value, path="$"):
    """Every member name and value below, with its path."""
    yield path, value
    if isinstance(value, dict):
        for name, member in value.items():
            yield f"the name of {path}.{name!a}", name
            yield from _walk(member, f"{path}.{name}")
    elif isinstance(value, list):
        for i, member in enumerate(value):
            yield from _walk(member, f"{path}[{i}]")


def _has_its_shape(event, violations):
    if not isinstance(event, dict) or event.get("ph") not in MEMBERS:
        violations.append(f"{_describe(event)}: unknown phase")
        return False
    required, optional = MEMBERS[event["ph"]]
    faults = [f"has no {name}" for name in sorted(required - event.keys())]
    faults += [f"has {name}" for name in sorted(event.keys() - required - optional)]
    faults += [
        f"{name} is {event[name]!r}, not a text"
        for name in ("name", "cat", "id")
        if name in event and not isinstance(event[name], str)
    ]
    faults += [
        f"{name} is {event[name]!r}, not an integer"
        for name in ("pid", "tid")
        if name in event and type(event[name]) is not int
    ]
    faults += [
        f"{name} is {event[name]!r}, not a number"
        for name in ("ts", "dur")
        if name in event and type(event[name]) not in (int, float, Decimal)
    ]
    faults += [
        f"{name} has an exponent" for name in ("ts", "dur") if type(event.get(name)) is float
    ]
    if "args" in event and not (isinstance(event["args"], dict) and event["args"]):
        faults.append("has args with nothing in them")
    if event.get("cat") == "":
        faults.append("has an empty cat")
    if event["ph"] == "i" and event.get("s") != "t":
        faults.append("is an instant of more than its thread")
    if event["ph"] == "C" and not _is_counter_value(event.get("args")):
        faults.append("is a counter without one number as its value")
    if event["ph"] == "f" and event.get("bp") != "e":
        faults.append("does not bind to the event that encloses it")
    violations += [f"{_describe(event)}: {fault}" for fault in faults]
    return not faults


def _is_counter_value(args):
    return (
        isinstance(args, dict)
        and args.keys() == {"value"}
        and type(args["value"]) in (int, float, Decimal)
    )


def _describe(event):
    text = json.dumps(event, default=str)
    return text if len(text) <= 300 else text[:300] + "..."


# Tracks and texts


def _check_metadata_events(events):
    first_other = next((i for i, e in enumerate(events) if e["ph"] != "M"), len(events))
    for event in events[first_other:]:
        if event["ph"] == "M":
            yield f"{_describe(event)}: metadata event after other events"
    for event in events[:first_other]:
        if event["name"] not in TRACK_METADATA:
            yield f"{_describe(event)}: unknown metadata event"
            continue
        for name, value in event["args"].items():
            kind = int if name == "sort_index" else str
            if type(value) is not kind:
                yield f"{_describe(event)}: {name} is {value!r}, not {kind.__name__}"


def _check_tracks(events):
    processes = {event["pid"] for event in events}
    # A recording without events may tell its process, on a thread that has no name.
    is_empty = all(event["name"].startswith("process_") for event in events)
    threads = set() if is_empty else {(event["pid"], event["tid"]) for event in events}
    yield from _check_dense("pid", processes)
    yield from _check_dense("tid", {tid for _, tid in threads})
    for tid, count in Counter(tid for _, tid in threads).items():
        if count > 1:
            yield f"tid {tid} stands for {count} threads"
    said = Counter((e["name"], e["pid"], e["tid"]) for e in events if e["ph"] == "M")
    for (name, pid, tid), count in said.items():
        if count > 1:
            yield f"{name} of pid {pid}, tid {tid} is told {count} times"
    of_processes = {(name, pid) for name, pid, _ in said}
    for pid in sorted(processes):
        for name in ("process_name", "process_sort_index"):
            if (name, pid) not in of_processes:
                yield f"pid {pid} has no {name}"
    for pid, tid in sorted(threads):
        for name in ("thread_name", "thread_sort_index"):
            if (name, pid, tid) not in said:
                yield f"pid {pid}, tid {tid} has no {name}"


def _check_dense(kind, ids):
    if ids != set(range(1, len(ids) + 1)):
        yield f"{kind}s are {sorted(ids)}, not 1 to {len(ids)}"


def _check_texts(events):
    for event in events:
        names = [event["name"], event.get("cat", "x")]
        if event["name"] in ("process_name", "thread_name") and event["ph"] == "M":
            names.append(event["args"].get("name", ""))
        for name in names:
            if name == "":
                yield f"{_describe(event)}: empty name"
            for character in name:
                if unicodedata.category(character) == "Cc" or character in "\u2028\u2029":
                    yield f"{_describe(event)}: name with U+{ord(character):04X}"


# Times


def _check_times(events, utc):
    for event in events:
        for name in ("ts", "dur"):
            if name in event:
                yield from _check_time(event, name, utc)


def _check_time(event, name, utc):
    time = event[name]
    if not isinstance(time, Decimal) or time.as_tuple().exponent != -3:
        yield f"{_describe(event)}: {name} is not written with three decimals"
        return
    if name == "dur" and time <= 0:
        yield f"{_describe(event)}: complete event without a duration"
    if not utc and name == "ts" and time < 1:
        yield f"{_describe(event)}: ts is below 1"
    if utc and time % Decimal("0.25") != 0:
        yield f"{_describe(event)}: {name} is not a multiple of 0.25 us"
    if utc and Decimal(float(time)) != time:
        yield f"{_describe(event)}: {name} is not exact as a double"
    if utc and name == "ts" and time < 10**15:
        yield f"{_describe(event)}: ts is no time of this century"


def _check_order(events):
    complete = [event for event in events if event["ph"] == "X"]
    for before, after in zip(complete, complete[1:]):
        if after["ts"] < before["ts"]:
            yield f"{_describe(after)}: comes after the later {_describe(before)}"
    last_of_thread = {}
    for event in complete:
        before = last_of_thread.get(event["tid"])
        if before and before["ts"] == event["ts"] and before["dur"] < event["dur"]:
            yield f"{_describe(event)}: comes after the shorter {_describe(before)}"
        last_of_thread[event["tid"]] = event


def _check_nesting(events, utc):
    """Adds ts and dur as doubles, as viewers do: some as they are, some from the first event on."""
    by_thread = defaultdict(list)
    for event in events:
        if event["ph"] == "X":
            by_thread[event["tid"]].append(event)
    for complete in by_thread.values():
        origins = [0.0] if utc else [0.0, min(float(event["ts"]) for event in complete)]
        for origin in origins:
            yield from _check_thread_nesting(complete, origin)


def _check_thread_nesting(complete, origin):
    open_events = []
    for event in complete:
        start = float(event["ts"]) - origin
        end = start + float(event["dur"])
        while open_events and open_events[-1][0] <= start:
            outer_end, outer = open_events.pop()
            if outer_end == start:
                yield f"{_describe(event)}: starts on the end of {_describe(outer)}"
        if open_events:
            outer_end, outer = open_events[-1]
            if end == outer_end:
                yield f"{_describe(event)}: ends on the end of {_describe(outer)}"
            elif end > outer_end:
                yield f"{_describe(event)}: leaves {_describe(outer)}"
        open_events.append((end, event))


# Pairs and flows


def _check_async_pairs(events):
    yield from _check_pairs(events, "b", "e", "async")


def _check_flows(events):
    yield from _check_pairs(events, "s", "f", "flow")
    pairs = _pairs(events, "b", "e")
    handed_over = Counter(
        _ends(b, e) for b, e in pairs.values() if b and e and b["tid"] != e["tid"]
    )
    arrows = Counter(_ends(s, f) for s, f in _pairs(events, "s", "f").values() if s and f)
    for ends, count in arrows.items():
        if ends[1] == ends[3]:
            yield f"flow {ends}: stays on its thread"
        elif handed_over[ends] < count:
            yield f"flow {ends}: goes with no async pair"
    for ends, count in handed_over.items():
        if arrows[ends] < count:
            yield f"async pair {ends}: ends on another thread without a flow"


def _ends(first, last):
    return first["ts"], first["tid"], last["ts"], last["tid"]


def _pairs(events, first, last):
    pairs = defaultdict(lambda: [None, None])
    for event in events:
        if event["ph"] in (first, last):
            pairs[(event["cat"], event["name"], event["id"])][event["ph"] == last] = event
    return pairs


def _check_pairs(events, first, last, kind):
    open_pairs = {}
    used = set()
    for event in events:
        if event["ph"] not in (first, last):
            continue
        key = event["cat"], event["id"]
        if not re.fullmatch(r"0x[0-9a-f]+", event["id"]):
            yield f"{_describe(event)}: id is not a hexadecimal text"
        if event["ph"] == first:
            if key in used:
                yield f"{_describe(event)}: {kind} id is used twice"
            used.add(key)
            open_pairs[key] = event
            continue
        begin = open_pairs.pop(key, None)
        if begin is None:
            yield f"{_describe(event)}: {kind} end without a begin before it"
        elif begin["name"] != event["name"]:
            yield f'{_describe(event)}: {kind} begin has the name {begin["name"]!r}'
        elif event["ts"] < begin["ts"]:
            yield f"{_describe(event)}: {kind} end is earlier than its begin"
    for event in open_pairs.values():
        yield f"{_describe(event)}: {kind} begin without an end"


def _check_unfinished(events, utc):
    """An event without a stop is closed at the trace's last time, less what nesting takes off."""
    last = max((_end(event) for event in events if "ts" in event), default=0)
    unfinished = [e for e in events if "unfinished" in e.get("args", {}) and e["ph"] == "X"]
    step = Decimal("0.25") if utc else Decimal("0.001")
    # The sum of two doubles of this size may be off by so much, which each level has to keep free.
    step += Decimal(8 * math.ulp(float(last)))
    for event in unfinished:
        if _end(event) < last - len(unfinished) * step:
            yield f"{_describe(event)}: unfinished, but ends before the last time of the trace"


def _end(event):
    return event["ts"] + event.get("dur", 0)
