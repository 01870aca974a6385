"""Sampling of lines while a recording goes on: where inside functions time goes."""

import os
from collections import namedtuple

from ._core import line_samples
from ._functions import LIBRARIES, OWN

Line = namedtuple("Line", "file line function self cpu held text")
Line.__doc__ = """What was spent on a line, as samples tell; times in nanoseconds.

`self` passed in it, waiting too; of that, `cpu` is CPU time, and for `held` the thread had the
interpreter's lock."""

LineThread = namedtuple("LineThread", "name seen cpu held")
LineThread.__doc__ = """How long a thread was seen; of that CPU time, and with the interpreter's lock."""

_begun = set()


def needed_sampler():
    """The class of samplers; ImportError or OSError where lines cannot be sampled."""
    try:
        from ._sampler import Sampler, check_readable
    except ModuleNotFoundError as error:
        raise ImportError("lines are sampled by CPython 3.11 only", name=error.name) from None
    check_readable()
    return Sampler


class Lines:
    """Samples of all threads; begun and ended, perhaps several times.

    Lines of libraries are their callers' unless `libraries` is true. With a folder what is found
    lies in files there, and children after fork go on in files of their own.
    """

    def __init__(self, libraries, folder):
        self._new_sampler = needed_sampler()
        self._libraries = libraries
        self._folder = folder
        self._sampler = None
        self._streams = []
        self.is_whole = True

    def begin(self):
        self._sampler = self._new_sampler(OWN, LIBRARIES, self._libraries, self._folder)
        _begun.add(self)

    def end(self):
        if self._sampler is None:
            return
        _begun.discard(self)
        sampler, self._sampler = self._sampler, None
        sampler.stop()
        self.is_whole = self.is_whole and sampler.is_whole
        self._streams.append(sampler.file or sampler.stream())

    def clear(self):
        """Forgets what was found so far, but for what lies in files."""
        self._flush()
        self._streams.clear()

    def stream(self):
        """What was found so far."""
        self._flush()
        return b"".join(map(_content, self._streams))

    def _flush(self):
        if self._sampler is not None:
            self.end()
            self.begin()

    def begin_in_child(self):
        """After a fork the sampler's thread is gone."""
        self._sampler = None
        self._streams.clear()
        if self._folder is not None:
            self.begin()


def _content(stream):
    if isinstance(stream, bytes):
        return stream
    try:
        with open(stream, "rb") as file:
            return file.read()
    except OSError:
        return b""  # nothing was written, or the program tidied up


def _begin_in_child():
    begun = list(_begun)
    _begun.clear()
    for lines in begun:
        lines.begin_in_child()


os.register_at_fork(after_in_child=_begin_in_child)


class LineTimes:
    """Sums of samples: of a stream, or as Trace.lines gives them."""

    def __init__(self, samples):
        threads, lines, periods, times = samples
        self.ticks = sum(ticks for _, _, ticks, _ in periods)
        by_line = _sums(times, lambda time: time[2])
        by_thread = _sums((time for time in times if time[2] < 0), lambda time: time[1])
        by_line.pop(-1, None)
        self.lines = [
            Line(*lines[number][:1], lines[number][2], lines[number][1], *sums, lines[number][3])
            for number, sums in by_line.items()
        ]
        self.lines.sort(key=lambda line: (-line.self, line.file, line.line))
        self.threads = [
            LineThread(threads[number][2], *sums) for number, sums in by_thread.items()
        ]
        self.threads.sort(key=lambda thread: (-thread.cpu, thread.name))


def _sums(times, key_of):
    """Time, CPU time and time with the lock by a key."""
    sums = {}
    for time in times:
        sum_of_key = sums.setdefault(key_of(time), [0, 0, 0])
        for place, value in enumerate(time[3:]):
            sum_of_key[place] += value
    return sums


def times_of_stream(stream, names):
    """What a recording of this process found, with what it calls threads by the system's ids."""
    threads, *others = line_samples(stream)
    named = [(process, thread, names.get(thread, name)) for process, thread, name in threads]
    return LineTimes((named, *others))
