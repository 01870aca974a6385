"""What is wrong is told, each by its own error; afterwards everything works on."""

import pytest

import vantrace
from vantrace import host, performance

pytestmark = pytest.mark.usefixtures("no_leaks", "works_on")

controls = performance.instrument.controls
instruments = performance.instrument.instruments
published = performance.instrument.recorder


@pytest.fixture(name="works_on")
def fixture_works_on():
    """The next call works."""
    yield
    assert controls.has("nothing of that name") is False
    identity = instruments.startEvent("x", {"a": 1})
    assert identity.shape == (1, 1)
    assert published.getEventStats("nothing of that name")[0]["count"] == 0


@pytest.mark.parametrize(
    ("method", "arguments", "message"),
    [
        (published.start, ["x"], "recorder.start takes no arguments, got 1"),
        (published.getAllEvents, [None, None], "getAllEvents takes no arguments, got 2"),
        (controls.has, [], "controls.has takes 1 argument, got 0"),
        (controls.has, ["a", "b"], "controls.has takes 1 argument, got 2"),
        (instruments.startEvent, ["a"], "startEvent takes 2 arguments, got 1"),
        (instruments.stopEvent, [], "stopEvent takes 4 arguments, got 0"),
        (instruments.stopEvent, list(range(40)), "stopEvent takes 4 arguments, got 40"),
    ],
)
def test_a_wrong_count(method, arguments, message):
    with pytest.raises(TypeError, match=message):
        method(*arguments)


def test_a_wrong_count_comes_before_wrong_kinds():
    with pytest.raises(TypeError, match="takes 1 argument, got 2"):
        controls.has(b"", object())


@pytest.mark.parametrize("names", [{"name": "x"}, {"a": 1, "b": 2}])
def test_keywords(names):
    with pytest.raises(TypeError, match="takes no keyword arguments"):
        controls.has(**names)


def test_a_wrong_kind_names_method_position_and_both_kinds():
    with pytest.raises(TypeError) as caught:
        instruments.stopEvent("x", None, "one", 1)
    text = str(caught.value)
    assert "performance.instrument.instruments.stopEvent" in text
    assert "argument 3" in text
    assert "uint64 scalar" in text
    assert "text" in text


@pytest.mark.parametrize("value", [b"bytes", {1, 2}, object(), 1j, range])
def test_what_no_host_value_can_be_made_of(value):
    with pytest.raises(TypeError) as caught:
        instruments.startEvent("x", value)
    text = str(caught.value)
    assert "startEvent: argument 2 (KobsFactoryString vector)" in text
    assert type(value).__name__ in text


@pytest.mark.parametrize("value", [-1, 2**64, 10**40])
def test_a_number_out_of_range(value):
    with pytest.raises(OverflowError, match="stopEvent: argument 3 must be from 0 to"):
        instruments.stopEvent("x", None, value, 1)


@pytest.mark.parametrize("value", ["text", 1, True, 2.5])
def test_a_list_that_is_none(value):
    with pytest.raises(TypeError, match="startEvent"):
        instruments.startEvent("x", value)


@pytest.mark.parametrize(
    ("call", "message"),
    [
        (
            lambda: instruments.startEvent("x", ["n"]),
            "makeContextEntries takes name/value pairs of strings.",
        ),
        (
            lambda: instruments.stopEvent("x", ["n", "1", "m"], 1, 1),
            "makeContextEntries takes name/value pairs of strings.",
        ),
        (
            lambda: published.getEventsForContext("x", ["n"]),
            "makeContextEntries takes name/value pairs of strings.",
        ),
        (
            lambda: controls.enableWithContextEntry("x", ["n"]),
            "makeContextEntry takes exactly two strings.",
        ),
        (
            lambda: controls.disableWithContextEntry("x", ["n", "1", "m", "2"]),
            "makeContextEntry takes exactly two strings.",
        ),
        (
            lambda: controls.isEnabledWithContext("x", []),
            "makeContextEntry takes exactly two strings.",
        ),
    ],
)
def test_odd_context_lists(call, message):
    with pytest.raises(ValueError) as caught:
        call()
    assert str(caught.value) == message


def test_a_name_with_a_nul():
    with pytest.raises(ValueError, match="(?i)nul"):
        instruments.startEvent("a\0b", [])


def test_errors_leave_the_switches_alone(recorder):
    for call in (lambda: instruments.startEvent("x", ["n"]), lambda: controls.enable(7)):
        with pytest.raises((TypeError, ValueError)):
            call()
    assert recorder.isActive()
    assert controls.wereAllEnabled()
    assert recorder.getAllEventPoints().shape == (1, 0)


def test_the_errors_of_the_package_are_python_s():
    assert issubclass(vantrace.NotLoadedError, RuntimeError)
    assert issubclass(vantrace.PluginError, ImportError)
    assert host.NotLoadedError is vantrace.NotLoadedError
    assert vantrace.NotLoadedError.__module__ == vantrace.PluginError.__module__ == "vantrace"


def test_many_errors_in_a_row_leave_nothing_behind():
    for _ in range(1000):
        with pytest.raises(TypeError):
            instruments.startEvent("x", ["a", 1])
        with pytest.raises(ValueError):
            instruments.startEvent("x", ["a"])
        with pytest.raises(OverflowError):
            instruments.stopEvent("x", ["a", "b"], -1, 0)
