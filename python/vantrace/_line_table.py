"""The hottest lines, as the table of a recording ends with them."""

import os

from ._table import printable, time_text

_MOST_LINES = 10
_MOST_THREADS = 4
_LEAST_SOURCE = 16
_SUMS = ("self", "cpu", "held")
_HEAD = ("line", "self", "self %", "on CPU", "lock", "source")


def line_rows(times, style):
    """The lines of the table; none where nothing was sampled."""
    if not times.ticks:
        return
    yield f"vantrace: hottest lines, of {times.ticks:,} samples; {_threads(times.threads)}"
    merged = _by_place(times.lines)
    shown = merged[:_MOST_LINES]
    whole = sum(line.self for line in merged)
    if shown:
        yield from _aligned([_HEAD, *(_cells(line, whole) for line in shown)], style)


def _by_place(lines):
    """Those of one place put together, whatever functions it is in."""
    places = {}
    for line in lines:
        known = places.setdefault((line.file, line.line), line)
        if known is not line:
            sums = {field: getattr(known, field) + getattr(line, field) for field in _SUMS}
            places[line.file, line.line] = known._replace(**sums)
    return sorted(places.values(), key=lambda line: (-line.self, line.file, line.line))


def _threads(threads):
    told = [
        f"{printable(thread.name) or '(unnamed)'} {_share(thread.cpu, thread.seen)} on CPU, "
        f"{_share(thread.held, thread.seen)} with the lock"
        for thread in threads[:_MOST_THREADS]
    ]
    more = len(threads) - len(told)
    return "; ".join([*told, *([f"{more:,} more threads"] if more else [])])


def _cells(line, whole):
    place = f"{printable(os.path.basename(line.file))}:{line.line}"
    return (
        place,
        time_text(line.self),
        f"{100 * line.self / whole:.1f}" if whole else "",
        _share(line.cpu, line.self),
        _share(line.held, line.self),
        printable(line.text),
    )


def _share(part, whole):
    return f"{100 * part / whole:.0f} %" if whole else ""


def _aligned(rows, style):
    widths = [max(map(len, column)) for column in zip(*rows)]
    room = style.width - sum(widths[:-1]) - 2 * (len(widths) - 1)
    for number, (place, *numbers, source) in enumerate(rows):
        texts = [place.ljust(widths[0])]
        texts += [cell.rjust(width) for cell, width in zip(numbers, widths[1:])]
        text = "  ".join([*texts, _cut(source, max(room, _LEAST_SOURCE))]).rstrip()
        yield f"\x1b[1m{text}\x1b[0m" if number == 0 and style.has_colours else text


def _cut(text, width):
    return text if len(text) <= width else text[: width - 3] + "..."
