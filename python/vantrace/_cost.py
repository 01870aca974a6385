"""What tracing costs on this machine, by trying it."""

import time

from ._core import event
from ._record import record

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
        with event:
            pass
"""


def of_calls(events, others):
    """Nanoseconds that tracing added to so many calls which are events, and so many which are not."""
    rounds, work = _rounds(events), _probe("work")
    alone = _best(work, rounds)
    with record(functions=True, include="probe.*"):
        event = _best(work, rounds)
    with record(functions=True, exclude="*"):
        other = _best(work, rounds)
    return round(events * max(event - alone, 0) + others * max(other - alone, 0))


def of_events(events):
    """Nanoseconds that tracing added to the code that produced so many events."""
    rounds, produce = _rounds(events), _probe("produce")
    alone = _best(produce, rounds)
    with record():
        recorded = _best(produce, rounds)
    return round(events * max(recorded - alone, 0))


def _rounds(events):
    return min(max(events // _SHARE, _FEWEST), _MOST)


def _probe(name):
    names = {"__name__": "probe", "event": event("probe")}
    # A code object, not text: running text has the interpreter forget a pending end by interrupt.
    exec(compile(_PROBE, "<probe>", "exec"), names)
    return names[name]


def _best(work, rounds):
    """The least time of a round."""
    times = []
    for _ in range(_REPEATS):
        began = time.thread_time_ns()
        work(rounds)
        times.append(time.thread_time_ns() - began)
    return min(times) / rounds
