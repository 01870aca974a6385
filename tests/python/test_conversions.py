"""Python objects to host values and back."""

import numpy as np
import pytest

from vantrace import StructArray, performance

pytestmark = pytest.mark.usefixtures("no_leaks")

instruments = performance.instrument.instruments
controls = performance.instrument.controls
tasks = performance.cooperativeTaskManager
recorder_json = performance.instrument.recorder.getAllCompleteEventsTraceEventJsonWithFilter


def context_of(recorder, context, name="conversion"):
    """The context of an event that was started with it."""
    recorder.clearAllEventData()
    identity = instruments.startEvent(name, context)
    instruments.stopEvent(name, context, identity[0]["sourceId"], identity[0]["serialId"])
    [event] = recorder.getAllEvents()
    return event["context"][0] if len(event["context"]) else {}


class Index:
    def __init__(self, value):
        self.value = value

    def __index__(self):
        return self.value


class Sequence:
    def __init__(self, *items):
        self.items = items

    def __len__(self):
        return len(self.items)

    def __getitem__(self, index):
        return self.items[index]


@pytest.mark.parametrize("value", [True, False])
def test_logical(value):
    tasks.setLoggingEnabled(value)
    result = tasks.getLoggingEnabled()
    tasks.setLoggingEnabled(False)
    assert result is value


@pytest.mark.parametrize("value", [0, 1, 0.0, "True", None, [True]])
def test_logical_takes_bool_only(value):
    with pytest.raises(TypeError, match="setLoggingEnabled: argument 1 must be a logical"):
        tasks.setLoggingEnabled(value)


@pytest.mark.parametrize("value", [0.25, 1, -1, True, np.float32(0.5), np.float64(0.5), Index(2)])
def test_real_takes_numbers(recorder, value):
    if value is True:
        with pytest.raises(TypeError, match="must be a number"):
            recorder_json(value)
    else:
        assert recorder_json(value).startswith('{"')


@pytest.mark.parametrize("value", ["0.5", None, [0.5], 1j, b"1"])
def test_real_refuses_the_rest(value):
    with pytest.raises(TypeError, match="argument 1"):
        recorder_json(value)


@pytest.mark.parametrize("value", [0, 7, 2**64 - 1, Index(3), np.int32(4), np.uint64(2**63)])
def test_unsigned_takes_integers(value):
    instruments.stopEvent("never started", None, value, 1)


@pytest.mark.parametrize("value", [True, 1.0, "1", None, [1], np.float64(1)])
def test_unsigned_takes_integers_only(value):
    with pytest.raises(TypeError, match="stopEvent: argument 3 must be an integer"):
        instruments.stopEvent("x", None, value, 1)


@pytest.mark.parametrize("value", [-1, 2**64, -(2**63) - 1, 10**100, -(10**100)])
def test_unsigned_out_of_range(value):
    with pytest.raises(OverflowError, match="stopEvent: argument 4 must be from 0 to"):
        instruments.stopEvent("x", None, 1, value)


@pytest.mark.parametrize("value", [2**31, -(2**31) - 1, 2**63, 10**30])
def test_int32_out_of_range(value):
    with pytest.raises(OverflowError, match="queueSleepTask: argument 1 must be from -2147483648"):
        performance.utils.queueSleepTask(value)


@pytest.mark.parametrize(
    "text", ["", "a", "solve", "gr\xf6\xdfe", "\u4e2d", "\U0001f600", "a\U0010ffffb", "x" * 5000]
)
def test_text_goes_there_and_back(recorder, text):
    assert context_of(recorder, ["k", text]) == {"k": text}
    recorder.clearAllEventData()
    identity = instruments.startEvent(text, [])
    instruments.stopEvent(text, [], identity[0]["sourceId"], identity[0]["serialId"])
    assert list(recorder.getAllEvents()["name"]) == [text]


def test_lone_surrogates_become_replacement_characters(recorder):
    assert context_of(recorder, ["k", "a\ud800b"]) == {"k": "a\ufffdb"}


def test_a_surrogate_pair_is_one_character(recorder):
    assert context_of(recorder, ["k", "\ud83d\ude00"]) == {"k": "\U0001f600"}


class Text(str):
    pass


@pytest.mark.parametrize(
    "value",
    [
        ["n", "3", "tol", "1e-6"],
        ("n", "3", "tol", "1e-6"),
        np.array(["n", "3", "tol", "1e-6"]),
        np.array(["n", "3", "tol", "1e-6"], dtype=object),
        Sequence("n", "3", "tol", "1e-6"),
        [Text("n"), Text("3"), np.str_("tol"), "1e-6"],
        {"n": "3", "tol": "1e-6"},
    ],
)
def test_lists_of_text(recorder, value):
    assert context_of(recorder, value) == {"n": "3", "tol": "1e-6"}


@pytest.mark.parametrize("value", [None, [], (), {}, np.array([], dtype=str)])
def test_empty_lists(recorder, value):
    assert context_of(recorder, value) == {}


def test_a_dict_takes_numbers_as_events_do(recorder):
    context = {"n": 512, "tol": 1e-6, "exact": True, "big": 10**30, "half": 0.5, "none": None}
    assert context_of(recorder, context) == {
        "n": "512",
        "tol": "1e-06",
        "exact": "true",
        "big": "1" + "0" * 30,
        "half": "0.5",
        "none": "None",
    }


def test_a_dict_has_names_of_text():
    with pytest.raises(TypeError, match="names of a context must be str, got int"):
        instruments.startEvent("x", {1: "a"})


@pytest.mark.parametrize("value", ["text", b"bytes", 1, 1.5, True, {"a"}, object(), iter([])])
def test_what_is_no_list(value):
    with pytest.raises(TypeError, match="startEvent"):
        instruments.startEvent("x", value)


@pytest.mark.parametrize(
    ("value", "index"),
    [
        (["a", 1], 1),
        ([1, "a"], 0),
        (["a", "b", None], 2),
        (["a", b"b"], 1),
        (["a", ["b"]], 1),
        (["a", object()], 1),
        (("a", "b", "c", 2.5), 3),
        (["a", True], 1),
        (["a", 10**30], 1),
    ],
)
def test_an_element_that_is_no_text_is_named_by_its_index(value, index):
    with pytest.raises(TypeError, match=rf"startEvent.*\b{index}\b"):
        instruments.startEvent("x", value)


def test_a_list_that_holds_itself_is_refused():
    endless = ["a"]
    endless.append(endless)
    with pytest.raises(RecursionError):
        instruments.startEvent("x", endless)


@pytest.mark.parametrize("value", [None, 1, 1.5, True, b"x", object()])
def test_what_is_no_text(value):
    with pytest.raises(TypeError, match="controls.has"):
        controls.has(value)


def test_the_last_of_several_bad_arguments_is_named():
    with pytest.raises(TypeError, match="argument 4"):
        instruments.stopEvent(b"", b"", b"", b"")
    with pytest.raises(TypeError, match="argument 3"):
        instruments.stopEvent(1, 1, "x", 1)


def test_errors_of_an_argument_s_own_code_come_out():
    class Broken:
        def __index__(self):
            raise ZeroDivisionError("mine")

    class BrokenSequence(Sequence):
        def __getitem__(self, index):
            raise ZeroDivisionError("mine")

    with pytest.raises(ZeroDivisionError, match="mine"):
        instruments.stopEvent("x", None, Broken(), 1)
    with pytest.raises(ZeroDivisionError, match="mine"):
        instruments.startEvent("x", BrokenSequence())


def test_results_of_scalars():
    assert type(performance.utils.getNanosecondTimer()) is int
    assert type(tasks.getNumPendingTasks()) is int
    assert type(performance.instrument.areAnyListenersActive()) is bool
    assert tasks.resume() is None or True


def test_results_without_value():
    assert controls.enable("conversion") is None
    assert controls.isEnabled("conversion") is None
    controls.disableAll()


def test_results_of_text_and_lists():
    modules = performance.utils.getModuleList()
    assert type(modules) is list
    assert all(type(module) is str for module in modules)
    assert modules[0].startswith("/")
    assert type(recorder_json(0.0)) is str


def test_cell_arrays_of_text_become_lists(recorder):
    assert recorder.getAllEventsCollapsedStacks() == []
    context_of(recorder, [], name="stacked")
    [stack] = recorder.getAllEventsCollapsedStacks()
    assert stack.startswith("MainThread;stacked ")


def test_struct_arrays(recorder):
    identity = instruments.startEvent("x", [])
    assert type(identity) is StructArray
    assert identity.fields == ("sourceId", "serialId")
    assert type(identity[0]["sourceId"]) is int
