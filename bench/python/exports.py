"""What exports of a million events cost, in milliseconds, beside the least that they can."""

import ctypes
import ctypes.util
import os
import tempfile

import bench_floors
import timing
import vantrace
from vantrace._core import Trace

EVENTS = 1_000_000

folder = tempfile.TemporaryDirectory()


def path(name):
    return os.path.join(folder.name, name)


def record():
    with vantrace.record(max_bytes=1 << 30) as recording:
        for _ in range(EVENTS // 2):
            with vantrace.event("outer"), vantrace.event("inner"):
                pass
    return recording


def milliseconds(work):
    return lambda: timing.process_time(work) / 1e6


def trace_file():
    """What was recorded, as a file that all exports are made from."""
    if not os.path.exists(path("a.vtrace")):
        record().save(path("a.vtrace"))
    return Trace(path("a.vtrace"))


def json():
    recording = record()
    return milliseconds(lambda: recording.save(path("a.json")))


def json_gz():
    trace = trace_file()
    return milliseconds(lambda: trace.save_json(path("a.json.gz")))


def floor_json():
    return milliseconds(lambda: bench_floors.write_json(path("floor.json"), EVENTS))


def deflate():
    """A function that compresses bytes by libdeflate at level 1."""
    library = ctypes.CDLL(ctypes.util.find_library("deflate"))
    library.libdeflate_alloc_compressor.restype = ctypes.c_void_p
    compress = library.libdeflate_gzip_compress
    compress.restype = ctypes.c_size_t
    buffer = [ctypes.c_char_p, ctypes.c_size_t]
    compress.argtypes = [ctypes.c_void_p, *buffer, *buffer]
    compressor = library.libdeflate_alloc_compressor(1)

    def run(text):
        out = ctypes.create_string_buffer(len(text))
        assert compress(compressor, text, len(text), out, len(text)) > 0

    return run


def floor_json_gz():
    """The export uncompressed, and its text compressed."""
    trace, compress = trace_file(), deflate()

    def both():
        trace.save_json(path("b.json"))
        with open(path("b.json"), "rb") as file:
            compress(file.read())

    return milliseconds(both)


with folder:
    timing.main(
        {"json": json, "floor_json": floor_json, "json_gz": json_gz, "floor_json_gz": floor_json_gz}
    )
