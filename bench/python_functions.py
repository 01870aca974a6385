#!/usr/bin/python3
"""What tracing every Python function costs: CPU time of the process, as a ratio to the untraced run.

Each row is measured in turn, untraced and traced, and is the median of several rounds. Warm: events
go where older ones were; cold: to memory that is touched for the first time. With totals: as `vantrace
run` does it.
"""

import ast
import cProfile
import gc
import json
import json.decoder
import json.encoder
import json.scanner
import statistics
import time

import numpy

import vantrace

REPEATS = 7
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
    f"fib({FIB})": lambda: fib(FIB),
    "JSON coder of the library, pure Python": json_coder,
    "ast.unparse of ast.py": unparse,
    "NumPy, solving 300 x 300": numpy_bound,
}


def cpu_time(work):
    gc.collect()
    gc.disable()
    began = time.process_time_ns()
    work()
    took = time.process_time_ns() - began
    gc.enable()
    return took


def in_turn(work, contexts):
    """The median CPU time under each of the contexts."""
    times = [[] for _ in contexts]
    for _ in range(REPEATS):
        for context, taken in zip(contexts, times):
            with context():
                taken.append(cpu_time(work))
    return [statistics.median(taken) for taken in times]


class untraced:
    def __enter__(self):
        return self

    def __exit__(self, *_):
        return None


def cold(**options):
    return lambda: vantrace.record(functions=True, libraries=True, **options)


def warm(**options):
    recording = cold(keep="last", max_bytes=LITTLE_MEMORY, **options)()
    with recording:
        fib(FIB)
    return lambda: recording


def main():
    contexts = {
        "untraced": untraced,
        "hook alone": cold(exclude="*"),
        "warm": warm(),
        "cold": cold(),
        "with totals": warm(exact=True),
        "with C calls": warm(c_calls=True),
        "cProfile": cProfile.Profile,
    }
    print(f"{'':42}{'untraced':>13}" + "".join(f"{name:>13}" for name in list(contexts)[1:]))
    for name, work in WORK.items():
        alone, *others = in_turn(work, contexts.values())
        ratios = "".join(f"{other / alone:>11.2f} x" for other in others)
        print(f"{name:42}{alone / 1e6:>9.1f} ms{ratios}")
        if work is WORK[f"fib({FIB})"]:
            calls = "".join(f"{(other - alone) / FIB_CALLS:>10.1f} ns" for other in others)
            print(f"{'  for each call':42}{alone / FIB_CALLS:>9.1f} ns{calls}")


if __name__ == "__main__":
    main()
