"""What a cell shows of its recording: HTML with table and flame graph, and the table as text."""

import html
import json
import os
import secrets
import tempfile

from ._core import Trace
from ._flame_svg import Flame, shown_name, tree_of
from ._table import Style, cells, head, lines, sorted_rows, tail

_MOST_ROWS = 500
_MOST_TABLE_BYTES = 100_000
_TEXT_WIDTH = 100
_FOLDER = os.path.join(os.path.dirname(__file__), "notebook")


def bundle(recording, options, output):
    """The forms of the output by MIME type, below 500 KB together.

    Where `output` is a path, the trace goes there.
    """
    options.top = min(options.top or _MOST_ROWS, _MOST_ROWS)
    picture, notes = _traced(recording, options, output)
    text = lines(recording, recording.duration, None, options, Style(_TEXT_WIDTH, False))
    return {
        "text/plain": "\n".join([*text, *notes]),
        "text/html": _page(recording, options, picture, notes),
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


def _page(recording, options, picture, notes):
    identity = secrets.token_hex(8)
    rows = sorted_rows(recording, options)
    table, shown = _table(recording, rows[: options.top])
    return (
        f'<div class="vantrace" data-vantrace="{identity}"><style>{_asset("style.css")}</style>'
        f"{_paragraphs(head(recording, rows, recording.duration, None))}"
        f'{f"<div>{picture}</div>" if picture else ""}{table}'
        f"{_paragraphs([*tail(recording, len(rows) - shown), *notes])}"
        f'<script>{_asset("cell.js").replace("@ID@", identity)}</script></div>'
    )


def _table(recording, rows):
    """The table, and how many of the rows it has."""
    if not rows:
        return "", 0
    titles, *rows = cells(recording, rows, recording.duration)
    parts, size = [], 0
    for row in rows:
        if size > _MOST_TABLE_BYTES:
            break
        parts.append(_row("td", (shown_name(row[0]), *row[1:])))
        size += len(parts[-1].encode())
    head_row, body = _row("th", titles), "".join(parts)
    return f"<table><thead>{head_row}</thead><tbody>{body}</tbody></table>", len(parts)


def _row(kind, texts):
    return f"<tr>{''.join(f'<{kind}>{html.escape(text)}</{kind}>' for text in texts)}</tr>"


def _paragraphs(texts):
    """The lines that tell something, as they stand in a terminal but for who says them."""
    return "".join(f"<p>{html.escape(text.removeprefix('vantrace: '))}</p>" for text in texts)


def _asset(name):
    with open(os.path.join(_FOLDER, name), encoding="utf-8") as file:
        return file.read()
