"""Struct arrays of the host: tables with named columns."""

from ._core import StructArrayBase

_SHOWN_ROWS = 10
_CELL_WIDTH = 32


class StructArray(StructArrayBase):
    """A struct array: elements with named fields.

        a.shape, a.fields, len(a)
        a["duration"]   the field of all elements as a NumPy array, read-only, made once
        a[0], a[-1]     one element as a dict
        a[2:5]          some elements
        a.to_pandas()   a DataFrame

    Numbers are float64 or uint64, texts str objects, struct values StructArray objects.
    """

    __slots__ = ("_columns",)

    def __getitem__(self, key):
        if isinstance(key, str):
            return self._column_array(key)
        if isinstance(key, slice):
            part = range(len(self))[key]
            return self._part(part.start if part else 0, part.step, len(part))
        index = range(len(self))[key]
        return self._element(index)

    def __iter__(self):
        return map(self._element, range(len(self)))

    def __contains__(self, value):
        return any(value == element for element in self)

    def keys(self):
        """The names of the fields."""
        return list(self.fields)

    def to_pandas(self):
        """The fields as the columns of a pandas.DataFrame."""
        import pandas

        columns = {field: self[field] for field in self.fields}
        return pandas.DataFrame(columns, index=range(len(self)), copy=True)

    def __repr__(self):
        rows, columns = self.shape
        head = f"StructArray {rows}x{columns}"
        if not self.fields:
            return f"{head}, no fields"
        if not len(self):
            return f"{head}: {', '.join(self.fields)}"
        return "\n".join([head, *_aligned(self.fields, _shown_rows(self))])

    def _repr_html_(self):
        import html

        names = "".join(f"<th>{html.escape(field)}</th>" for field in self.fields)
        rows = "".join(
            "<tr>" + "".join(f"<td>{html.escape(_cell(value))}</td>" for value in row) + "</tr>"
            for row in _shown_rows(self)
        )
        size = html.escape(f"{self.shape[0]}x{self.shape[1]}")
        return (
            f"<table><caption>StructArray {size}</caption>"
            f"<thead><tr>{names}</tr></thead><tbody>{rows}</tbody></table>"
        )

    def _column_array(self, field):
        try:
            columns = self._columns
        except AttributeError:
            columns = self._columns = {}
        if field not in columns:
            columns[field] = _array(*self._column(field))
        return columns[field]


def _array(data_type, values):
    import numpy

    if data_type != "object":
        return numpy.frombuffer(values, dtype=data_type)  # read-only, as the bytes are
    array = numpy.fromiter(values, dtype=object, count=len(values))
    array.flags.writeable = False
    return array


class _Gap:
    """Stands for the rows between head and tail."""

    def __repr__(self):
        return "..."


_GAP = _Gap()


def _shown_rows(array):
    """The values of the first and the last rows, with a row of gaps between."""
    count = len(array)
    head = count if count <= _SHOWN_ROWS else _SHOWN_ROWS // 2
    tail = 0 if count <= _SHOWN_ROWS else _SHOWN_ROWS // 2
    rows = [list(array._element(i).values()) for i in range(head)]
    if tail:
        rows.append([_GAP] * len(array.fields))
        rows += [list(array._element(i).values()) for i in range(count - tail, count)]
    return rows


def _cell(value):
    if isinstance(value, StructArray):
        return ", ".join(f"{name}={_cell(v)}" for name, v in _pairs(value))
    if isinstance(value, float):
        return f"{value:.12g}"
    text = value if isinstance(value, str) else repr(value)
    text = "".join(c if c.isprintable() else "\N{REPLACEMENT CHARACTER}" for c in text)
    return text if len(text) <= _CELL_WIDTH else text[: _CELL_WIDTH - 3] + "..."


def _pairs(struct):
    return struct._element(0).items() if len(struct) else ()


def _aligned(fields, rows):
    """Lines of columns: numbers to the right, all else to the left."""
    lines = [[_cell(field) for field in fields], *([_cell(v) for v in row] for row in rows)]
    widths = [max(map(len, column)) for column in zip(*lines)]
    right = [
        all(isinstance(value, (int, float, _Gap)) for value in column) for column in zip(*rows)
    ]
    for line in lines:
        cells = [
            cell.rjust(width) if to_right else cell.ljust(width)
            for cell, width, to_right in zip(line, widths, right)
        ]
        yield "  ".join(cells).rstrip()
