"""`vantrace export` and `vantrace combine`: what becomes of trace files."""

import _signal
import os
import sys

from . import _options
from ._cli import UsageError
from ._core import Trace, combine_traces, finish_run_folder
from ._progress import Progress
from ._record import check_writable
from ._table import dropped

USAGE = """\
usage: vantrace export FILE -o OUTPUT [OPTIONS]
       vantrace export FOLDER -o OUTPUT.vtrace
       vantrace combine FILE ... -o OUTPUT

export writes a .vtrace file as .json (trace events), .json.gz, .folded (collapsed stacks),
.prof (for pstats) or .speedscope.json. Of the folder that a run left which could not finish, it makes
the .vtrace file; the folder stays. combine joins .vtrace files into one, by their clocks.

options of export:
  -o, --output OUTPUT   the file to write
  --since T, --until T  only what overlaps this time from the first event on; as 10us, 1.5ms, 2s
  --min-duration T      leave out shorter events, and those without duration
  --most-per-thread N   of each thread only the longest N events
  --no-args             no contexts
  --split SIZE          several .json files of at most that size each; as 500K, 100M, 1G
"""


def _save_pstats(trace, path):
    from ._pstats import save_pstats

    save_pstats(trace, path)


# How often a file is read for an export, without what depends on its content.
_READINGS = {".speedscope.json": 3, ".json": 3, ".json.gz": 3, ".folded": 2, ".prof": 2}
_WRITERS = {
    ".speedscope.json": Trace.save_speedscope,
    ".json": Trace.save_json,
    ".json.gz": Trace.save_json,
    ".folded": Trace.save_stacks,
    ".prof": _save_pstats,
}


def trace_writer(path, what="an export", others=()):
    """What writes a trace file's events as that kind of file; UsageError for another kind."""
    for ending, write in _WRITERS.items():
        if path.endswith(ending):
            return write
    raise UsageError(f"{what} ends in {', '.join((*others, *_WRITERS))}, not {path!r}")


def export(arguments):
    """Runs `vantrace export`; gives the exit status."""
    options = _ExportOptions(arguments)
    if options.wants_help:
        sys.stdout.write(USAGE)
        return 0
    if len(options.files) != 1:
        raise UsageError("export takes one file; see vantrace export --help")
    output = options.needed_output()
    if os.path.isdir(options.files[0]):
        return _finish(options.files[0], output)
    write = trace_writer(output)
    if options.split and write is not Trace.save_json:
        raise UsageError("only .json and .json.gz are split")
    with _Interruptible(), Progress("exporting", _bytes_to_read(options)) as progress:
        trace = read_trace(options.files[0], progress)
        trace.select(*options.selection())
        try:
            if options.split:
                trace.save_parts(output, options.split)
            else:
                write(trace, output)
        except OSError as error:
            raise UsageError(f"cannot write {error.filename!r}: {error.strerror}") from None
    for line in dropped(trace.drops()):
        print(line, file=sys.stderr)
    return 0


def _bytes_to_read(options):
    readings = next(n for ending, n in _READINGS.items() if options.output.endswith(ending))
    return _size_of(options.files[0]) * (readings + options.needs_reading_to_select)


def _size_of(file):
    try:
        return os.path.getsize(file)
    except OSError:
        return 0


class _Interruptible:
    """An interrupt leaves it as it would leave a program that knows nothing of interrupts."""

    def __enter__(self):
        return self

    def __exit__(self, kind, *_):
        if kind is KeyboardInterrupt:
            _signal.signal(_signal.SIGINT, _signal.SIG_DFL)
            os.kill(os.getpid(), _signal.SIGINT)


def _finish(folder, output):
    if not output.endswith(".vtrace"):
        raise UsageError(f"of a folder comes a .vtrace file, not {output!r}")
    if not any(name.endswith(".run") for name in os.listdir(folder)):
        raise UsageError(f"there is no recording in {folder!r}")
    try:
        finish_run_folder(folder, output)
    except OSError as error:
        raise UsageError(f"cannot write {error.filename!r}: {error.strerror}") from None
    return 0


def combine(arguments):
    """Runs `vantrace combine`; gives the exit status."""
    options = _ExportOptions(arguments)
    if options.wants_help:
        sys.stdout.write(USAGE)
        return 0
    if not options.files:
        raise UsageError("combine takes files; see vantrace combine --help")
    output = options.needed_output()
    if not output.endswith(".vtrace"):
        raise UsageError(f"combine writes a .vtrace file, not {output!r}")
    with _Interruptible():
        for file in options.files:
            with Progress(f"reading {file}", _size_of(file)) as progress:
                read_trace(file, progress)
        with Progress("combining", sum(map(_size_of, options.files))) as progress:
            try:
                combine_traces(options.files, output, progress)
            except OSError as error:
                raise UsageError(f"cannot write {error.filename!r}: {error.strerror}") from None
            except RuntimeError as error:
                raise UsageError(error) from None
    return 0


def read_trace(file, progress=None):
    """Opens a trace file, and says what is not whole; UsageError where it cannot be read."""
    try:
        trace = Trace(file, progress)
    except OSError as error:
        raise UsageError(f"cannot read {file!r}: {error.strerror}") from None
    except RuntimeError as error:
        raise UsageError(error) from None
    if trace.damaged_blocks:
        print(f"vantrace: parts of {file!r} are damaged and left out", file=sys.stderr)
    elif not trace.is_complete:
        print(f"vantrace: the end of {file!r} is missing", file=sys.stderr)
    return trace


class _ExportOptions(_options.Options):
    """What stands behind export and combine."""

    COMMAND = "export"
    FLAGS = {"--no-args": ("_contexts", False)}
    VALUES = {
        "-o": ("output", _options.path),
        "--output": ("output", _options.path),
        "--since": ("_since", _options.time),
        "--until": ("_until", _options.time),
        "--min-duration": ("_min_duration", _options.time),
        "--most-per-thread": ("_most_per_thread", _options.number(least=1)),
        "--split": ("split", _options.size),
    }

    def __init__(self, arguments):
        self.output = None
        self.split = 0
        self._since = self._until = None
        self._min_duration = -1
        self._most_per_thread = 0
        self._contexts = True
        super().__init__(arguments)

    def selection(self):
        """As Trace.select takes them."""
        return (
            self._since,
            self._until,
            self._min_duration,
            self._most_per_thread,
            self._contexts,
        )

    @property
    def needs_reading_to_select(self):
        return self._most_per_thread > 0

    def needed_output(self):
        """The file to write, which can be written as far as can be seen now."""
        if self.output is None:
            raise UsageError("-o says which file to write")
        try:
            check_writable(self.output)
        except OSError as error:
            raise UsageError(f"cannot write {error.filename!r}: {error.strerror}") from None
        return self.output
