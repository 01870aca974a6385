"""`vantrace table`: where the time of a trace file went."""

import sys

from ._cli import UsageError
from ._core import Trace
from ._record import Summary
from ._run_options import RunOptions
from ._table import lines, style_of

USAGE = """\
usage: vantrace table [--sort KEY] [--top N] FILE

Tells where the time of a .vtrace file went, by name.

  --sort KEY  the order: self (default), total, calls or name
  --top N     at most N rows (default 40; 0: all)
"""

_OPTIONS = ("--sort", "--top")


def lines_of_trace(path, options, style):
    """The table's lines for a trace file; OSError or RuntimeError where it cannot be read.

    Of `options` it needs `sort` and `top`.
    """
    trace = Trace(path)
    return list(lines(_Traced(trace), trace.duration, None, options, style))


class _Traced:
    """A trace file, as the table sees a recording: it counts what is in the trace."""

    counts_all = False
    has_all_lines = True

    def __init__(self, trace):
        self._trace = trace
        self.threads = trace.threads
        self.drops = trace.drops

    def summary(self):
        return [Summary(*line) for line in self._trace.summary()]

    def functions(self):
        return None

    def line_times(self):
        samples = self._trace.lines()
        if not samples[0]:
            return None
        from ._lines import LineTimes

        return LineTimes(samples)


def table(arguments):
    """Runs `vantrace table`; gives the exit status."""
    files, options, arguments = [], RunOptions(), list(arguments)
    while arguments:
        argument = arguments.pop(0)
        if argument in ("-h", "--help"):
            sys.stdout.write(USAGE)
            return 0
        if not argument.startswith("-"):
            files.append(argument)
        elif argument.partition("=")[0] not in _OPTIONS:
            raise UsageError(f"table has no option {argument!r}; see vantrace table --help")
        else:
            options.take(argument, arguments)
    if len(files) != 1:
        raise UsageError(f"table takes one file, not {len(files)}")
    try:
        found = lines_of_trace(files[0], options, style_of(sys.stdout))
    except OSError as error:
        raise UsageError(f"cannot read {files[0]!r}: {error.strerror}") from None
    except RuntimeError as error:
        raise UsageError(error) from None
    for line in found:
        print(line)
    return 0
