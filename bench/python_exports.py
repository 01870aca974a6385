#!/usr/bin/python3
"""What exports of a million events cost, in CPU time of the process, beside a fast deflate alone."""

import ctypes
import ctypes.util
import os
import pathlib
import statistics
import tempfile
import time

import vantrace
from vantrace._core import Trace

EVENTS = 1_000_000
REPEATS = 5


def record():
    with vantrace.record(max_bytes=1 << 30) as recording:
        outer, inner = vantrace.event("outer"), vantrace.event("inner")
        for _ in range(EVENTS // 2):
            with outer:
                with inner:
                    pass
    return recording


def seconds(work):
    """The median of several runs."""
    times = []
    for _ in range(REPEATS):
        began = time.process_time_ns()
        work()
        times.append(time.process_time_ns() - began)
    return statistics.median(times) / 1e9


def fast_deflate():
    """Compresses bytes with libdeflate at level 1; None where that is not installed."""
    name = ctypes.util.find_library("deflate")
    if not name:
        return None
    library = ctypes.CDLL(name)
    library.libdeflate_alloc_compressor.restype = ctypes.c_void_p
    compress = library.libdeflate_gzip_compress
    compress.restype = ctypes.c_size_t
    buffer = [ctypes.c_char_p, ctypes.c_size_t]
    compress.argtypes = [ctypes.c_void_p, *buffer, *buffer]
    compressor = library.libdeflate_alloc_compressor(1)

    def deflate(text):
        out = ctypes.create_string_buffer(len(text))
        assert compress(compressor, text, len(text), out, len(text)) > 0

    return deflate


def row(name, value, unit="s"):
    print(f"{name:54}{value:10.3f} {unit}")


def main():
    recording = record()
    with tempfile.TemporaryDirectory() as folder:
        path = pathlib.Path(folder)
        recording.save(path / "a.vtrace")
        row("recorder to JSON, file", seconds(lambda: recording.save(path / "a.json")))
        row("recorder to trace file", seconds(lambda: recording.save(path / "b.vtrace")))
        row("opening a trace file", seconds(lambda: Trace(path / "a.vtrace")))
        trace = Trace(path / "a.vtrace")
        json = seconds(lambda: trace.save_json(path / "b.json"))
        row("trace file to JSON, file", json)
        packed = seconds(lambda: trace.save_json(path / "b.json.gz"))
        row("trace file to .json.gz, file", packed)
        row("trace file to collapsed stacks", seconds(lambda: trace.save_stacks(path / "b.folded")))
        text = (path / "b.json").read_bytes()
        deflate = fast_deflate()
        if deflate:
            alone = seconds(lambda: deflate(text))
            row("that JSON through libdeflate, level 1", alone)
            row(".json.gz over JSON and that", packed / (json + alone), "x")
        row("size of .json.gz", os.path.getsize(path / "b.json.gz") / len(text) * 100, "%")


main()
