"""Recorded events as Python objects, and as a data frame."""

import gc
from collections import namedtuple

Event = namedtuple("Event", "name kind start duration thread context")
Event.__doc__ = """What was recorded; times in nanoseconds, starts on the clock of time.monotonic_ns().

The kind is "event", "unfinished" (open when it was read; its duration is None), "instant",
"counter" (whose context is its value) or "stop" (of an event that began before the recording)."""


def listed(recorder, name=None):
    """The events, by start; those of a name where one is given."""
    # A million new objects would have the collector look for garbage in them again and again.
    is_collecting = gc.isenabled()
    gc.disable()
    try:
        found = map(Event._make, recorder.events())
        return [event for event in found if name is None or event.name == name]
    finally:
        if is_collecting:
            gc.enable()


def data_frame(events):
    """One row an event; a column for each name of a context. Raises ImportError without pandas."""
    try:
        import pandas
    except ImportError as error:
        raise ImportError("to_pandas() needs pandas, which is not there", name="pandas") from error
    columns = dict(zip(Event._fields, zip(*events) if events else ((),) * len(Event._fields)))
    contexts = columns.pop("context")
    frame = pandas.DataFrame(columns).astype(_TYPES)
    for key in dict.fromkeys(key for context in contexts for key in context):
        values = [context.get(key) for context in contexts]
        frame[_free(key, frame.columns)] = pandas.Series(values, dtype=_type_of(values))
    return frame


_TYPES = {
    "name": "category",
    "kind": "category",
    "start": "int64",
    "duration": "Int64",
    "thread": "category",
}
_TYPES_OF_VALUES = {
    frozenset({int}): "Int64",
    frozenset({float}): "float64",
    frozenset({int, float}): "float64",
    frozenset({bool}): "boolean",
    frozenset({str}): "string",
}


def _type_of(values):
    """The narrowest type of a column that may have gaps."""
    kinds = frozenset(type(value) for value in values if value is not None)
    if int in kinds and any(type(value) is int and value >= 1 << 63 for value in values):
        return "object"
    return _TYPES_OF_VALUES.get(kinds, "object")


def _free(name, taken):
    """The name, with a number where a column has it already."""
    number, free = 2, name
    while free in taken:
        free, number = f"{name}_{number}", number + 1
    return free
