"""vantrace.counter: points of curves."""

import pytest

import vantrace
from trace_rules import check_trace, events_of
from vantrace import performance


def points(trace):
    text = trace.read_text(encoding="utf-8")
    assert check_trace(text) == []
    return [(e["name"], e["args"]["value"]) for e in events_of(text) if e["ph"] == "C"]


def test_values_are_a_curve_of_the_trace(tmp_path):
    with vantrace.record(tmp_path / "trace.json"):
        for value in (3, 1.5, -2):
            vantrace.counter("residual", value)
        vantrace.counter("memory", 2**40)
    assert points(tmp_path / "trace.json") == [
        ("residual", 3),
        ("residual", 1.5),
        ("residual", -2),
        ("memory", 2**40),
    ]


class Five:
    def __index__(self):
        return 5


@pytest.mark.parametrize(
    "value, recorded", [(True, 1.0), (2**70, 2.0**70), (Five(), 5.0), (2**64 - 1, 2**64 - 1)]
)
def test_what_is_a_number_is_taken(value, recorded):
    with vantrace.record() as recording:
        vantrace.counter("n", value)
    [point] = recording.events()
    assert (point.kind, point.context) == ("counter", {"value": recorded})


@pytest.mark.parametrize("value", [float("nan"), float("inf")])
def test_what_no_curve_can_show_is_an_instant(tmp_path, value):
    with vantrace.record(tmp_path / "trace.json") as recording:
        vantrace.counter("n", value)
    assert points(tmp_path / "trace.json") == []
    assert [event.kind for event in recording.events()] == ["instant"]


@pytest.mark.parametrize("arguments", [(), ("n",), ("n", 1, 2), ("n", "1"), ("n", None), (1, 1)])
def test_a_counter_takes_a_name_and_a_number(arguments):
    with vantrace.record(), pytest.raises(TypeError):
        vantrace.counter(*arguments)


def test_a_value_is_not_looked_at_while_nobody_listens():
    class Never:
        def __float__(self):
            raise AssertionError

    assert vantrace.counter("n", Never()) is None


def test_an_error_of_a_value_comes_out():
    class Broken:
        def __float__(self):
            raise ZeroDivisionError

    with vantrace.record(), pytest.raises(ZeroDivisionError):
        vantrace.counter("n", Broken())


def test_a_counter_that_is_off_is_not_recorded():
    controls = performance.instrument.controls
    with vantrace.record() as recording:
        controls.disable("n")
        vantrace.counter("n", 1)
        controls.enable("n")
        vantrace.counter("n", 2)
    controls.disableAll()
    assert [event.context for event in recording.events()] == [{"value": 2}]
