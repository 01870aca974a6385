"""Functions that are wrapped to be events: what they do, and what others see of them."""

import copy
import inspect
import math
import pickle
import types

import numpy
import pytest

import vantrace


@pytest.fixture(name="counted")
def fixture_counted():
    """Records a call; gives how often each event was."""

    def run(body):
        with vantrace.record() as recording:
            body()
        return {row.name: row.count for row in recording.summary()}

    return run


def offset(value, by=1):
    """Adds."""
    return value + by


def fails():
    raise KeyError("from within")


def test_each_call_is_an_event_named_by_module_and_function(counted):
    solve = vantrace.wrap(numpy.linalg.solve)

    def twice():
        for _ in range(2):
            assert solve(numpy.eye(2), numpy.ones(2)).tolist() == [1, 1]

    assert counted(twice) == {"numpy.linalg.solve": 2}


def test_name_and_context_may_be_given(counted):
    wrapped = vantrace.wrap(math.sqrt, "root", of="reals")
    assert counted(lambda: wrapped(4.0)) == {"root": 1}


def test_exceptions_pass_and_end_the_event(counted):
    wrapped = vantrace.wrap(fails)

    def call():
        with pytest.raises(KeyError, match="from within"):
            wrapped()

    assert counted(call) == {f"{__name__}.fails": 1}


@pytest.mark.parametrize(
    "function, type_", [(offset, types.FunctionType), (math.sqrt, types.BuiltinFunctionType), (numpy.add, numpy.ufunc)]
)
def test_the_type_that_is_seen_is_the_functions(function, type_):
    wrapped = vantrace.wrap(function)
    assert isinstance(wrapped, type_)
    assert wrapped.__wrapped__ is function
    assert wrapped.__name__ == function.__name__
    assert wrapped.__doc__ == function.__doc__


def test_signatures_are_kept():
    for function in (offset, math.sqrt, numpy.linalg.solve):
        assert inspect.signature(vantrace.wrap(function)) == inspect.signature(function)
    assert inspect.getsource(vantrace.wrap(offset)) == inspect.getsource(offset)


def test_attributes_are_the_functions():
    wrapped = vantrace.wrap(numpy.add)
    assert wrapped.nin == 2
    assert wrapped.reduce([1, 2, 3]) == 6
    with pytest.raises(AttributeError, match="no_such"):
        wrapped.no_such  # noqa: B018


@pytest.mark.parametrize("function", [offset, math.sqrt, numpy.add])
def test_it_equals_the_function_and_serves_as_its_key(function):
    wrapped = vantrace.wrap(function)
    again = vantrace.wrap(vantrace.wrap(function, "again"))
    assert wrapped == function and function == wrapped and wrapped == again == function
    assert not wrapped != function and wrapped != fails and fails != wrapped
    assert wrapped != vantrace.wrap(fails)
    assert {function: "found"}[wrapped] == {wrapped: "found"}[function] == "found"
    with pytest.raises(TypeError):
        wrapped < function  # noqa: B015


def test_it_has_no_hash_where_the_function_has_none():
    class Callable:
        __hash__ = None

        def __call__(self):
            return 5

    with pytest.raises(TypeError, match="unhashable"):
        hash(vantrace.wrap(Callable(), "callable"))


def test_pickled_it_is_the_function():
    wrapped = vantrace.wrap(offset)
    assert pickle.loads(pickle.dumps(wrapped)) is offset
    assert copy.deepcopy(wrapped) is offset


def test_what_stands_in_its_module_is_pickled_by_name():
    with vantrace.wrap_module(math):
        assert pickle.loads(pickle.dumps(math.sqrt)) is math.sqrt
        text = pickle.dumps(math.sqrt)
    assert pickle.loads(text) is math.sqrt


def test_as_a_class_s_attribute_it_binds_as_the_function_would():
    class Holder:
        native = vantrace.wrap(math.sqrt)
        method = vantrace.wrap(lambda self, value: (self, value), "method")

    holder = Holder()
    assert holder.native(4.0) == 2
    assert holder.method(3) == (holder, 3)


@pytest.mark.parametrize(
    "value, complaint",
    [
        (3, "wrap takes a function, not int"),
        (int, "wrap takes a function, not the class int"),
        (types.SimpleNamespace(), "wrap takes a function, not SimpleNamespace"),
    ],
)
def test_what_is_no_function_is_refused(value, complaint):
    with pytest.raises(TypeError) as error:
        vantrace.wrap(value)
    assert str(error.value) == complaint


def test_a_callable_without_a_name_needs_one():
    class Callable:
        def __call__(self):
            return 5

    with pytest.raises(TypeError, match="wrap needs a name for Callable"):
        vantrace.wrap(Callable())
    assert vantrace.wrap(Callable(), "callable")() == 5


def test_the_functions_of_a_module_for_as_long_as_a_block_lasts(counted):
    bare = {name: getattr(numpy.linalg, name) for name in numpy.linalg.__all__}

    def work():
        numpy.linalg.det(numpy.eye(2))
        numpy.linalg.solve(numpy.eye(2), numpy.ones(2))

    with vantrace.wrap_module(numpy.linalg) as wrapped:
        assert "solve" in wrapped.names and "LinAlgError" not in wrapped.names
        assert numpy.linalg.LinAlgError is bare["LinAlgError"]
        assert counted(work) == {"numpy.linalg.det": 1, "numpy.linalg.solve": 1}
    assert all(getattr(numpy.linalg, name) is function for name, function in bare.items())
    assert counted(work) == {}


def test_a_module_without_all_has_only_its_own_functions_wrapped():
    module = types.ModuleType("given")
    module.own = lambda: 1
    module.own.__module__ = "given"
    module.of_another = offset
    module._private = module.own
    module.number = 7
    assert vantrace.wrap_module(module).names == ["own"]


def test_wrapping_twice_wraps_once(counted):
    with vantrace.wrap_module(math):
        assert vantrace.wrap_module(math).names == []
        assert counted(lambda: math.sqrt(4.0)) == {"math.sqrt": 1}


def test_what_somebody_else_put_there_since_stays():
    wrapped = vantrace.wrap_module(math)
    bare = math.sqrt.__wrapped__
    math.sqrt = offset
    wrapped.undo()
    assert math.sqrt is offset
    math.sqrt = bare
    wrapped.undo()
    assert math.sqrt is bare


def test_only_modules_are_wrapped_whole():
    with pytest.raises(TypeError, match="wrap_module takes a module, not the class int"):
        vantrace.wrap_module(int)
