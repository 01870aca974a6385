"""Event objects that the package uses again once nobody has them."""

import itertools
import sys

import pytest

import vantrace
from vantrace import performance

pytestmark = pytest.mark.usefixtures("no_leaks")


def completed(recorder):
    """(name, context) of every event, in order of start."""
    found = recorder.getAllEvents()
    contexts = [context[0] if len(context) else {} for context in found["context"]]
    return list(zip(found["name"].tolist(), contexts))


def make(number):
    """From one place of the program, as all events of a loop are."""
    return vantrace.event("again", k=number)


def test_each_event_has_the_numbers_that_it_was_made_with(recorder):
    for number in [1, 2.5, -(2**40), 2**63, 3]:
        with make(number) as event:
            assert event.context == {"k": number}
            assert type(event.context["k"]) is type(number)
    assert [context for _, context in completed(recorder)] == [
        {"k": "1"},
        {"k": "2.5"},
        {"k": "-1099511627776"},
        {"k": "9223372036854775808"},
        {"k": "3"},
    ]


@pytest.mark.parametrize("other", [True, "text", 2**70, None, [1]])
def test_numbers_take_turns_with_other_values(recorder, other):
    values = [1, other, 2, other, other, 3]
    for value in values:
        with make(value) as event:
            assert event.context["k"] is value
    texts = [context["k"] for _, context in completed(recorder)]
    assert texts == ["true" if value is True else str(value) for value in values]


@pytest.mark.parametrize("count", [1, 2, 4, 5])
def test_an_object_has_its_numbers_each_time_that_it_is_entered(count):
    numbers = {f"k{n}": n + 0.5 if n % 2 else -n for n in range(count)}
    event = vantrace.event("again", **numbers)
    with vantrace.record() as recording:
        for _ in range(3):
            with event:
                pass
    assert [event.context for event in recording.events()] == [numbers] * 3


def test_rules_decide_by_the_numbers_of_each_event(recorder):
    controls = performance.instrument.controls
    recorder.stop()
    controls.disableAll()
    recorder.start()
    controls.disable("again")
    controls.enableWithContextEntry("again", ["k", "3"])
    for number in [3, 4, 3, 4, 3]:
        with make(number):
            pass
    assert completed(recorder) == [("again", {"k": "3"})] * 3


def test_an_event_that_is_kept_stays_what_it_is(recorder):
    kept = make(1)
    others = [make(number) for number in (2, 3)]
    assert len({id(event) for event in (kept, *others)}) == 3
    with make(4):
        with kept:
            pass
    assert kept.context == {"k": 1}
    assert [event.context for event in others] == [{"k": 2}, {"k": 3}]
    assert completed(recorder) == [("again", {"k": "4"}), ("again", {"k": "1"})]


def test_events_of_one_name_are_inside_each_other(recorder):
    def descend(depth):
        if depth:
            with make(depth), vantrace.event("plain"):
                descend(depth - 1)

    for _ in range(2):
        descend(5)
    contexts = [context["k"] for name, context in completed(recorder) if name == "again"]
    assert contexts == ["5", "4", "3", "2", "1"] * 2


def test_events_of_one_name_overlap(recorder):
    def steps(number):
        with make(number):
            yield
            yield

    for _ in itertools.zip_longest(steps(1), steps(2), steps(3)):
        pass
    assert [context["k"] for _, context in completed(recorder)] == ["1", "2", "3"]


def test_an_event_that_was_never_left_is_no_other_ones(recorder):
    make(1).__enter__()
    vantrace.event("plain").__enter__()
    with make(2), vantrace.event("plain"):
        pass
    assert completed(recorder) == [("again", {"k": "2"}), ("plain", {})]
    for event in (make(3), vantrace.event("plain")):
        with pytest.raises(RuntimeError, match="was not entered"):
            event.__exit__(None, None, None)


def test_places_with_other_names_of_context_take_turns(recorder):
    for number in range(3):
        with vantrace.event("turns", a=number):
            pass
        with vantrace.event("turns", b=number, c=0.5):
            pass
        with vantrace.event("turns"):
            pass
    each = [({"a": str(n)}, {"b": str(n), "c": "0.5"}, {}) for n in range(3)]
    assert [context for _, context in completed(recorder)] == [c for turn in each for c in turn]


def test_an_event_switched_on_after_it_was_made(recorder):
    with make(1):
        pass
    recorder.stop()
    event = make(2)
    recorder.start()
    with event:
        pass
    assert completed(recorder)[-1] == ("again", {"k": "2"})


def test_as_many_objects_as_names(recorder):
    def work(rounds):
        for number in range(rounds):
            with make(number), vantrace.event("plain"):
                pass

    work(10)
    before = sys.getallocatedblocks()
    work(5_000)
    assert sys.getallocatedblocks() - before < 1_000


def test_new_makes_an_event_as_a_call_does(recorder):
    with vantrace.event.__new__(vantrace.event, "made", k=1) as event:
        assert (event.name, event.context) == ("made", {"k": 1})
    assert completed(recorder) == [("made", {"k": "1"})]
    with pytest.raises(TypeError, match="takes 1 positional argument"):
        vantrace.event.__new__(vantrace.event)
    with pytest.raises(TypeError):
        vantrace.event.__new__(int, "made")
