"""What tracing functions costs on this machine, by trying it."""

import time

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
"""


def of_calls(events, others):
    """Nanoseconds that tracing added to so many calls which are events, and so many which are not."""
    rounds = min(max(events // _SHARE, _FEWEST), _MOST)
    names = {"__name__": "probe"}
    # A code object, not text: running text has the interpreter forget a pending end by interrupt.
    exec(compile(_PROBE, "<probe>", "exec"), names)
    work = names["work"]
    alone = _best(work, rounds)
    with record(functions=True, include="probe.*"):
        event = _best(work, rounds)
    with record(functions=True, exclude="*"):
        other = _best(work, rounds)
    return round(events * max(event - alone, 0) + others * max(other - alone, 0))


def _best(work, rounds):
    """The least time of a round."""
    times = []
    for _ in range(_REPEATS):
        began = time.thread_time_ns()
        work(rounds)
        times.append(time.thread_time_ns() - began)
    return min(times) / rounds
