"""vantrace.event and vantrace.instant."""

import asyncio
import copy
import functools
import gc
import inspect
import pickle
import threading
import weakref

import pytest

import vantrace
from vantrace import performance

pytestmark = pytest.mark.usefixtures("no_leaks")

controls = performance.instrument.controls


def names(recorder):
    return recorder.getAllEvents()["name"].tolist()


def points(recorder):
    """(name, type) of every point, in order."""
    found = recorder.getAllEventPoints()
    return list(zip(found["name"], found["type"]))


def context_of(recorder, name):
    [event] = [event for event in recorder.getAllEvents() if event["name"] == name]
    return event["context"][0] if len(event["context"]) else {}


def test_a_block_is_an_event(recorder):
    with vantrace.event("solve"):
        assert points(recorder) == [("solve", "start")]
    assert points(recorder) == [("solve", "start"), ("solve", "stop")]


def test_blocks_nest(recorder):
    with vantrace.event("outer"):
        with vantrace.event("inner"):
            pass
        vantrace.instant("hit")
    assert points(recorder) == [
        ("outer", "start"),
        ("inner", "start"),
        ("inner", "stop"),
        ("hit", "instant"),
        ("outer", "stop"),
    ]


def test_as_gives_the_event(recorder):
    made = vantrace.event("solve", n=3)
    with made as entered:
        assert entered is made
    assert (made.name, made.context) == ("solve", {"n": 3})
    assert repr(made) == "<event 'solve'>"


def test_context_values_are_taken_as_they_are(recorder):
    class Method:
        def __str__(self):
            return "conjugate gradients"

    with vantrace.event(
        "solve",
        n=512,
        tol=1e-6,
        exact=True,
        method=Method(),
        text="gr\xf6\xdfe",
        big=2**64 - 1,
        bigger=10**20,
        negative=-(2**63),
        shape=(3, 4),
        nothing=None,
        name="also a name",
    ):
        pass
    assert context_of(recorder, "solve") == {
        "n": "512",
        "tol": "1e-06",
        "exact": "true",
        "method": "conjugate gradients",
        "text": "gr\xf6\xdfe",
        "big": "18446744073709551615",
        "bigger": "1" + "0" * 20,
        "negative": "-9223372036854775808",
        "shape": "(3, 4)",
        "nothing": "None",
        "name": "also a name",
    }


@pytest.mark.parametrize("count", [1, 4, 5, 6, 7, 40])
def test_contexts_of_any_size(recorder, count):
    context = {f"k{number}": number for number in range(count)}
    with vantrace.event("sized", **context):
        vantrace.instant("sized too", **context)
    assert context_of(recorder, "sized") == {key: str(value) for key, value in context.items()}
    [point] = [p for p in recorder.getAllEventPoints() if p["type"] == "instant"]
    assert point["context"][0] == context_of(recorder, "sized")


def test_odd_texts(recorder):
    with vantrace.event("a\ud800b", **{"k\udfff": "v\ud8ab", "": ""}):
        pass
    vantrace.instant("\ud800")
    assert context_of(recorder, "a\ufffdb") == {"k\ufffd": "v\ufffd", "": ""}


def test_a_context_names_rules_that_decide(recorder):
    recorder.stop()
    controls.disableAll()
    recorder.start()
    controls.disable("ruled")
    controls.enableWithContextEntry("ruled", ["n", "3"])
    with vantrace.event("ruled"):
        pass
    with vantrace.event("ruled", n=3):
        vantrace.instant("ruled", n=3)
        vantrace.instant("ruled", n=4)
    with vantrace.event("ruled", n=4):
        pass
    assert points(recorder) == [("ruled", "start"), ("ruled", "instant"), ("ruled", "stop")]


def test_nothing_is_made_of_a_context_while_nobody_listens():
    class Unprintable:
        def __str__(self):
            raise AssertionError("made text of it")

    with vantrace.event("silent", value=Unprintable()):
        vantrace.instant("silent", value=Unprintable())


def test_errors_of_a_context_come_out(recorder):
    class Broken:
        def __str__(self):
            raise ZeroDivisionError("mine")

    with pytest.raises(ZeroDivisionError, match="mine"):
        with vantrace.event("broken", value=Broken()):
            raise AssertionError("entered")
    with pytest.raises(ZeroDivisionError, match="mine"):
        vantrace.instant("broken", value=Broken())
    assert points(recorder) == []


@pytest.mark.parametrize("make", [vantrace.event, vantrace.instant])
@pytest.mark.parametrize("name", [None, 1, b"solve", ["solve"]])
def test_names_are_str(make, name):
    with pytest.raises(TypeError, match="name of an event must be str"):
        make(name)


@pytest.mark.parametrize("make", [vantrace.event, vantrace.instant])
def test_names_hold_no_nul(make):
    with pytest.raises(ValueError):
        make("a\0b")


@pytest.mark.parametrize("make", [vantrace.event, vantrace.instant])
def test_there_is_one_positional_argument(make):
    with pytest.raises(TypeError, match="1 positional argument"):
        make()
    with pytest.raises(TypeError, match="1 positional argument"):
        make("a", "b")


def test_an_event_registers_its_name():
    assert not controls.has("only made")
    vantrace.event("only made")
    assert controls.has("only made")


def test_an_exception_ends_the_event_and_goes_on(recorder):
    with pytest.raises(KeyError, match="mine"):
        with vantrace.event("failing"):
            raise KeyError("mine")
    assert names(recorder) == ["failing"]


def test_an_event_that_began_while_nobody_listened_has_no_stop(recorder):
    recorder.stop()
    with vantrace.event("early"):
        recorder.start()
    assert points(recorder) == []


def test_an_event_switched_off_inside_has_its_stop(recorder):
    with vantrace.event("switched"):
        controls.disable("switched")
    assert points(recorder) == [("switched", "start"), ("switched", "stop")]


def test_an_event_object_can_be_used_again_and_nested(recorder):
    event = vantrace.event("again", n=1)
    with event:
        pass
    with event:
        with event:
            with event:
                pass
    assert names(recorder) == ["again"] * 4
    durations = recorder.getAllEvents()["duration"]
    assert durations[1] > durations[2] > durations[3]


def test_a_changing_context_is_read_at_each_entering(recorder):
    value = []
    event = vantrace.event("changing", value=value)
    for number in range(2):
        value.append(number)
        with event:
            value.append("inside")
    contexts = [context[0]["value"] for context in recorder.getAllEvents()["context"]]
    assert contexts == ["[0]", "[0, 'inside', 1]"]


def test_an_event_left_without_entering():
    with pytest.raises(RuntimeError, match="not entered"):
        vantrace.event("x").__exit__(None, None, None)


def test_an_event_shared_by_threads(recorder):
    """Each thread leaves what it entered itself."""
    event = vantrace.event("shared")
    both_inside, first_left = threading.Barrier(2), threading.Event()

    def early():
        with event:
            both_inside.wait()
        first_left.set()

    def late():
        with event:
            both_inside.wait()
            first_left.wait()

    threads = [threading.Thread(target=f, name=f.__name__) for f in (early, late)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    events = {event["source_name"]: event for event in recorder.getAllEvents()}
    assert events.keys() == {"early", "late"}
    found = recorder.getAllEventPoints()
    assert set(found["source_name"][found["type"] == "stop"]) == {"early", "late"}
    for name in ("early", "late"):
        serials = found["serial_id"][found["source_name"] == name]
        assert serials[0] == serials[1]


def test_events_have_the_names_of_their_threads(recorder, in_thread):
    in_thread(lambda: vantrace.instant("x"), name="io")
    in_thread(lambda: vantrace.instant("x"), name="gr\xf6\xdfe \u4e2d")
    vantrace.instant("x")
    sources = recorder.getAllEventPoints()["source_name"]
    assert list(sources) == ["io", "gr\xf6\xdfe \u4e2d", "MainThread"]


def test_naming_a_thread_makes_no_thread_object(python):
    """Asking for the current thread would register one that Python did not start."""
    out = python(
        """
import _thread, vantrace
from vantrace import performance
recorder = performance.instrument.recorder
recorder.start()
done = _thread.allocate_lock()
done.acquire()
def work():
    vantrace.instant("x")
    done.release()
_thread.start_new_thread(work, ())
done.acquire()
import threading
print(threading.active_count(), list(recorder.getAllEventPoints()["name"]))
"""
    )
    assert out == "1 ['x']\n"


def test_the_main_thread_has_its_name_without_threading(python):
    code = """
import vantrace
with vantrace.record() as recording:
    with vantrace.event("x"): pass
print(recording.threads())
"""
    assert python(code) == "['MainThread']\n"


def test_events_are_not_kept_alive(recorder):
    class Value:
        pass

    value = Value()
    reference = weakref.ref(value)
    with vantrace.event("x", value=value):
        pass
    del value
    assert reference() is None


def test_a_cycle_through_a_context_is_collected():
    class Value:
        pass

    value = Value()
    reference = weakref.ref(value)
    value.event = vantrace.event("x", value=value)
    del value
    gc.collect()
    assert reference() is None


@vantrace.event("decorated", kind="function")
def decorated(a, b=2, *rest, c=3, **more):
    """What it does."""
    return a, b, rest, c, more


def test_a_decorated_function(recorder):
    assert decorated(1) == (1, 2, (), 3, {})
    assert decorated(1, 2, 3, c=4, d=5) == (1, 2, (3,), 4, {"d": 5})
    assert names(recorder) == ["decorated"] * 2
    assert recorder.getAllEvents()["context"][0][0] == {"kind": "function"}


def test_a_decorated_function_looks_like_it():
    assert decorated.__name__ == "decorated"
    assert decorated.__doc__ == "What it does."
    assert decorated.__module__ == __name__
    assert list(inspect.signature(decorated).parameters) == ["a", "b", "rest", "c", "more"]
    assert inspect.isroutine(decorated)
    decorated.mark = 1
    assert vars(decorated)["mark"] == 1
    del decorated.mark
    assert weakref.ref(decorated)() is decorated


def test_a_decorated_function_can_be_pickled_and_copied():
    assert pickle.loads(pickle.dumps(decorated)) is decorated
    assert copy.deepcopy(decorated) is decorated


def test_decorated_methods(recorder):
    class Solver:
        @vantrace.event("method")
        def solve(self, x):
            return self, x

        @vantrace.event("class method")
        @classmethod
        def make(cls):
            return cls

        @classmethod
        @vantrace.event("class method")
        def make_too(cls):
            return cls

        @vantrace.event("static method")
        @staticmethod
        def norm(x):
            return x

        @property
        @vantrace.event("property")
        def size(self):
            return 7

    solver = Solver()
    assert solver.solve(1) == (solver, 1)
    assert Solver.solve(solver, 2) == (solver, 2)
    bound = solver.solve
    assert bound(3) == (solver, 3)
    assert Solver.make() is solver.make() is Solver.make_too() is Solver
    assert Solver.norm(4) == solver.norm(4) == 4
    assert solver.size == 7
    assert names(recorder) == ["method"] * 3 + ["class method"] * 3 + ["static method"] * 2 + [
        "property"
    ]


def test_a_decorated_function_can_recurse(recorder):
    @vantrace.event("recursive")
    def down(n):
        return n and down(n - 1)

    down(5)
    durations = list(recorder.getAllEvents()["duration"])
    assert len(durations) == 6
    assert durations == sorted(durations, reverse=True)


def test_exceptions_leave_a_decorated_function(recorder):
    @vantrace.event("raising")
    def raising():
        raise KeyError("mine")

    with pytest.raises(KeyError, match="mine") as caught:
        raising()
    assert names(recorder) == ["raising"]
    assert len(caught.traceback) == 2


def test_callables_can_be_decorated(recorder):
    assert vantrace.event("builtin")(len)([1, 2]) == 2
    assert vantrace.event("partial")(functools.partial(divmod, 7))(2) == (3, 1)
    assert names(recorder) == ["builtin", "partial"]


@pytest.mark.parametrize("what", [1, None, "solve"])
def test_what_cannot_be_called_cannot_be_decorated(what):
    with pytest.raises(TypeError, match="decorates functions"):
        vantrace.event("x")(what)


@pytest.mark.parametrize("arguments", [(len, len), (len, len, len, len)])
def test_an_event_decorates_one_function(arguments):
    with pytest.raises(TypeError, match="one function"):
        vantrace.event("x")(*arguments)


def test_a_generator_is_an_event_from_first_to_last_step(recorder):
    @vantrace.event("generator")
    def count(n):
        got = []
        for number in range(n):
            got.append((yield number))
        return got

    assert inspect.isgeneratorfunction(count)
    steps = count(2)
    assert points(recorder) == []
    assert next(steps) == 0
    assert steps.send("a") == 1
    with pytest.raises(StopIteration) as stopped:
        steps.send("b")
    assert stopped.value.value == ["a", "b"]
    assert names(recorder) == ["generator"]


def test_generators_that_overlap(recorder):
    @vantrace.event("generator")
    def once():
        yield

    first, second = once(), once()
    next(first), next(second)
    first.close()
    second.close()
    found = recorder.getAllEventPoints()
    assert list(found["type"]) == ["start", "start", "stop", "stop"]
    serials = list(found["serial_id"])
    assert serials[2:] == serials[:2]


def test_a_coroutine_is_an_event_while_it_waits(recorder):
    @vantrace.event("coroutine", n=1)
    async def wait(turn, others_turn):
        await turn.wait()
        others_turn.set()
        return 7

    async def both():
        first, second = asyncio.Event(), asyncio.Event()
        tasks = [asyncio.create_task(wait(second, first)), asyncio.create_task(wait(first, second))]
        await asyncio.sleep(0)
        first.set()
        return await asyncio.gather(*tasks)

    assert inspect.iscoroutinefunction(wait)
    assert asyncio.run(both()) == [7, 7]
    assert names(recorder) == ["coroutine"] * 2
    assert list(recorder.getAllEventPoints()["type"])[:2] == ["start", "start"]


def test_an_asynchronous_generator(recorder):
    @vantrace.event("asynchronous generator")
    async def steps():
        try:
            got = yield 1
            yield got
        except KeyError as error:
            yield str(error)

    async def use():
        generator = steps()
        first = await anext(generator)
        second = await generator.asend("sent")
        third = await generator.athrow(KeyError("thrown"))
        await generator.aclose()
        return first, second, third

    assert asyncio.run(use()) == (1, "sent", "'thrown'")
    assert names(recorder) == ["asynchronous generator"]


def test_a_decorated_function_while_nobody_listens():
    assert decorated(1) == (1, 2, (), 3, {})


def test_many_events_from_many_threads(recorder):
    begin = threading.Barrier(4)

    def work():
        begin.wait()
        for _ in range(5000):
            with vantrace.event("counted", n=1):
                vantrace.instant("hit")

    threads = [threading.Thread(target=work) for _ in range(4)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert recorder.getEventStats("counted")[0]["count"] == 20000
    assert len(recorder.getEventPoints("hit")) == 20000
