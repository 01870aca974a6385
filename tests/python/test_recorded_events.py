"""What a recording holds, read in Python: events, statistics, data frames."""

import subprocess
import sys
import threading
import time

import pandas
import pytest

import vantrace


def emit(name="x", **context):
    with vantrace.event(name, **context):
        pass


def test_events_come_by_start_with_what_was_recorded():
    before = time.monotonic_ns()
    with vantrace.record() as recording:
        with vantrace.event("outer", n=3, exact=True, tol=1e-6, method="cg"):
            emit("inner")
        vantrace.instant("done", steps=2**64 - 1)
    after = time.monotonic_ns()
    outer, inner, done = recording.events()
    assert (outer.name, outer.kind, outer.thread) == ("outer", "event", "MainThread")
    assert outer.context == {"n": 3, "exact": True, "tol": 1e-6, "method": "cg"}
    assert [type(outer.context[key]) for key in ("n", "exact", "tol")] == [int, bool, float]
    assert (inner.name, inner.context) == ("inner", {})
    assert (done.kind, done.duration, done.context) == ("instant", 0, {"steps": 2**64 - 1})
    assert before <= outer.start <= inner.start
    assert inner.start + inner.duration <= outer.start + outer.duration <= done.start <= after


def test_events_of_one_name():
    with vantrace.record() as recording:
        for n in range(3):
            emit("a", n=n)
            emit("b")
    assert [event.context["n"] for event in recording.events("a")] == [0, 1, 2]
    assert recording.events("c") == []


def test_an_open_event_is_unfinished():
    with vantrace.record() as recording:
        with vantrace.event("open"):
            [event] = recording.events()
            assert (event.kind, event.duration) == ("unfinished", None)
        [event] = recording.events()
        assert event.kind == "event"


def test_an_event_that_began_before_is_a_stop():
    with vantrace.record() as outer, vantrace.event("early"):
        with vantrace.record() as recording:
            outer.clear()
    [event] = outer.events()
    assert (event.name, event.kind) == ("early", "stop")
    assert recording.events() == []


def test_events_tell_their_threads():
    def work():
        emit("work")

    with vantrace.record() as recording:
        threads = [threading.Thread(target=work, name=f"worker {i}") for i in range(3)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
    assert {event.thread for event in recording.events()} == {"worker 0", "worker 1", "worker 2"}


def test_reading_leaves_the_collector_as_it_was():
    import gc

    with vantrace.record() as recording:
        emit()
    recording.events()
    assert gc.isenabled()
    gc.disable()
    try:
        recording.events()
        assert not gc.isenabled()
    finally:
        gc.enable()


def test_statistics_are_found_by_name():
    with vantrace.record() as recording:
        for _ in range(3):
            emit("a")
        emit("b")
    stats = recording.stats()
    assert {name: row.count for name, row in stats.items()} == {"a": 3, "b": 1}
    assert stats["a"].total == sum(event.duration for event in recording.events("a"))


def test_a_data_frame_has_a_row_an_event():
    with vantrace.record() as recording:
        emit("a", n=1, method="cg")
        emit("b", n=2, tol=0.5, exact=False)
        vantrace.counter("m", 7)
    frame = recording.to_pandas()
    events = recording.events()
    assert list(frame.columns) == [
        *("name", "kind", "start", "duration", "thread"),
        *("method", "n", "exact", "tol", "value"),
    ]
    assert frame["name"].tolist() == ["a", "b", "m"]
    assert frame["start"].tolist() == [event.start for event in events]
    assert frame["duration"].tolist() == [event.duration for event in events]
    assert frame["n"].tolist() == [1, 2, pandas.NA]
    types = {name: str(frame[name].dtype) for name in ("n", "method", "tol", "exact", "value")}
    assert types == {
        "n": "Int64",
        "method": "string",
        "tol": "float64",
        "exact": "boolean",
        "value": "Int64",
    }
    assert frame.groupby("name", observed=True)["duration"].sum()["a"] == events[0].duration


def test_odd_columns_of_a_data_frame():
    with vantrace.record() as recording:
        emit("a", start=5, n=2**64 - 1)
        emit("a", n="many")
    frame = recording.to_pandas("a")
    assert frame["start_2"].tolist()[0] == 5
    assert frame["n"].tolist() == [2**64 - 1, "many"]
    assert recording.to_pandas("none").empty


def test_an_unfinished_event_has_no_duration_in_a_data_frame():
    with vantrace.record() as recording, vantrace.event("open"):
        frame = recording.to_pandas()
    assert frame["duration"].isna().tolist() == [True]


def test_without_pandas_the_error_says_so():
    code = (
        "import sys; sys.modules['pandas'] = None\n"
        "import vantrace\n"
        "with vantrace.record() as recording: pass\n"
        "try: recording.to_pandas()\n"
        "except ImportError as error: print(error, error.name)\n"
    )
    done = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, check=True)
    assert done.stdout == "to_pandas() needs pandas, which is not there pandas\n"


@pytest.mark.parametrize("ending", ["json", "folded", "vtrace"])
def test_what_is_read_can_be_saved_too(tmp_path, ending):
    with vantrace.record() as recording:
        emit()
        recording.events()
    recording.save(tmp_path / f"trace.{ending}")
    assert (tmp_path / f"trace.{ending}").stat().st_size > 0
