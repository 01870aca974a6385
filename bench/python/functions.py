"""What tracing every Python function costs, in milliseconds of whole programs.

A measurement is named WORK.CONTEXT: what runs, and under what. Warm: events go where older ones
were; cold: to memory that is touched for the first time. With totals: as `vantrace run` does it.
"""

import ast
import cProfile
import json
import json.decoder
import json.encoder
import json.scanner
from contextlib import nullcontext

import numpy

import bench_floors
import timing
import vantrace

FIB = 27
FIB_CALLS = 635_621
# Less than the events of two rounds take: the oldest give way to those of the next.
LITTLE_MEMORY = 16 << 20


def fib(number):
    return number if number < 2 else fib(number - 1) + fib(number - 2)


def document():
    item = {"name": "some text", "numbers": [1, 2.5, -3, 1e9], "flags": {"a": True, "b": None}}
    return [dict(item, number=number) for number in range(1_000)]


class PureEncoder(json.JSONEncoder):
    def iterencode(self, o, _one_shot=False):
        return json.encoder._make_iterencode(
            {}, self.default, json.encoder.py_encode_basestring_ascii, self.indent,
            float.__repr__, self.key_separator, self.item_separator, self.sort_keys,
            self.skipkeys, _one_shot,
        )(o, 0)  # fmt: skip


class PureDecoder(json.JSONDecoder):
    def __init__(self):
        super().__init__()
        self.parse_string = json.decoder.py_scanstring
        self.scan_once = json.scanner.py_make_scanner(self)


def json_coder(items=document()):
    text = "".join(PureEncoder().iterencode(items))
    assert len(PureDecoder().decode(text)) == len(items)


with open(ast.__file__, encoding="utf-8") as _file:
    _TREE = ast.parse(_file.read())


def unparse():
    ast.unparse(_TREE)


def numpy_bound(matrix=numpy.random.default_rng(1).random((300, 300))):
    for _ in range(10):
        numpy.linalg.solve(matrix, matrix @ matrix)


WORK = {
    "fib": lambda: fib(FIB),
    "json": json_coder,
    "unparse": unparse,
    "numpy": numpy_bound,
}


class hooked:
    """Under a hook of the floors."""

    def __init__(self, hook):
        self.hook = hook

    def __enter__(self):
        self.hook(True)

    def __exit__(self, *_):
        self.hook(False)


class yappi_running:
    def __init__(self):
        import yappi

        self.yappi = yappi

    def __enter__(self):
        self.yappi.set_clock_type("wall")
        self.yappi.start()

    def __exit__(self, *_):
        self.yappi.stop()
        self.yappi.clear_stats()


def cold(**options):
    return lambda: vantrace.record(functions=True, libraries=True, **options)


def warm(**options):
    """A recording whose memory is full already."""
    recording = cold(keep="last", max_bytes=LITTLE_MEMORY, **options)()
    with recording:
        fib(FIB)
    return lambda: recording


CONTEXTS = {
    "untraced": lambda: nullcontext,
    "floor_frame": lambda: lambda: hooked(bench_floors.frame_hook),
    "floor_frame_empty": lambda: lambda: hooked(bench_floors.empty_frame_hook),
    "floor_frame_growing": lambda: lambda: hooked(bench_floors.growing_frame_hook),
    "floor_profile": lambda: lambda: hooked(bench_floors.profile_hook),
    "hook": lambda: cold(exclude="*"),
    "warm": warm,
    "cold": cold,
    "totals": lambda: warm(exact=True),
    "c_calls": lambda: warm(c_calls=True),
    "cprofile": lambda: cProfile.Profile,
    "yappi": lambda: yappi_running,
}


def milliseconds(work, context):
    with context():
        return timing.process_time(work) / 1e6


def prepared(work, prepare):
    context = prepare()
    return lambda: milliseconds(work, context)


def per_call(prepare):
    """Nanoseconds of a call of fib, beyond an untraced one."""
    context = prepare()

    def sample():
        untraced = milliseconds(WORK["fib"], nullcontext)
        return (milliseconds(WORK["fib"], context) - untraced) * 1e6 / FIB_CALLS

    return sample


def bytes_of_a_call():
    """Of the recorder's memory; the part of it that a chunk has left counts."""

    def sample():
        with cold()() as recording:
            fib(FIB)
        return recording._recorder.bytes_in_use / FIB_CALLS

    return sample


def measurements():
    yield "fib.memory", bytes_of_a_call
    for name, prepare in CONTEXTS.items():
        yield f"fib.{name}#call", lambda prepare=prepare: per_call(prepare)
        for work, run in WORK.items():
            yield f"{work}.{name}", lambda run=run, prepare=prepare: prepared(run, prepare)


timing.main(dict(measurements()), samples=3)
