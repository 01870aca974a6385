"""What events and published methods cost, in nanoseconds beyond an empty loop."""

import logging
import os
import time

# Decided when the package is imported: decorated functions stay as they are then.
os.environ["VANTRACE_DISABLED"] = "1"
import vantrace  # noqa: E402

decorated_off = vantrace.event("off")(lambda: None)
del os.environ["VANTRACE_DISABLED"]

import bench_floors  # noqa: E402
import timing  # noqa: E402
import vantrace._decorate  # noqa: E402
from vantrace import performance  # noqa: E402

vantrace._decorate.IS_DISABLED = False

ROUNDS = 20_000
NAMES = tuple(f"name.{number}" for number in range(100))
LITTLE_MEMORY = 16 << 20
# As many as fill it: what comes after them goes where they were.
INSTANTS_OF_MEMORY = LITTLE_MEMORY // 16 * 5 // 4


class Timer:
    """What people write."""

    def __init__(self, name, times):
        self.name = name
        self.times = times

    def __enter__(self):
        self.began = time.perf_counter_ns()

    def __exit__(self, *_):
        self.times[self.name] = time.perf_counter_ns() - self.began


def loop(body, setup):
    names = {"NAMES": NAMES * (ROUNDS // len(NAMES)), **setup}
    exec(f"def run():\n for name in NAMES:\n  {body}", names)
    return names["run"]


def beyond(body, over="pass", **setup):
    """A sample of what a round of `body` takes beyond one of `over`."""
    measured, empty = loop(body, setup), loop(over, setup)
    measured()

    def sample():
        return (timing.process_time(measured) - timing.process_time(empty)) / ROUNDS

    return sample


def recorded(body, **setup):
    """The same while it is recorded, in memory that is used again."""
    recording = vantrace.record(keep="last", max_bytes=LITTLE_MEMORY)
    with recording:
        sample = beyond(body, **setup)
        for _ in range(INSTANTS_OF_MEMORY // ROUNDS):
            loop(body, setup)()

    def recorded_sample():
        with recording:
            return sample()

    return recorded_sample


def function():
    return None


event, floor = vantrace.event, bench_floors
controls, utils = performance.instrument.controls, performance.utils
traced = vantrace.event("decorated")(function)
assert traced is not function

WITH = "with event('n'{}): pass"
MEASUREMENTS = {
    "event": lambda: recorded(WITH.format(""), event=event),
    "floor_event": lambda: beyond(WITH.format(""), event=floor.event),
    "peer_class": lambda: beyond("with timer('n', times): pass", timer=Timer, times={}),
    "event_names": lambda: recorded("with event(name): pass", event=event),
    "floor_event_names": lambda: beyond("with event(name): pass", event=floor.event),
    "event_number": lambda: recorded(WITH.format(", k=1"), event=event),
    "floor_event_number": lambda: beyond(WITH.format(", k=1"), event=floor.event),
    "event_numbers": lambda: recorded(WITH.format(", k=1, x=2.5"), event=event),
    "floor_event_numbers": lambda: beyond(WITH.format(", k=1, x=2.5"), event=floor.event),
    "event_inactive": lambda: beyond(WITH.format(""), event=event),
    "floor_event_inactive": lambda: beyond(WITH.format(""), event=floor.idle_event),
    "peer_logging": lambda: beyond("debug('n')", debug=logging.getLogger("bench").debug),
    "decorated": lambda: recorded("call()", over="plain()", call=traced, plain=function),
    "floor_decorated": lambda: beyond(
        "call()", over="plain()", call=floor.wrap(function), plain=function
    ),
    "decorated_off": lambda: beyond(
        "call()", over="plain()", call=decorated_off, plain=lambda: None
    ),
    "instant": lambda: recorded("instant('n')", instant=vantrace.instant),
    "floor_instant": lambda: beyond("instant('n')", instant=floor.instant),
    "counter": lambda: recorded("counter('n', 2.5)", counter=vantrace.counter),
    "floor_counter": lambda: beyond("counter('n', 2.5)", counter=floor.counter),
    "method": lambda: beyond("timer()", timer=utils.getNanosecondTimer),
    "floor_method": lambda: beyond("timer()", timer=floor.clock),
    "method_text": lambda: beyond("has('gamma')", has=controls.has),
    "floor_method_text": lambda: beyond("has('gamma')", has=floor.has),
}

timing.main(MEASUREMENTS, samples=15)
