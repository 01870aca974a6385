"""The table of where the time went."""

import os

_LEAST_NAME = 20
_NUMBERS = 7  # columns without that of places
_FEWEST_COLUMNS = 5
_MOST_PLACE = 32
_WIDEST = 3

ORDERS = {
    "self": lambda row: (-row.self, row.name),
    "total": lambda row: (-row.total, row.name),
    "calls": lambda row: (-row.count, row.name),
    "name": lambda row: row.name,
}


# No namedtuple: making one evaluates text, and that makes the interpreter, which shows the table
# at its end, forget that the script died of an interrupt.
class Style:
    """How wide the table may be, and whether it may have colours."""

    def __init__(self, width, has_colours):
        self.width = width
        self.has_colours = has_colours


def style_of(stream):
    """The style for what is written there."""
    return Style(_width(stream), _has_colours(stream))


def _width(stream):
    try:
        return int(os.environ.get("COLUMNS", "")) or 80
    except ValueError:
        pass
    try:
        return os.get_terminal_size(stream.fileno()).columns or 80
    except (AttributeError, OSError, ValueError):
        return 80


def _has_colours(stream):
    try:
        is_terminal = stream.isatty()
    except (AttributeError, OSError, ValueError):
        return False
    return is_terminal and not os.environ.get("NO_COLOR") and os.environ.get("TERM") != "dumb"


def lines(recording, duration, cpu_time, options, style, listeners=()):
    """The lines for a recording that lasted so many nanoseconds, and took so many of CPU time.

    `recording` is a vantrace.record, or tells the same; without a CPU time that is left out. The
    listeners are published ones that heard the events, too.
    """
    rows = sorted_rows(recording, options)
    yield from head(recording, rows, duration, cpu_time, listeners)
    shown = rows[: options.top or None]
    if rows:
        yield from aligned(list(cells(recording, shown, duration)), style)
    yield from tail(recording, len(rows) - len(shown), style)


def sorted_rows(recording, options):
    """What the recording sums up, in the order of the table."""
    return sorted(recording.summary(), key=ORDERS[options.sort])


def head(recording, rows, duration, cpu_time, listeners=()):
    """The lines above the table."""
    threads = len(recording.threads())
    calls = sum(row.count for row in rows)
    yield (
        f"vantrace: {time_text(duration)} wall time, {counted(threads, 'thread')}, "
        f"{counted(calls, 'event')}"
    )
    if cpu_time is not None:
        yield _cost_text(cpu_time, _cost_of(recording, calls, listeners))
    yield from _widest(rows)


def tail(recording, left_out, style=None):
    """The lines below a table that leaves out so many rows; without a style, no table of lines."""
    if left_out:
        yield f"... and {counted(left_out, 'more name')}"
    functions = recording.functions()
    if functions:
        yield from _collapsed(functions)
    if style and (times := recording.line_times()):
        from ._line_table import line_rows

        yield from line_rows(times, style)
    yield from losses(recording)


def _cost_of(recording, events, listeners):
    from . import _cost

    return _cost.of_tracing(recording, events, listeners)


def _cost_text(cpu_time, cost):
    return f"vantrace: {time_text(cpu_time)} CPU time, of that about {time_text(cost)} for tracing"


def _widest(rows):
    """Which share of the time a few names have, where there are more."""
    times = sorted((row.self for row in rows), reverse=True)
    if len(times) > _WIDEST and times[0] > 0:
        share = 100 * sum(times[:_WIDEST]) / sum(times)
        yield f"vantrace: {share:.0f} % of it is in the widest {_WIDEST} of {len(times):,} names"


def cells(recording, rows, duration):
    """The texts of the table's head and rows; with places where functions were traced."""
    head = ("event", "calls", "total", "self", "self %", "p50", "p99")
    if recording.functions() is None:
        yield head
        yield from (_cells(row, duration) for row in rows)
        return
    known = recording.places()
    yield ("function or event", *head[1:], "place")
    for row in rows:
        yield (*_cells(row, duration), _place_text(known.get(row.name)))


def _collapsed(functions):
    """Of the calls that are no events but part of their callers."""
    calls = functions["collapsed_calls"]
    if calls:
        yield (
            f"vantrace: {counted(calls, 'call')} of library functions "
            f"{'is' if calls == 1 else 'are'} part of the callers; --all tells them apart"
        )


def losses(recording):
    """The lines that say what is not in the trace, and what was not seen."""
    counting = "; the table counts all" if recording.counts_all else ", nor in the table"
    yield from dropped(recording.drops(), counting)
    functions = recording.functions()
    if functions:
        yield from _unseen(functions)
    if not recording.has_all_lines:
        yield "vantrace: samples of lines are missing, for want of memory or room on the disk"


def dropped(drops, counting=""):
    """The line that says what the recorder dropped, where it did."""
    count = sum(drops[cause] for cause in ("refused", "oldest", "shortest", "failed"))
    if count:
        shortest = f", the shortest, up to {time_text(drops['minimum_duration'])},"
        which = shortest if count == drops["shortest"] else ""
        yield (
            f"vantrace: for want of {_wanting(drops)} {counted(count, 'event')}{which} "
            f"{'is' if count == 1 else 'are'} not in the trace{counting}"
        )


def _wanting(drops):
    return "memory or room on the disk" if drops["failed"] else "memory"


def _unseen(functions):
    reason = functions["without_hook"]
    if reason:
        yield f"vantrace: functions were seen by the profile hook, which slows them more: {reason}"
    stretches = functions["deep_stretches"]
    if stretches:
        yield (
            f"vantrace: recursion too deep to trace, {counted(stretches, 'time')} for "
            f"{time_text(functions['deep_time'])}: functions of no thread are known then"
        )
    if functions["failed_calls"]:
        yield f"vantrace: {counted(functions['failed_calls'], 'call')} not seen, for want of memory"
    if functions["had_other_profile"]:
        calls = "calls" if reason else "C calls"
        yield f"vantrace: the program has a profile function of its own: some {calls} are missing"
    if functions["was_taken_out"]:
        yield "vantrace: another tool took out the hook that sees functions: some are missing"


def time_text(nanoseconds, digits=4):
    """So many digits and a unit."""
    for unit, size in (("s", 1e9), ("ms", 1e6), ("us", 1e3)):
        value = nanoseconds / size
        if abs(value) >= 0.9995:
            return f"{value:.{max(0, digits - len(str(int(abs(value)))))}f} {unit}"
    return f"{nanoseconds} ns"


def _cells(row, duration):
    share = f"{100 * row.self / duration:.1f}" if duration else ""
    times = time_text(row.total), time_text(row.self)
    typical = time_text(row.p50, 3), time_text(row.p99, 3)
    return (printable(row.name) or "(unnamed)", f"{row.count:,}", *times, share, *typical)


def _place_text(place):
    """The file's own name and the line; its end where that is long."""
    if not place:
        return ""
    file, line = place
    text = f"{printable(os.path.basename(file))}:{line}"
    return text if len(text) <= _MOST_PLACE else "..." + text[3 - _MOST_PLACE :]


def printable(name):
    return "".join(c if c.isprintable() else "\N{REPLACEMENT CHARACTER}" for c in name)


def aligned(rows, style):
    """Names to the left, cut to what the width leaves them; numbers to the right.

    Where there is no room for them, places are left out, then the typical durations.
    """
    widths = [max(map(len, column)) for column in zip(*rows)]
    room = style.width - sum(widths[1:]) - 2 * (len(widths) - 1)
    if room < min(widths[0], _LEAST_NAME) and len(widths) > _FEWEST_COLUMNS:
        fewer = _NUMBERS if len(widths) > _NUMBERS else _FEWEST_COLUMNS
        yield from aligned([row[:fewer] for row in rows], style)
        return
    widths[0] = min(widths[0], max(room, _LEAST_NAME))
    for number, (name, *cells) in enumerate(rows):
        if len(name) > widths[0]:
            name = name[: widths[0] - 3] + "..."
        texts = [name.ljust(widths[0])]
        texts += [cell.rjust(width) for cell, width in zip(cells[: _NUMBERS - 1], widths[1:])]
        line = "  ".join(texts + cells[_NUMBERS - 1 :]).rstrip()
        yield f"\x1b[1m{line}\x1b[0m" if number == 0 and style.has_colours else line


def counted(count, noun):
    return f"{count:,} {noun}{'' if count == 1 else 's'}"
