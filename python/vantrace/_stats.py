"""Product statistics, as programs of this user logged them: `vantrace stats`."""

import contextlib
import json
import os
import pathlib
import sqlite3
import sys
import time

from ._cli import UsageError

_SUMMARY = """
SELECT name,
    (SELECT count(*) FROM event AS e WHERE e.name = names.name AND kind = 'time'),
    count(pid), count(duration_ns), total(duration_ns), max(duration_ns)
FROM (SELECT DISTINCT name FROM event) AS names LEFT JOIN interval USING (name)
GROUP BY name ORDER BY 5 DESC, name
"""
_HEAD = ("name", "times", "begun", "ended", "total", "longest")


def show(path, as_json):
    """Prints them; gives the exit status."""
    from ._table import printable

    path = pathlib.Path(path) if path else _own_file()
    if not path.exists():
        place = printable(str(path))
        print(f"vantrace: no product statistics were logged; {place} is not there", file=sys.stderr)
        return 0
    try:
        with contextlib.closing(_open(path)) as database:
            lines = [_json(database, path)] if as_json else list(_lines(database, path))
    except sqlite3.Error as error:
        raise UsageError(f"cannot read product statistics from {str(path)!r}: {error}") from None
    for line in lines:
        print(line)
    return 0


def _own_file():
    """Where the host's library keeps them."""
    state = os.environ.get("XDG_STATE_HOME", "")
    folder = pathlib.Path(state if state.startswith("/") else "~/.local/state").expanduser()
    return folder / "vantrace" / "product_stats.db"


def _open(path):
    return sqlite3.connect(f"{path.absolute().as_uri()}?mode=ro", uri=True, timeout=30)


def _json(database, path):
    database.row_factory = sqlite3.Row
    tables = {
        "events": "SELECT utc_ns, kind, name, detail, pid FROM event ORDER BY id",
        "intervals": "SELECT * FROM interval ORDER BY begin_utc_ns",
    }
    found = {name: [dict(row) for row in database.execute(sql)] for name, sql in tables.items()}
    return json.dumps({"file": str(path), **found}, ensure_ascii=False, indent=1)


def _lines(database, path):
    from ._table import printable, time_text

    count, first, last = database.execute(
        "SELECT count(*), min(utc_ns), max(utc_ns) FROM event"
    ).fetchone()
    place = printable(str(path))
    if not count:
        yield f"vantrace: {place} has no rows"
        return
    yield f"vantrace: {count:,} rows from {_date(first)} to {_date(last)} in {place}"
    rows = [_HEAD]
    for name, times, begun, ended, total, longest in database.execute(_SUMMARY):
        durations = [time_text(round(value)) if ended else "" for value in (total, longest or 0)]
        numbers = [f"{number:,}" if number else "" for number in (times, begun, ended)]
        rows.append((printable(name) or "(unnamed)", *numbers, *durations))
    widths = [max(len(row[column]) for row in rows) for column in range(len(_HEAD))]
    for name, *cells in rows:
        padded = [cell.rjust(width) for cell, width in zip(cells, widths[1:])]
        yield "  ".join([name.ljust(widths[0]), *padded]).rstrip()


def _date(utc):
    return time.strftime("%Y-%m-%d %H:%M:%S UTC", time.gmtime(utc // 1_000_000_000))
