"""The table of where the time went."""

_MOST_ROWS = 40
_HEAD = ("event", "calls", "total", "self", "self %")
_LEAST_NAME = 12


def lines(recording, duration, width):
    """The lines for a recording that lasted so many nanoseconds."""
    rows = recording.summary()
    threads = len(recording.threads())
    calls = sum(row.count for row in rows)
    yield (
        f"vantrace: {time_text(duration)} wall time, {_counted(threads, 'thread')}, "
        f"{_counted(calls, 'event')}"
    )
    if rows:
        yield from _aligned([_HEAD, *(_cells(row, duration) for row in rows[:_MOST_ROWS])], width)
    if len(rows) > _MOST_ROWS:
        yield f"... and {_counted(len(rows) - _MOST_ROWS, 'more name')}"
    drops = recording.drops()
    dropped = sum(drops[cause] for cause in ("refused", "oldest", "shortest", "failed"))
    if dropped:
        yield f"vantrace: {_counted(dropped, 'event')} dropped, for want of memory"


def time_text(nanoseconds):
    """Four digits and a unit."""
    for unit, size in (("s", 1e9), ("ms", 1e6), ("us", 1e3)):
        value = nanoseconds / size
        if abs(value) >= 0.9995:
            return f"{value:.{max(0, 3 - len(str(int(abs(value)))) + 1)}f} {unit}"
    return f"{nanoseconds} ns"


def _cells(row, duration):
    share = f"{100 * row.self / duration:.1f}" if duration else ""
    times = time_text(row.total), time_text(row.self)
    return (_printable(row.name), f"{row.count:,}", *times, share)


def _printable(name):
    text = "".join(c if c.isprintable() else "\N{REPLACEMENT CHARACTER}" for c in name)
    return text or "(unnamed)"


def _aligned(rows, width):
    """Names to the left, cut to what the width leaves them; numbers to the right."""
    widths = [max(len(row[i]) for row in rows) for i in range(len(_HEAD))]
    room = width - sum(widths[1:]) - 2 * (len(widths) - 1)
    widths[0] = min(widths[0], max(room, _LEAST_NAME))
    for name, *numbers in rows:
        if len(name) > widths[0]:
            name = name[: widths[0] - 3] + "..."
        cells = [name.ljust(widths[0])]
        cells += [number.rjust(w) for number, w in zip(numbers, widths[1:])]
        yield "  ".join(cells)


def _counted(count, noun):
    return f"{count:,} {noun}{'' if count == 1 else 's'}"
