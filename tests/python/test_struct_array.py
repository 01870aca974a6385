"""Struct arrays of the host as tables."""

import gc
import html.parser

import numpy as np
import pandas
import pytest

import vantrace
from vantrace import StructArray, _core, performance

pytestmark = pytest.mark.usefixtures("no_leaks")

instruments = performance.instrument.instruments


@pytest.fixture(name="events")
def fixture_events(recorder):
    """Four events: a, b, a, c; the a with context."""
    for name, context in (("a", {"n": 1}), ("b", {}), ("a", {"n": 2, "m": "cg"}), ("c", {})):
        with vantrace.event(name, **context):
            pass
    recorder.stop()
    return recorder.getAllEvents()


def test_shape_and_fields(events):
    assert events.shape == (1, 4)
    assert events.fields == (
        "display",
        "name",
        "context",
        "source_name",
        "start_time_point",
        "stop_time_point",
        "duration",
    )
    assert len(events) == 4
    assert events.keys() == list(events.fields)


def test_numeric_columns_are_arrays_of_doubles(events):
    durations = events["duration"]
    assert durations.dtype == np.float64
    assert durations.shape == (4,)
    assert (durations > 0).all()
    difference = events["stop_time_point"] - events["start_time_point"]
    assert difference == pytest.approx(durations, abs=1e-6)


def test_unsigned_columns(recorder):
    identity = instruments.startEvent("x", [])
    assert identity["sourceId"].dtype == np.uint64
    assert identity["serialId"].tolist() == [identity[0]["serialId"]]


def test_text_columns_are_objects(events):
    assert events["name"].dtype == object
    assert events["name"].tolist() == ["a", "b", "a", "c"]
    assert events["name"][0] is events["name"][2]
    assert events["display"].tolist() == ["a [n=1]", "b", "a [m=cg, n=2]", "c"]


def test_struct_columns_are_struct_arrays(events):
    contexts = events["context"]
    assert [type(context) for context in contexts] == [StructArray] * 4
    assert [context.shape for context in contexts] == [(1, 1), (0, 0), (1, 1), (0, 0)]
    assert contexts[2].fields == ("m", "n")
    assert contexts[2][0] == {"m": "cg", "n": "2"}
    assert contexts[1].fields == ()


def test_columns_are_made_once_and_read_only(events):
    for field in events.fields:
        assert events[field] is events[field]
        with pytest.raises(ValueError, match="read-only"):
            events[field][0] = events[field][1]


def test_unknown_fields(events):
    with pytest.raises(KeyError, match="nothing"):
        events["nothing"]
    with pytest.raises(KeyError):
        events["\ud800"]


def test_elements_are_dicts(events):
    assert list(events[0]) == list(events.fields)
    assert events[0]["name"] == "a"
    assert events[-1]["name"] == "c"
    assert events[-4]["duration"] == events["duration"][0]
    assert events[np.int64(1)]["name"] == "b"


@pytest.mark.parametrize("index", [4, -5, 10**30])
def test_elements_out_of_range(events, index):
    with pytest.raises(IndexError):
        events[index]


@pytest.mark.parametrize("index", [1.0, None, (0, 1), b"name"])
def test_what_is_no_index(events, index):
    with pytest.raises(TypeError):
        events[index]


def test_iteration_gives_elements(events):
    assert [event["name"] for event in events] == ["a", "b", "a", "c"]
    assert [event["name"] for event in reversed(events)] == ["c", "a", "b", "a"]


@pytest.mark.parametrize(
    "part",
    [
        slice(1, 3),
        slice(None),
        slice(None, None, 2),
        slice(None, None, -1),
        slice(-2, None),
        slice(3, 0, -2),
        slice(5, 9),
        slice(2, 1),
    ],
)
def test_parts(events, part):
    names = events["name"].tolist()
    taken = events[part]
    assert type(taken) is StructArray
    assert taken.fields == events.fields
    assert len(taken) == len(names[part])
    assert [event["name"] for event in taken] == names[part]
    assert taken["duration"].tolist() == events["duration"].tolist()[part]


def test_parts_of_parts(events):
    assert events[1:][::-1][:2]["name"].tolist() == ["c", "a"]
    assert events[1:3].shape == (1, 2)


def test_an_empty_array_keeps_its_fields(recorder):
    empty = recorder.getAllEvents()
    assert empty.shape == (1, 0)
    assert len(empty) == 0
    assert list(empty) == []
    assert empty.fields[0] == "display"
    assert empty["duration"].shape == (0,)
    assert repr(empty).startswith("StructArray 1x0: display, name, ")


def test_a_part_outlives_its_array(recorder):
    def context_alone():
        with vantrace.event("kept", key="value"):
            pass
        return recorder.getAllEvents()["context"][0]

    before = _core.live_array_count()
    context = context_alone()
    gc.collect()
    assert context[0] == {"key": "value"}
    assert _core.live_array_count() > before
    del context
    gc.collect()
    assert _core.live_array_count() == before


def test_arrays_are_destroyed_with_their_last_object(recorder):
    with vantrace.event("x"):
        pass
    before = _core.live_array_count()
    array = recorder.getAllEvents()
    column = array["duration"]
    names = array["name"]
    assert _core.live_array_count() > before
    del array
    gc.collect()
    assert _core.live_array_count() == before
    assert len(column) == len(names) == 1


def test_struct_arrays_come_from_the_host_only():
    with pytest.raises(TypeError):
        StructArray()


def test_repr_is_a_small_table(events):
    lines = repr(events["context"][2]).splitlines()
    assert lines == ["StructArray 1x1", "m   n", "cg  2"]
    stats = performance.instrument.recorder.getAllEventStats()
    head, names, *rows = repr(stats).splitlines()
    assert head == "StructArray 1x3"
    assert names.split() == ["name", "count", "duration"]
    assert [row.split()[0] for row in rows] == ["a", "b", "c"]
    assert len({len(line) for line in (names, *rows)}) == 1


def test_repr_of_a_long_array_shows_head_and_tail(recorder):
    for number in range(100):
        with vantrace.event(f"e{number:03}"):
            pass
    text = repr(recorder.getAllEventStats())
    assert len(text.splitlines()) == 13
    shown = [line.split()[0] for line in text.splitlines()[2:]]
    assert shown == ["e000", "e001", "e002", "e003", "e004", "..."] + [
        "e095",
        "e096",
        "e097",
        "e098",
        "e099",
    ]


def test_repr_shortens_and_replaces(recorder):
    with vantrace.event("x" * 100 + "\n"):
        pass
    with vantrace.event("line\nend\x1b[31m"):
        pass
    text = repr(recorder.getAllEventStats())
    assert len(text.splitlines()) == 4
    assert "\x1b" not in text
    assert max(map(len, text.splitlines())) < 80


class Cells(html.parser.HTMLParser):
    """The texts of the cells of a table, and its tags."""

    def __init__(self, text):
        super().__init__()
        self.tags, self.cells = [], []
        self.feed(text)

    def handle_starttag(self, tag, attrs):
        self.tags.append(tag)

    def handle_data(self, data):
        self.cells.append(data)


def test_html_is_a_table_and_escaped(recorder):
    with vantrace.event("<script>&", **{"<b>": "\"'>"}):
        pass
    table = Cells(recorder.getAllEvents()._repr_html_())
    assert table.tags.count("td") == len(recorder.getAllEvents().fields)
    assert "script" not in table.tags
    assert "b" not in table.tags
    assert "<script>&" in table.cells
    assert "<b>=\"'>" in table.cells


def test_to_pandas(events):
    frame = events.to_pandas()
    assert type(frame) is pandas.DataFrame
    assert list(frame.columns) == list(events.fields)
    assert frame["duration"].dtype == np.float64
    assert frame["name"].tolist() == ["a", "b", "a", "c"]
    frame.loc[0, "duration"] = -1.0
    assert events["duration"][0] > 0


def test_to_pandas_of_an_empty_array(recorder):
    assert list(recorder.getAllEventStats().to_pandas().columns) == ["name", "count", "duration"]


def test_a_million_events(recorder):
    event = vantrace.event("many")
    for _ in range(1_000_000):
        with event:
            pass
    recorder.stop()
    events = recorder.getEvents("many")
    gc.collect()
    objects = len(gc.get_objects())
    assert events.shape == (1, 1_000_000)
    starts = events["start_time_point"]
    assert starts.dtype == np.float64
    assert (np.diff(starts) >= 0).all()
    assert events["duration"].sum() > 0
    assert len(set(events["name"])) == 1
    assert events["name"][0] is events["name"][-1]
    assert len(gc.get_objects()) - objects < 1000
    assert events[-1]["start_time_point"] == starts[-1]
    assert "..." in repr(events)
