"""What a report shows of samples of lines, as JSON of bounded size."""

import json

_MOST_LINES = 1000
_MOST_THREADS = 200


def as_json(samples, bins, width):
    """Of what Trace.lines gives, in so many parts of the time, so many nanoseconds wide; "null" where
    there are none.

    lines    [file, function, line, text, cells] of the widest
    threads  [name, cells]; cells are [bin, time, CPU time, time with the lock, ...]
    """
    threads, lines, periods, times = samples
    if not times:
        return "null"
    last = max(bins - 1, 0)
    bin_of = [min(max((begin + end) // 2 // max(width, 1), 0), last) for begin, end, _, _ in periods]
    cells_of_lines = _cells(times, bin_of, lambda time: time[2])
    cells_of_lines.pop(-1, None)
    cells_of_threads = _cells(
        (time for time in times if time[2] < 0), bin_of, lambda time: time[1]
    )
    data = {
        "ticks": sum(ticks for _, _, ticks, _ in periods),
        "lines": [[*lines[number], cells] for number, cells in _widest(cells_of_lines, _MOST_LINES)],
        "threads": [
            [threads[number][2], cells]
            for number, cells in _widest(cells_of_threads, _MOST_THREADS)
        ],
    }
    return json.dumps(data, ensure_ascii=False, separators=(",", ":"))


def _cells(times, bin_of, key_of):
    """{key: {bin: [time, CPU time, time with the lock]}}."""
    found = {}
    for time in times:
        cell = found.setdefault(key_of(time), {}).setdefault(bin_of[time[0]], [0, 0, 0])
        for place, value in enumerate(time[3:]):
            cell[place] += value
    return found


def _widest(cells, most):
    """(key, flat cells), those with the most time first."""
    sums = {key: sum(cell[0] for cell in by_bin.values()) for key, by_bin in cells.items()}
    for key in sorted(sums, key=lambda key: (-sums[key], key))[:most]:
        yield key, [value for bin, cell in sorted(cells[key].items()) for value in (bin, *cell)]
