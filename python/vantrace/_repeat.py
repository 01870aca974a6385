"""`vantrace run --repeat`: a script several times, each in a new process, and the medians of all."""

import _signal
import os
import statistics
import subprocess
import sys
import time

from ._cli import UsageError
from ._run_files import numbered, runs_of
from ._supervise import Child, end_like
from ._table import ORDERS, aligned, printable, style_of, time_text


def run(script, arguments, given, output, table, options):
    """Runs the script so often, each run as `given`, the options of the command line, say; ends as
    the last one ended. One that fails ends it all.

    The traces are numbered: FILE.vtrace stands for FILE-1.vtrace and so on.
    """
    output = output or _fresh_name(script)
    if not output.endswith(".vtrace"):
        raise UsageError(f"--repeat writes .vtrace files, not {output!r}")
    for other in (output, numbered(output, options.repeat + 1)):
        if os.path.exists(other):
            raise UsageError(f"{other!r} is in the way: it would count as one of the runs")
    given = [option for option in given if option != "--"]
    for number in range(1, options.repeat + 1):
        own = ["--repeat=1", "--no-table", f"--output={numbered(output, number)}"]
        status = _run_once([*_command(), "run", *given, *own, "--", script, *arguments])
        if status != 0:
            end_like(status)
    if table:
        for line in lines(output, options, style_of(sys.stderr)):
            print(line, file=sys.stderr)
    return 0


def _fresh_name(script):
    stem = os.path.splitext(os.path.basename(script))[0]
    return f"vantrace-{stem}-{time.strftime('%Y%m%d-%H%M%S')}.vtrace"


def _command():
    """This program, as it was called."""
    flags = subprocess._args_from_interpreter_flags()
    own = ["-m", "vantrace"] if sys.argv[0].endswith("__main__.py") else [sys.argv[0]]
    return [sys.executable, *flags, *own]


def _run_once(command):
    mask = _signal.pthread_sigmask(_signal.SIG_BLOCK, [])
    child = Child()
    if child.is_here:
        os.execv(command[0], command)
    status = child.wait()
    _signal.pthread_sigmask(_signal.SIG_SETMASK, mask)
    return status


def lines(output, options, style):
    """The table of all runs: medians, and how far the runs lie apart."""
    from ._diff import Runs, spread_of

    runs = Runs(output)
    rows = [_Row(runs, name) for name in {name for rows in runs.names for name in rows}]
    rows.sort(key=ORDERS[options.sort])
    shown = rows[: options.top or None]
    yield (
        f"vantrace: medians of {len(runs.files)} runs; wall time "
        f"{_middle(runs.durations)}, the runs within {time_text(spread_of(runs.durations))}"
    )
    if shown:
        yield from aligned([_HEAD, *(row.cells() for row in shown)], style)
    if len(rows) > len(shown):
        yield f"... and {len(rows) - len(shown):,} more names"
    yield f"vantrace: the traces are {runs_of(output)[0]} to {runs_of(output)[-1]}"


def _middle(values):
    return time_text(round(statistics.median(values)))


_HEAD = ("function or event", "calls", "total", "self", "self within")


class _Row:
    def __init__(self, runs, name):
        self.name = name
        self._calls, self._total, self._own = (
            runs.values(name, measure) for measure in ("calls", "total", "self")
        )
        self.count = statistics.median(self._calls)
        self.total = statistics.median(self._total)
        self.self = statistics.median(self._own)
        self._spread = max(self._own) - min(self._own)

    def cells(self):
        return (
            printable(self.name) or "(unnamed)",
            f"{self.count:,.0f}",
            _middle(self._total),
            _middle(self._own),
            time_text(self._spread),
        )

