"""What tracing cost: an estimate, tried out in the process itself when its recording is over.

An empty function, or an empty event, runs some thousand times as it is, and again while it is
recorded in the same way: with the same totals, C calls and listeners, into memory that is new. What
one takes more then, times how many the recording has, is the estimate. It is more like the least
that tracing cost: in a program the caches are colder.
"""

import time

from ._core import event

# Some percent of what is to be estimated: many events cost more each, for the memory they touch.
_SHARE = 50
_FEWEST, _MOST = 2_000, 100_000
_REPEATS = 3
_PROBE = """
def probe():
    pass

def work(rounds):
    for _ in range(rounds):
        probe()

def produce(rounds):
    for _ in range(rounds):
        with event("probe"):
            pass
"""


def of_tracing(recording, events, listeners=()):
    """Nanoseconds that it cost to record so many events.

    `listeners` are the names of published ones that heard the events besides.
    """
    functions = recording.functions()
    if not functions:
        return round(events * _beyond("produce", events, recording._like, listeners))

    def of_events():
        return recording._like(include="probe.*")

    def of_others():
        return recording._like(exclude="*")

    cost = events * _beyond("work", events, of_events, listeners)
    cost += functions["collapsed_calls"] * _beyond("work", events, of_others, ())
    return round(cost)


def _beyond(name, events, recording, listeners):
    """What a round takes longer where such a recording goes on."""
    work = _probe(name)
    rounds = min(max(events // _SHARE, _FEWEST), _MOST)
    alone, traced = [], []
    for _ in range(_REPEATS):
        alone.append(_time_of(work, rounds))
        with recording(), _Listening(listeners):
            traced.append(_time_of(work, rounds))
    return max(min(traced) - min(alone), 0)


class _Listening:
    """Has published listeners hear what happens in the block, but for those that do already."""

    def __init__(self, names):
        self._listeners = []
        if names:
            from . import performance

            found = [getattr(performance.instrument, name) for name in names]
            self._listeners = [listener for listener in found if not listener.isActive()]

    def __enter__(self):
        for listener in self._listeners:
            listener.start()

    def __exit__(self, *_):
        for listener in reversed(self._listeners):
            listener.stop()


def _probe(name):
    names = {"__name__": "probe", "event": event}
    # A code object, not text: running text has the interpreter forget a pending end by interrupt.
    exec(compile(_PROBE, "<probe>", "exec"), names)
    return names[name]


def _time_of(work, rounds):
    """Of one round."""
    began = time.thread_time_ns()
    work(rounds)
    return (time.thread_time_ns() - began) / rounds
