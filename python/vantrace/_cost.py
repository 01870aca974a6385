"""What tracing functions costs on this machine, by trying it."""

import time

from ._record import record

_ROUNDS = 2_000
_REPEATS = 3
_PROBE = """
def probe():
    pass

def work(rounds):
    for _ in range(rounds):
        probe()
"""


def of_calls():
    """Nanoseconds that tracing adds to a call which is an event, and to one that is not."""
    names = {"__name__": "probe"}
    # A code object, not text: running text has the interpreter forget a pending end by interrupt.
    exec(compile(_PROBE, "<probe>", "exec"), names)
    work = names["work"]
    alone = _best(work)
    with record(functions=True, include="probe.*"):
        event = _best(work)
    with record(functions=True, exclude="*"):
        other = _best(work)
    return max(event - alone, 0), max(other - alone, 0)


def _best(work):
    times = []
    for _ in range(_REPEATS):
        began = time.thread_time_ns()
        work(_ROUNDS)
        times.append(time.thread_time_ns() - began)
    return min(times) / _ROUNDS
