"""Recording a stretch of a program."""

import os
from collections import namedtuple

from ._core import Recorder

Summary = namedtuple("Summary", "name count total self minimum maximum p50 p99")
Summary.__doc__ = """Complete events of one name; times in nanoseconds.

Half of them keep to p50, 99 of 100 to p99, within an eighth."""


class record:
    """record(path=None, *, max_bytes=0, keep="first", exact=False, functions=False, include=(),
    exclude=(), libraries=False, c_calls=False, lines=False, folder=None): records the events of all threads.

        with vantrace.record("trace.json") as recording:
            ...
        print(recording.summary())

    Every instrument is on inside the block. On leaving, the trace is written to `path`, where one
    is given: trace-event JSON (.json), collapsed stacks (.folded), or a trace file (.vtrace), which
    `vantrace export` makes the others from. Blocks may overlap and nest; each has a recorder of its
    own. A block that is entered again goes on with its recording.

    `max_bytes` bounds the memory for events (0: a quarter of the machine's). `keep` says what gives
    way then: "first" refuses new events, "last" drops the oldest, "longest" the shortest. With
    `exact` the summary counts what gave way, too. With a `folder` the events lie in files there,
    which outlive the process.

    With `functions` each call of a Python function in any thread is an event too. `include` and
    `exclude` are patterns of the shell for their names, `module.qualname`. The time of functions
    outside the user's own code, those of the standard library and of installed packages, is their
    callers', unless `libraries` is true. With `c_calls` the C functions that functions call are
    events too; that slows all Python code of the program. With `lines` samples tell, besides, which
    lines of the same functions the time passed in.
    """

    def __init__(
        self,
        path=None,
        *,
        max_bytes=0,
        keep="first",
        exact=False,
        functions=False,
        include=(),
        exclude=(),
        libraries=False,
        c_calls=False,
        lines=False,
        folder=None,
    ):
        self.path = None if path is None else os.fspath(path)
        if path is not None:
            writer(self.path)
        self._kind = {"keep": keep, "exact": exact, "functions": functions, "c_calls": c_calls}
        self._recorder = Recorder(max_bytes=max_bytes, keep=keep, folder=folder)
        self._totals = None
        if exact:
            from ._profile import Profiler

            self._totals = Profiler()
        self._functions = None
        if functions:
            from ._functions import Functions

            self._functions = Functions(include, exclude, libraries, c_calls)
        self._lines = None
        if lines:
            from ._lines import Lines

            self._lines = Lines(libraries, folder)

    def __enter__(self):
        if self.path is not None:
            check_writable(self.path)
        self._recorder.start()
        try:
            if self._totals:
                self._totals.start()
            if self._lines:
                self._lines.begin()
            if self._functions:
                self._functions.begin()
        except BaseException:
            self._stop_listening()
            raise
        return self

    def __exit__(self, kind, error, traceback):
        try:
            if self._functions:
                self._functions.end()
        finally:
            self._stop_listening()
        if self.path is None:
            return
        try:
            self.save(self.path)
        except OSError as failure:
            if error is None:
                raise
            # The block's own exception is the one to hear about.
            error.add_note(f"vantrace: the trace was not written: {failure}")

    def _like(self, **options):
        """Another one that records in the same way, whatever it takes for an event, in memory of its
        own."""
        return record(**self._kind | options)

    def _stop_listening(self):
        if self._lines:
            self._lines.end()
        if self._totals:
            self._totals.stop()
        self._recorder.stop()

    def save(self, path, *, min_duration=None):
        """Writes what was recorded so far; the ending says how: .json, .folded or .vtrace.

        With `min_duration`, in nanoseconds, shorter events and instants are left out of .json.
        """
        path = os.fspath(path)
        if self._lines and writer(path) is _save_trace:
            self._recorder.save_trace(path, self._lines.stream())
            return
        writer(path)(self._recorder, path, -1 if min_duration is None else min_duration)

    def summary(self):
        """Where the time went: a list of Summary, widest self time first."""
        if not self._totals:
            return [Summary(*line) for line in self._recorder.summary()]
        rows = [Summary(*line) for line in self._totals.summary()]
        return sorted(rows, key=lambda row: (-row.self, row.name))

    def stats(self):
        """The same by name: {name: Summary}."""
        return {row.name: row for row in self.summary()}

    def lines(self):
        """Which lines the time passed in: a list of Line, widest first, that is of (file, line,
        function, self, cpu, held, text); None where it was not asked for."""
        times = self.line_times()
        return times and times.lines

    def line_times(self):
        """The same with what is known of threads, as LineTimes; or None."""
        if not self._lines:
            return None
        from ._lines import times_of_stream

        return times_of_stream(self._lines.stream(), self._recorder.thread_names())

    @property
    def has_all_lines(self):
        """Whether there was room for all samples."""
        return not self._lines or self._lines.is_whole

    def events(self, name=None):
        """What was recorded so far, of one name or all, by start: a list of Event, that is of
        (name, kind, start, duration, thread, context)."""
        from ._events import listed

        return listed(self._recorder, name)

    def to_pandas(self, name=None):
        """The same as a pandas.DataFrame, with a column for each name of a context."""
        from ._events import data_frame

        return data_frame(self.events(name))

    def threads(self):
        """The name of each thread that has complete events; sorted, and one name a thread."""
        return self._recorder.threads()

    def functions(self):
        """What tracing functions collapsed and did not see; None where it was not asked for."""
        return self._functions and self._functions.report()

    def places(self):
        """Where functions stand: {name: (file, line)}."""
        from ._functions import places

        return places()

    @property
    def counts_all(self):
        """Whether the summary counts what is not in the trace, too."""
        return self._totals is not None

    def drops(self):
        """How many events were dropped, by cause."""
        return self._recorder.drops()

    def clear(self):
        """Forgets what was recorded so far."""
        self._recorder.clear()
        if self._totals:
            self._totals.clear()
        if self._lines:
            self._lines.clear()

    @property
    def is_active(self):
        """Whether the block is entered."""
        return self._recorder.is_active

    def __repr__(self):
        return f"<record {self.path!r}{' active' if self.is_active else ''}>"


def _save_stacks(recorder, path, _):
    recorder.save_stacks(path)


def _save_trace(recorder, path, _):
    recorder.save_trace(path)


_WRITERS = {".json": Recorder.save_json, ".folded": _save_stacks, ".vtrace": _save_trace}


def writer(path):
    """What writes a trace of that ending; ValueError for another ending."""
    ending = os.path.splitext(os.fsdecode(path))[1]
    if ending not in _WRITERS:
        raise ValueError(f"a trace ends in .vtrace, .json or .folded, not {os.fsdecode(path)!r}")
    return _WRITERS[ending]


def check_writable(path):
    """Raises the OSError that writing a file there would run into, as far as can be seen before."""
    path = os.fsdecode(path)
    folder = os.path.dirname(path) or os.curdir
    if os.path.isdir(path):
        raise _os_error("EISDIR", path)
    if not os.path.exists(folder):
        raise _os_error("ENOENT", path)
    if not os.path.isdir(folder):
        raise _os_error("ENOTDIR", path)
    if not os.access(folder, os.W_OK | os.X_OK):
        raise _os_error("EACCES", path)


def _os_error(name, path):
    import errno

    number = getattr(errno, name)
    return OSError(number, os.strerror(number), path)
