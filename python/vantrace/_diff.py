"""`vantrace diff`: what became of the time from one run to another, by name."""

import json
import math
import re
import statistics
import sys
from dataclasses import asdict, dataclass

from . import _options
from ._cli import UsageError
from ._export import read_trace
from ._run_files import runs_of
from ._table import aligned, printable, style_of, time_text

USAGE = """\
usage: vantrace diff [OPTIONS] A B

Compares two .vtrace files by name, most changed first. A and B may be those of vantrace run
--repeat: then medians are compared, and a change within the spread of both is no change.

options:
  --by WHAT          what of a name to compare: self (default) or total time, or calls
  --top N            at most N rows (default 40; 0: all)
  --fail-if PERCENT  status 1 when the wall time or a name grew by more, as 10%; names that are less
                     than a hundredth of all are let pass
  --json             as JSON, all names
"""

_LEAST_SHARE = 0.01


@dataclass
class Change:
    """A name in both runs: medians, in nanoseconds where it is time."""

    name: str
    before: float
    after: float
    spread: float  # how far the runs of either lie apart
    calls_before: float
    calls_after: float

    @property
    def difference(self):
        return self.after - self.before

    @property
    def is_change(self):
        """Whether it is more than what runs of one kind differ by."""
        return abs(self.difference) > self.spread

    @property
    def percent(self):
        """None where there was nothing before."""
        return 100 * self.difference / self.before if self.before else None

    @property
    def growth(self):
        """The same; without bound where there was nothing before."""
        return math.inf if self.percent is None and self.after else self.percent or 0


class Runs:
    """What one side of the comparison has: a row by name for each run."""

    def __init__(self, file):
        self.files = runs_of(file)
        traces = [read_trace(file) for file in self.files]
        self.durations = [trace.duration for trace in traces]
        self.names = [{row[0]: row for row in trace.summary()} for trace in traces]

    def values(self, name, measure):
        column = {"calls": 1, "total": 2, "self": 3}[measure]
        return [rows[name][column] if name in rows else 0 for rows in self.names]


def changes(before, after, measure="self"):
    """A Change for each name of either, most changed first."""
    names = {name for runs in (before, after) for rows in runs.names for name in rows}
    found = []
    for name in names:
        values = before.values(name, measure), after.values(name, measure)
        calls = before.values(name, "calls"), after.values(name, "calls")
        found.append(_change(name, *values, *calls))
    return sorted(found, key=lambda c: (not c.is_change, -abs(c.difference), c.name))


def whole_change(before, after):
    """The Change of the wall time."""
    ones = [1] * len(before.durations), [1] * len(after.durations)
    return _change("", before.durations, after.durations, *ones)


def _change(name, before, after, calls_before, calls_after):
    return Change(
        name,
        statistics.median(before),
        statistics.median(after),
        max(spread_of(before), spread_of(after)),
        statistics.median(calls_before),
        statistics.median(calls_after),
    )


def spread_of(values):
    """How far apart runs lie: from the least to the greatest; of one run nothing is known."""
    return max(values) - min(values)


def diff(arguments):
    """Runs `vantrace diff`; gives the exit status."""
    options = _DiffOptions(arguments)
    if options.wants_help:
        sys.stdout.write(USAGE)
        return 0
    if len(options.files) != 2:
        raise UsageError(f"diff takes two files, not {len(options.files)}")
    before, after = map(Runs, options.files)
    whole, found = whole_change(before, after), changes(before, after, options.by)
    grown = [] if options.fail_if is None else _grown(whole, found, options)
    if options.as_json:
        json.dump(_as_json(options, whole, found, grown), sys.stdout, indent=1)
        print()
    else:
        for line in _lines(options, before, after, whole, found):
            print(line)
    for change in grown:
        what = "the wall time" if change is whole else repr(printable(change.name))
        print(f"vantrace: {what} grew: {_percent(change)}", file=sys.stderr)
    return 1 if grown else 0


def _grown(whole, found, options):
    """What grew by more than is allowed, beyond the spread, and is not too small to tell."""
    sizes = sum(change.before for change in found), sum(change.after for change in found)
    least = _LEAST_SHARE * max(sizes)
    large = [change for change in found if max(change.before, change.after) >= least]
    if options.by != "calls":
        large.insert(0, whole)
    return [change for change in large if change.is_change and change.growth > options.fail_if]


def _lines(options, before, after, whole, found):
    yield (
        f"vantrace: {time_text(round(whole.before))} before, {time_text(round(whole.after))} after: "
        f"{_percent(whole)}{'' if whole.is_change else ', within the spread'}"
    )
    runs = len(before.files), len(after.files)
    if max(runs) > 1:
        yield f"vantrace: medians of {runs[0]} and {runs[1]} runs"
    changed = [change for change in found if change.difference]
    shown = changed[: options.top or None]
    if shown:
        rows = [_head(options.by), *(_cells(change, options.by) for change in shown)]
        yield from aligned(rows, style_of(sys.stdout))
    if len(changed) > len(shown):
        yield f"... and {len(changed) - len(shown):,} more"
    if not changed:
        yield "vantrace: no name changed"


def _head(measure):
    head = ("event", "change", "%", f"{measure} A", f"{measure} B")
    return head if measure == "calls" else (*head, "calls A", "calls B")


def _cells(change, measure):
    text = _count if measure == "calls" else lambda value: time_text(round(value))
    cells = (
        printable(change.name) or "(unnamed)",
        ("+" if change.difference > 0 else "") + text(change.difference),
        _percent(change) if change.is_change or not change.difference else "~",
        text(change.before),
        text(change.after),
    )
    if measure == "calls":
        return cells
    return (*cells, _count(change.calls_before), _count(change.calls_after))


def _count(value):
    return f"{value:,.0f}" if value == int(value) else f"{value:,.1f}"


def _percent(change):
    if change.percent is None:
        return "new" if change.after else "+0.0%"
    return "gone" if change.after == 0 and change.before else f"{change.percent:+.1f}%"


def _as_json(options, whole, found, grown):
    return {
        "files": options.files,
        "by": options.by,
        "time": _entry(whole, grown),
        "names": [{"name": change.name, **_entry(change, grown)} for change in found],
    }


def _entry(change, grown):
    entry = asdict(change) | {
        "difference": change.difference,
        "percent": change.percent,
        "is_change": change.is_change,
        "fails": change in grown,
    }
    del entry["name"]
    return entry


def _percentage(option, text):
    match = re.fullmatch(r"(\d+(?:\.\d+)?)%", text, re.ASCII)
    if not match:
        raise UsageError(f"{option} takes a share such as 10%, not {text!r}")
    return float(match[1])


class _DiffOptions(_options.Options):
    COMMAND = "diff"
    FLAGS = {"--json": ("as_json", True)}
    VALUES = {
        "--by": ("by", _options.one_of("self", "total", "calls")),
        "--top": ("top", _options.number("of rows")),
        "--fail-if": ("fail_if", _percentage),
    }

    def __init__(self, arguments):
        self.by, self.top, self.fail_if = "self", 40, None
        self.as_json = False
        super().__init__(arguments)
