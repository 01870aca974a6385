"""What a cell shows of its recording: HTML with table and flame graph, and the table as text."""

import html
import json
import os
import secrets
import tempfile

from ._core import Trace
from ._flame_svg import Flame, shown_name, tree_of
from ._line_table import line_rows
from ._table import Style, aligned, cells, head, sorted_rows, tail

_MOST_ROWS = 500
_MOST_TABLE_BYTES = 100_000
_TEXT_WIDTH = 100
_FOLDER = os.path.join(os.path.dirname(__file__), "notebook")


def bundle(recording, options, output):
    """The forms of the output by MIME type, below 500 KB together.

    Where `output` is a path, the trace goes there.
    """
    picture, notes = _traced(recording, options, output)
    rows = sorted_rows(recording, options)
    above = list(head(recording, rows, recording.duration, None))
    shown = rows[: min(options.top or _MOST_ROWS, _MOST_ROWS)]
    table = list(cells(recording, shown, recording.duration)) if rows else []
    return {
        "text/plain": _text(recording, above, table, len(rows), notes),
        "text/html": _page(recording, above, table, len(rows), notes, picture),
    }


def _traced(recording, options, output):
    """Writes the trace where it was asked for; gives the picture, and what is to be said."""
    try:
        with tempfile.TemporaryDirectory(prefix="vantrace-") as folder:
            file = os.path.join(folder, "cell.vtrace")
            if output is not None and output.endswith(".vtrace"):
                file = output
            recording.save(file)
            data = json.loads(Trace(file).report_data())
            flame = Flame(tree_of(data), options.min_duration or 0)
            notes = [f"vantrace: {flame.left_out}"] if flame.left_out else []
            if output is not None:
                if file != output:
                    _export(file, output, options)
                notes.append(f"vantrace: the trace is {output}")
            return flame.svg, notes
    except OSError as error:
        return None, [f"vantrace: cannot write {error.filename!r}: {error.strerror}"]


def _export(file, output, options):
    from ._export import trace_writer

    trace = Trace(file)
    if options.min_duration is not None and not output.endswith(".folded"):
        trace.select(None, None, options.min_duration, 0, True)
    trace_writer(output)(trace, output)


def _text(recording, above, table, names, notes):
    style = Style(_TEXT_WIDTH, False)
    lines = aligned(table, style) if table else []
    left_out = names - len(table[1:])
    return "\n".join([*above, *lines, *tail(recording, left_out, style), *notes])


def _page(recording, above, table, names, notes, picture):
    identity = secrets.token_hex(8)
    rows = _rows(table[1:])
    return (
        f'<div class="vantrace" data-vantrace="{identity}"><style>{_asset("style.css")}</style>'
        f"{_paragraphs(above)}"
        f'{f"<div>{picture}</div>" if picture else ""}'
        f"{_table(table[0], rows) if rows else ''}"
        f"{_paragraphs([*tail(recording, names - len(rows)), *notes])}{_lines(recording)}"
        f'<script>{_asset("cell.js").replace("@ID@", identity)}</script></div>'
    )


def _lines(recording):
    """The lines that took longest, where they were sampled."""
    times = recording.line_times()
    rows = line_rows(times, Style(_TEXT_WIDTH, False)) if times else ()
    return "".join(("<pre>", *(html.escape(f"{row}\n") for row in rows), "</pre>")) if times else ""


def _table(titles, rows):
    return f"<table><thead>{_row('th', titles)}</thead><tbody>{''.join(rows)}</tbody></table>"


def _rows(table):
    """As many as there is room for."""
    rows, size = [], 0
    for name, *texts in table:
        if size > _MOST_TABLE_BYTES:
            break
        rows.append(_row("td", (shown_name(name), *texts)))
        size += len(rows[-1].encode())
    return rows


def _row(kind, texts):
    return f"<tr>{''.join(f'<{kind}>{html.escape(text)}</{kind}>' for text in texts)}</tr>"


def _paragraphs(texts):
    """The lines that tell something, as they stand in a terminal but for who says them."""
    return "".join(f"<p>{html.escape(text.removeprefix('vantrace: '))}</p>" for text in texts)


def _asset(name):
    with open(os.path.join(_FOLDER, name), encoding="utf-8") as file:
        return file.read()
