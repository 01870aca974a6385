"""Random recordings, made by real threads through the published methods, keep the rules of exports."""

import contextlib
import json
import queue
import random
import threading
from collections import Counter
from concurrent.futures import ThreadPoolExecutor

from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

import vantrace
from recording_texts import names, shown, texts
from stack_rules import check_collapsed
from trace_rules import check_trace, events_of
from vantrace import performance

instruments = performance.instrument.instruments
recorder = performance.instrument.recorder


class Worker:
    """A thread that does what it is told, one thing at a time."""

    def __init__(self, name):
        self._tasks = queue.SimpleQueue()
        self._results = queue.SimpleQueue()
        self._thread = threading.Thread(target=self._run, name=name)
        self._thread.start()

    def do(self, task):
        self._tasks.put(task)
        result, error = self._results.get()
        if error:
            raise error
        return result

    def end(self):
        self._tasks.put(None)
        self._thread.join()

    def _run(self):
        while task := self._tasks.get():
            try:
                self._results.put((task(), None))
            except BaseException as error:
                self._results.put((None, error))


class Recording:
    """Plays steps on threads and keeps what the recorder must have heard."""

    def __init__(self, thread_names):
        self.workers = [Worker(name) for name in thread_names]
        self.open = []  # how to stop each open event from a thread
        self.starts = []  # the name of each start
        self.complete = []  # the names of those that were stopped
        self.instants = []

    def play(self, step):
        kind, thread, *rest = step
        worker = self.workers[thread % len(self.workers)]
        getattr(self, kind)(worker, *rest)

    def start(self, worker, name, context):
        flat = [text for pair in context.items() for text in pair]
        identity = worker.do(lambda: instruments.startEvent(name, flat))
        source, serial = int(identity["sourceId"][0]), int(identity["serialId"][0])
        self._opened(name, lambda: instruments.stopEvent(name, flat, source, serial))

    def enter(self, worker, name, context):
        event = vantrace.event(name, **{f"k{i}": v for i, v in enumerate(context.values())})
        worker.do(event.__enter__)
        self._opened(name, lambda: event.__exit__(None, None, None), worker)

    def stop(self, worker, which, again):
        if not self.open:
            return
        name, stop, home, stopped = self.open[which % len(self.open)]
        (home or worker).do(stop)
        if not stopped:
            self.complete.append(name)
        self.open = [entry for entry in self.open if entry[1] is not stop]
        if again and home is None:
            self.open.append((name, stop, home, True))

    def instant(self, worker, name, context):
        worker.do(lambda: vantrace.instant(name, **{f"k{i}": v for i, v in enumerate(context)}))
        self.instants.append(name)

    def end(self):
        for worker in self.workers:
            worker.end()

    def _opened(self, name, stop, home=None):
        self.starts.append(name)
        self.open.append((name, stop, home, False))


threads = st.integers(0, 2)
contexts = st.dictionaries(texts.filter(bool), texts, max_size=3)
steps = st.one_of(
    st.tuples(st.just("start"), threads, names, contexts),
    st.tuples(st.just("enter"), threads, names, contexts),
    st.tuples(st.just("stop"), threads, st.integers(0, 9), st.booleans()),
    st.tuples(st.just("stop"), threads, st.just(-1), st.just(False)),
    st.tuples(st.just("instant"), threads, names, st.lists(texts, max_size=2)),
)
plays = st.lists(steps, max_size=25)
thread_names = st.lists(names, min_size=1, max_size=3)


@contextlib.contextmanager
def recording(of_threads):
    recorder.clearAllEventData()
    recorder.start()
    made = Recording(of_threads)
    try:
        yield made
    finally:
        made.end()
        recorder.stop()
        recorder.clearAllEventData()


def durations(exported):
    """Names of what the export shows as lasting, unfinished ones apart."""
    shown = [e for e in exported if e["ph"] in "Xb" or "duration_ns" in e.get("args", {})]
    done = [e["name"] for e in shown if "unfinished" not in e.get("args", {})]
    return done, [e["name"] for e in shown if "unfinished" in e.get("args", {})]


@given(thread_names, plays)
@settings(
    max_examples=60, deadline=None, derandomize=True, suppress_health_check=list(HealthCheck)
)
def test_exports_keep_the_rules_and_agree_with_the_events(of_threads, play):
    with recording(of_threads) as made:
        for step in play:
            made.play(step)
        events = recorder.getAllEvents()
        trace = recorder.getAllCompleteEventsTraceEventJson()
        trace_utc = recorder.getAllCompleteEventsTraceEventJsonWithUTC()
        trace_filtered = recorder.getAllCompleteEventsTraceEventJsonWithFilter(0.0)
        stacks = recorder.getAllEventsCollapsedStacks()

    assert check_trace(trace) == []
    assert check_trace(trace_utc, utc=True) == []
    assert check_trace(trace_filtered) == []
    assert check_collapsed(stacks) == []

    assert Counter(events["name"]) == Counter(made.complete)
    unfinished = list((Counter(made.starts) - Counter(made.complete)).elements())
    for text in (trace, trace_utc):
        done, still_open = durations(events_of(text))
        assert Counter(done) == Counter(map(shown, made.complete))
        assert Counter(still_open) == Counter(map(shown, unfinished))
    assert json.loads(trace_filtered)["metadata"].keys() == json.loads(trace)["metadata"].keys()


def work(rng, ready, handed_over):
    """Nested events, instants, and events that whichever thread comes next stops."""
    ready.wait()
    starts = 0
    for _ in range(60):
        with vantrace.event("outer", n=rng.randrange(3)), vantrace.event("inner"):
            vantrace.instant("tick")
        for _ in range(rng.randrange(3)):
            identity = instruments.startEvent("handed", ["n", "1"])
            handed_over.put((int(identity["sourceId"][0]), int(identity["serialId"][0])))
            starts += 1
        with contextlib.suppress(queue.Empty):
            instruments.stopEvent("handed", ["n", "1"], *handed_over.get_nowait())
    return starts + 2 * 60


def test_exports_taken_while_threads_run_keep_the_rules():
    handed_over = queue.SimpleQueue()
    ready = threading.Barrier(5)
    with recording([]), ThreadPoolExecutor(4) as pool:
        working = [pool.submit(work, random.Random(i), ready, handed_over) for i in range(4)]
        ready.wait()
        exports = []
        while len(exports) < 3 or not all(future.done() for future in working):
            exports.append(
                (
                    recorder.getAllCompleteEventsTraceEventJson(),
                    recorder.getAllCompleteEventsTraceEventJsonWithUTC(),
                    recorder.getAllEventsCollapsedStacks(),
                )
            )
        starts = sum(future.result() for future in working)
        while not handed_over.empty():
            instruments.stopEvent("handed", ["n", "1"], *handed_over.get_nowait())
        last = recorder.getAllCompleteEventsTraceEventJson()
        assert len(recorder.getAllEvents()["name"]) == starts
    for trace, trace_utc, stacks in exports[:: len(exports) // 20 + 1]:
        assert check_trace(trace) == []
        assert check_trace(trace_utc, utc=True) == []
        assert check_collapsed(stacks) == []
    assert check_trace(last) == []
    done, still_open = durations(events_of(last))
    assert (len(done), still_open) == (starts, [])
