"""The published tree as Python code and the command line see it."""

import inspect
import json
import operator
import pydoc

import pytest

from conftest import run_python
from vantrace import _core, host, performance

TEXT, LIST, UNSIGNED = "char", "KobsFactoryString vector", "uint64 scalar"
LOGICAL, REAL, INTEGER = "logical scalar", "double scalar", "int32 scalar"
WIDE = "KobsFactoryString scalar"


def methods(output, *inputs_and_names):
    *inputs, names = inputs_and_names
    return [(name, list(inputs), output) for name in names.split()]


STATIC = ["Static"]
ALL = ["Static", "Hidden", "Private"]

# Name, description, child namespaces, methods, attributes.
TREE = (
    "performance",
    "Performance Utils and Diagnostics",
    [
        (
            "utils",
            "Utility",
            [],
            methods(UNSIGNED, "getNanosecondTimer getMicrosecondTimer getMillisecondTimer")
            + methods(LIST, "getModuleList")
            + methods("void", TEXT, "queueLoadLibrary loadLibrary")
            + methods("void", LIST, "loadLibraries")
            + methods("void", INTEGER, "queueSleepTask")
            + methods(WIDE, WIDE, "getReleseFromXMLFile")
            + methods(LOGICAL, "queueDummyTaskIfNonParSessions"),
            STATIC,
        ),
        (
            "instrument",
            "Instrumentation API",
            [
                (
                    "instruments",
                    "instrument instruments",
                    [],
                    methods("any", TEXT, LIST, "startEvent")
                    + methods("void", TEXT, LIST, UNSIGNED, UNSIGNED, "stopEvent"),
                    STATIC,
                ),
                (
                    "controls",
                    "Instrument Controls",
                    [],
                    methods(LOGICAL, TEXT, "has")
                    + methods("void", TEXT, "isEnabled")
                    + methods("void", TEXT, LIST, "isEnabledWithContext")
                    + methods("void", TEXT, "enable")
                    + methods("void", TEXT, LIST, "enableWithContextEntry")
                    + methods("void", TEXT, "disable")
                    + methods("void", TEXT, LIST, "disableWithContextEntry")
                    + methods(LOGICAL, "wereAllEnabled")
                    + methods("void", "enableAll disableAll"),
                    STATIC,
                ),
                (
                    "recorder",
                    "Instrument Recorder",
                    [],
                    methods(LOGICAL, "isActive")
                    + methods("void", "start stop clearAllEventData")
                    + methods("any", "getAllEventPoints")
                    + methods("any", TEXT, "getEventPoints")
                    + methods("any", TEXT, LIST, "getEventPointsForContext")
                    + methods("any", "getAllEvents")
                    + methods("any", TEXT, "getEvents")
                    + methods("any", TEXT, LIST, "getEventsForContext")
                    + methods(
                        "any",
                        "getAllEventStats getAllEventStatsByContext"
                        " getAllEventStatsByContextEntry",
                    )
                    + methods(
                        "any",
                        TEXT,
                        "getEventStats getEventStatsByContext getEventStatsByContextEntry",
                    )
                    + methods("any", TEXT, LIST, "getEventStatsForContext")
                    + methods(
                        "any",
                        "getAllEventsCollapsedStacks getAllCompleteEventsTraceEventJson"
                        " getAllCompleteEventsTraceEventJsonWithUTC",
                    )
                    + methods("any", REAL, "getAllCompleteEventsTraceEventJsonWithFilter"),
                    STATIC,
                ),
                (
                    "profiler",
                    "Instrument Profiler",
                    [],
                    methods(LOGICAL, "isActive")
                    + methods("void", "start")
                    + methods("any", "stop")
                    + methods("void", "stopAndPrint"),
                    STATIC,
                ),
                (
                    "counter",
                    "Instrument Counter",
                    [],
                    methods(LOGICAL, "isActive")
                    + methods("void", "start stop resetAllEventCounts")
                    + methods("void", TEXT, "resetEventCount")
                    + methods(
                        "any",
                        "getAllEventCounts getAllEventCountsByContext"
                        " getAllEventCountsByContextEntry",
                    )
                    + methods(
                        "any",
                        TEXT,
                        "getEventCount getEventCountsByContext getEventCountsByContextEntry",
                    )
                    + methods("any", TEXT, LIST, "getEventCountForContext"),
                    STATIC,
                ),
                (
                    "externalEventsAggregator",
                    "External instrumentation events aggregator",
                    [],
                    methods("void", "start stop collectEvents refreshActiveClients"),
                    STATIC,
                ),
                (
                    "logger",
                    "Instrument Logger",
                    [],
                    methods(LOGICAL, "isActive") + methods("void", "start stop"),
                    STATIC,
                ),
            ],
            methods("void", REAL, "testAPI_addSomethingToInstrumentation")
            + methods(LOGICAL, "areAnyListenersActive"),
            STATIC,
        ),
        (
            "cooperativeTaskManager",
            "CooperativeTaskManager",
            [],
            methods(INTEGER, "getNumPendingTasks")
            + methods("void", "logPendingTasks pause resume")
            + methods(LOGICAL, "isPaused")
            + methods("void", "pausePPE resumePPE finishAllTasks")
            + methods("void", TEXT, "finishTaskByName")
            + methods("void", UNSIGNED, "process")
            + methods(LOGICAL, "isProcessing")
            + methods("void", "removeAllTasks cleanup")
            + methods("void", LOGICAL, "setLoggingEnabled")
            + methods(LOGICAL, "getLoggingEnabled"),
            STATIC,
        ),
        (
            "productStats",
            "Product Stats",
            [],
            methods("void", TEXT, TEXT, "logEventTime logEventBeginTime logEventEndTime"),
            ALL,
        ),
    ],
    [],
    STATIC,
)


def as_object(namespace, with_hidden):
    name, description, children, published, attributes = namespace
    shown = [] if "Hidden" in attributes and not with_hidden else published
    return {
        "name": name,
        "description": description,
        "detailedDescription": description,
        "namespaces": [as_object(child, with_hidden) for child in children],
        "methods": [
            {"name": name, "attributes": attributes, "inputs": inputs, "outputs": [output]}
            for name, inputs, output in shown
        ],
    }


def count(namespace):
    children = namespace["namespaces"]
    return 1 + sum(count(child) for child in children)


def every_method(namespace):
    yield from namespace["methods"]
    for child in namespace["namespaces"]:
        yield from every_method(child)


def tree(*options):
    done = run_python("-m", "vantrace", "tree", *options)
    assert (done.returncode, done.stderr) == (0, "")
    return done.stdout


def test_the_tree_as_json():
    assert json.loads(tree("--json")) == as_object(TREE, with_hidden=False)


def test_the_tree_as_json_with_hidden_methods():
    shown = json.loads(tree("--json", "--all"))
    assert shown == as_object(TREE, with_hidden=True)
    assert count(shown) == 12
    assert len(list(every_method(shown))) == 86


def test_json_keeps_the_order_of_keys_and_ends_with_a_line():
    text = tree("--json")
    first = json.loads(text)
    assert list(first) == ["name", "description", "detailedDescription", "namespaces", "methods"]
    method = next(every_method(first))
    assert list(method) == ["name", "attributes", "inputs", "outputs"]
    assert text.endswith("}\n")


def test_the_tree_as_text():
    lines = tree().splitlines()
    assert lines[0] == "performance: Performance Utils and Diagnostics"
    assert "  utils: Utility" in lines
    assert "      getEvents(char) -> any" in lines
    assert not any("logEventTime" in line for line in lines)


def test_the_tree_as_text_marks_hidden_methods():
    assert "    logEventTime(char, char) -> void  (hidden, private)" in tree("--all").splitlines()


def test_attributes_lead_to_every_namespace_and_method():
    def walk(found, described):
        assert found.__name__ == described["name"]
        for child in described["namespaces"]:
            walk(getattr(found, child["name"]), child)
        for method in described["methods"]:
            assert getattr(found, method["name"]).__name__ == method["name"]

    walk(performance, as_object(TREE, with_hidden=False))


def test_dir_lists_what_is_published_and_not_hidden():
    assert dir(performance) == sorted(
        ["utils", "instrument", "cooperativeTaskManager", "productStats"]
    )
    assert "getEvents" in dir(performance.instrument.recorder)
    assert dir(performance.productStats) == []


def test_unknown_names_are_attribute_errors():
    with pytest.raises(AttributeError, match="performance.instrument has no member 'nothing'"):
        performance.instrument.nothing
    assert not hasattr(performance, "__wrapped__")


def test_published_names_cannot_be_replaced():
    with pytest.raises(AttributeError, match="cannot be changed"):
        performance.utils.getModuleList = print
    with pytest.raises(AttributeError):
        del performance.utils


def test_private_methods_have_a_door_of_their_own():
    with pytest.raises(AttributeError, match="vantrace.host.private"):
        performance.productStats.logEventTime
    method = host.private("performance.productStats.logEventTime")
    assert method.attributes == ["Static", "Hidden", "Private"]
    assert host.private("performance.instrument.recorder.getEvents").__name__ == "getEvents"


@pytest.mark.parametrize("name", ["", "performance", "performance.x.y", "a.b", "performance."])
def test_the_door_refuses_names_of_nothing(name):
    with pytest.raises(LookupError):
        host.private(name)


def test_methods_tell_their_signature():
    method = performance.instrument.recorder.getEventsForContext
    assert method.__name__ == "getEventsForContext"
    assert method.__qualname__ == "performance.instrument.recorder.getEventsForContext"
    assert method.__doc__ == "getEventsForContext(char, KobsFactoryString vector) -> any"
    assert repr(method) == (
        "<method performance.instrument.recorder.getEventsForContext"
        "(char, KobsFactoryString vector) -> any>"
    )
    parameters = inspect.signature(method).parameters.values()
    assert [p.kind for p in parameters] == [inspect.Parameter.POSITIONAL_ONLY] * 2
    assert [p.annotation for p in parameters] == [str, "list[str]"]
    assert [p.name for p in parameters] == ["name", "context"]
    assert inspect.signature(performance.instrument.recorder.start).return_annotation is None


def test_every_method_has_a_signature_and_help():
    for described in every_method(as_object(TREE, with_hidden=False)):
        assert described["name"]
    method = performance.utils.getModuleList
    text = pydoc.render_doc(method, renderer=pydoc.plaintext)
    assert "getModuleList() -> 'list[str]'" in text or "getModuleList()" in text
    assert "getModuleList() -> KobsFactoryString vector" in text


@pytest.mark.parametrize(
    "path, arguments",
    [
        ("instrument.instruments.stopEvent", ["name", "context", "sourceId", "serialId"]),
        ("utils.queueSleepTask", ["milliseconds"]),
        ("cooperativeTaskManager.process", ["microseconds"]),
    ],
)
def test_signatures_name_the_arguments(path, arguments):
    method = operator.attrgetter(path)(performance)
    assert list(inspect.signature(method).parameters) == arguments
    text = pydoc.render_doc(method, renderer=pydoc.plaintext)
    assert f"{method.__name__}({arguments[0]}: " in text


def test_no_argument_of_ours_is_known_by_its_order_alone():
    def methods_below(namespace):
        yield from namespace.methods()
        for child in namespace.namespaces():
            yield from methods_below(child)

    [root] = [root for root in _core.roots() if root.name == "performance"]
    signatures = [inspect.signature(method) for method in methods_below(root)]
    assert sum(len(signature.parameters) for signature in signatures) > 40
    assert not [s for s in signatures if any(name.startswith("arg") for name in s.parameters)]


def test_help_of_a_namespace_lists_its_members():
    text = pydoc.render_doc(performance.instrument, renderer=pydoc.plaintext)
    assert "Instrumentation API" in text
    assert "recorder: Instrument Recorder" in text
    assert "areAnyListenersActive() -> logical scalar" in text


def test_repr_of_a_namespace():
    assert repr(performance.instrument.recorder) == "<namespace performance.instrument.recorder>"


def test_a_method_as_a_class_attribute_takes_no_self():
    class Timers:
        now = performance.utils.getNanosecondTimer

    assert Timers().now() <= performance.utils.getNanosecondTimer()


def test_methods_take_no_keywords():
    with pytest.raises(TypeError, match="performance.instrument.controls.has takes no keyword"):
        performance.instrument.controls.has(name="solve")


@pytest.mark.parametrize("options", [["--jsn"], ["--json", "x"]])
def test_unknown_options_of_tree_are_refused(options):
    done = run_python("-m", "vantrace", "tree", *options)
    assert done.returncode == 2
    assert f"no option {options[-1]!r}" in done.stderr
    assert done.stdout == ""
