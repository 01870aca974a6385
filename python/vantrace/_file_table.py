"""`vantrace table`: where the time of a trace file went."""

import sys

from . import _options, _run_options
from ._cli import UsageError
from ._core import Trace
from ._record import Summary
from ._table import lines, style_of

USAGE = """\
usage: vantrace table [--sort KEY] [--top N] FILE

Tells where the time of a .vtrace file went, by name.

  --sort KEY  the order: self (default), total, calls or name
  --top N     at most N rows (default 40; 0: all)
"""


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
    options = _TableOptions(arguments)
    if options.wants_help:
        sys.stdout.write(USAGE)
        return 0
    file = options.only_file()
    try:
        found = lines_of_trace(file, options, style_of(sys.stdout))
    except OSError as error:
        raise UsageError(f"cannot read {file!r}: {error.strerror}") from None
    except RuntimeError as error:
        raise UsageError(error) from None
    for line in found:
        print(line)
    return 0


class _TableOptions(_options.Options):
    COMMAND = "table"
    VALUES = {option: _run_options.VALUES[option] for option in ("--sort", "--top")}

    def __init__(self, arguments):
        defaults = _run_options.RunOptions()
        self.sort, self.top = defaults.sort, defaults.top
        super().__init__(arguments)
