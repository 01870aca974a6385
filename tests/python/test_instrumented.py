"""@vantrace.instrumented: functions and classes whose calls are events."""

import asyncio
import copy
import inspect
import pickle

import pytest

import vantrace


@vantrace.instrumented
def add(a, b=1, *, c: int = 2) -> int:
    """Adds."""
    return a + b + c


@vantrace.instrumented(name="sum of squares", method="direct")
def squares(n):
    return sum(i * i for i in range(n))


@vantrace.instrumented
class Solver:
    """Solves."""

    limit = 3

    def __init__(self, size):
        self.size = size

    def __call__(self):
        return self.step()

    def __repr__(self):
        return "Solver"

    def step(self):
        return self.size

    @classmethod
    def of_two(cls):
        return cls(2)

    @staticmethod
    def version():
        return 7

    @property
    def area(self):
        return self.size**2


class FineSolver(Solver):
    def step(self):
        return super().step() + 1


def names(recording):
    return [event.name for event in recording.events()]


def test_each_call_is_an_event_of_the_function_s_name():
    with vantrace.record() as recording:
        assert add(1) == 4
        assert add(1, c=0, b=0) == 1
    assert names(recording) == ["add", "add"]


def test_name_and_context_can_be_given():
    with vantrace.record() as recording:
        assert squares(3) == 5
    [event] = recording.events()
    assert (event.name, event.context) == ("sum of squares", {"method": "direct"})


def test_a_function_still_looks_like_it():
    assert str(inspect.signature(add)) == "(a, b=1, *, c: int = 2) -> int"
    assert (add.__name__, add.__doc__, add.__module__) == ("add", "Adds.", __name__)
    assert inspect.getsource(add).startswith("@vantrace.instrumented\ndef add(")
    assert inspect.isroutine(add)


@pytest.mark.parametrize("function", [add, squares, Solver.step])
def test_a_function_is_pickled_and_copied_by_its_name(function):
    assert pickle.loads(pickle.dumps(function)) is function
    assert copy.deepcopy(function) is function


def test_methods_of_a_class_are_events():
    with vantrace.record() as recording:
        solver = Solver.of_two()
        assert solver() == 2
        assert Solver.version() == 7
        assert (solver.area, repr(solver), Solver.limit) == (4, "Solver", 3)
    assert names(recording) == [
        *("Solver.of_two", "Solver.__init__"),
        *("Solver.__call__", "Solver.step"),
        "Solver.version",
    ]


def test_a_class_stays_the_same_object():
    assert isinstance(Solver, type)
    assert (Solver.__name__, Solver.__doc__) == ("Solver", "Solves.")
    assert str(inspect.signature(Solver)) == "(size)"
    solver = pickle.loads(pickle.dumps(Solver(4)))
    assert (type(solver), solver.size) == (Solver, 4)
    assert pickle.loads(pickle.dumps(solver.step))() == 4


def test_a_subclass_inherits_events():
    with vantrace.record() as recording:
        assert FineSolver(1).step() == 2
    assert names(recording) == ["Solver.__init__", "Solver.step"]


def test_a_class_may_have_a_name_and_context():
    @vantrace.instrumented(name="cg", size=3)
    class Local:
        def step(self):
            return self

    with vantrace.record() as recording:
        Local().step()
    [event] = recording.events()
    assert (event.name, event.context) == ("cg.step", {"size": 3})


def test_functions_that_suspend_stay_what_they_are():
    @vantrace.instrumented(name="g")
    def generator():
        yield 1

    @vantrace.instrumented(name="c")
    async def coroutine():
        return 2

    @vantrace.instrumented(name="a")
    async def asynchronous_generator():
        yield 3

    async def all_of_them():
        return [await coroutine()] + [value async for value in asynchronous_generator()]

    assert inspect.isgeneratorfunction(generator)
    assert inspect.iscoroutinefunction(coroutine)
    assert inspect.isasyncgenfunction(asynchronous_generator)
    with vantrace.record() as recording:
        assert list(generator()) + asyncio.run(all_of_them()) == [1, 2, 3]
    assert names(recording) == ["g", "c", "a"]


@pytest.mark.parametrize("what", [1, "name"])
def test_only_what_can_be_called_is_instrumented(what):
    with pytest.raises(TypeError, match="an event decorates functions"):
        vantrace.instrumented(what)


def test_disabled_at_import_functions_and_classes_stay_as_they_are(python, monkeypatch):
    code = """
import math, vantrace

def f(): pass
class C:
    def m(self): pass
m, sqrt = C.m, math.sqrt
assert vantrace.instrumented(f) is f
assert vantrace.instrumented(name="x")(f) is f
assert vantrace.event("x")(f) is f
assert vantrace.instrumented(C) is C and C.m is m
assert vantrace.wrap(math.sqrt) is sqrt
vantrace.wrap_module(math)
assert math.sqrt is sqrt
"""
    monkeypatch.setenv("VANTRACE_DISABLED", "1")
    python(code)
    monkeypatch.setenv("VANTRACE_DISABLED", "0")
    python("import vantrace\ndef f(): pass\nassert vantrace.instrumented(f) is not f")
