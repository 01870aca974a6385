"""What the table says that tracing cost."""

import pytest

import vantrace
from vantrace import _cost, performance

pytestmark = pytest.mark.usefixtures("no_leaks")

instrument = performance.instrument
LISTENERS = ("counter", "profiler")


def recorded(**options):
    """A recording that is over."""
    with vantrace.record(**options) as recording:
        with vantrace.event("work"):
            pass
    return recording


@pytest.mark.parametrize("options", [{}, {"functions": True}, {"functions": True, "c_calls": True}])
def test_more_events_cost_more(options):
    recording = recorded(**options)
    assert 0 < _cost.of_tracing(recording, 1_000) < _cost.of_tracing(recording, 1_000_000)


def test_calls_that_are_collapsed_cost_something():
    def library():
        pass

    with vantrace.record(functions=True, exclude="*") as recording:
        for _ in range(100_000):
            library()
    assert recording.functions()["collapsed_calls"] >= 100_000
    assert _cost.of_tracing(recording, 0) > 0


@pytest.mark.parametrize("exact", [False, True])
@pytest.mark.parametrize("functions", [False, True])
def test_what_is_tried_is_recorded_in_the_same_way(exact, functions, monkeypatch):
    tried = []

    class Spy(vantrace.record):
        def __exit__(self, *exception):
            super().__exit__(*exception)
            tried.append(self)

    recording = recorded(exact=exact, functions=functions)
    monkeypatch.setattr("vantrace._record.record", Spy)
    _cost.of_tracing(recording, 10)
    assert {r.counts_all for r in tried} == {exact}
    assert {r.functions() is not None for r in tried} == {functions}
    assert sum(row.count for r in tried for row in r.summary()) >= 3 * 2_000
    assert [row.name for row in recording.summary() if "probe" in row.name] == []


@pytest.mark.parametrize("names", [[], ["counter"], ["profiler"], ["counter", "profiler"]])
def test_what_is_tried_is_heard_by_the_same_listeners(names, monkeypatch):
    heard = []
    time_of = _cost._time_of

    def spy(work, rounds):
        heard.append([name for name in LISTENERS if getattr(instrument, name).isActive()])
        return time_of(work, rounds)

    monkeypatch.setattr(_cost, "_time_of", spy)
    instrument.counter.resetEventCount("probe")
    _cost.of_tracing(recorded(), 10, names)
    assert heard == [[], names] * 3
    [counted] = instrument.counter.getEventCount("probe")
    assert (counted["count"] > 0) == ("counter" in names)


def test_a_listener_of_the_program_goes_on():
    instrument.counter.start()
    try:
        _cost.of_tracing(recorded(), 10, ["counter"])
        assert instrument.counter.isActive()
    finally:
        instrument.counter.stop()
