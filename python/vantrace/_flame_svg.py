"""A flame graph as SVG that needs no script: who called whom, as wide as the time it took."""

import heapq
import html
import zlib

from ._table import counted, printable, time_text

OTHERS = "(others)"
_ROW = 20  # pixels
_MOST_ROWS = 100
_MOST_FRAMES = 1_500
_MOST_BYTES = 200_000
_LEAST_SHARE = 1e-5
_LONGEST_NAME = 120


class Node:
    """A distinct stack; times in nanoseconds."""

    def __init__(self, name):
        self.name = name
        self.calls = self.self = self.total = 0
        self.children = {}

    def child(self, name):
        """The one that this one calls by that name, and whether it is new."""
        known = self.children.get(name)
        node = known or self.children.setdefault(name, Node(name))
        return node, not known


def tree_of(data):
    """The stacks of all threads put together, from the data of a report: its nodes, each behind its
    parent."""
    threads, names = data["threads"], data["names"]
    nodes = [Node(threads[0][1] if len(threads) == 1 else counted(len(threads), "thread"))]
    places = []
    for parent, name, *cells in data["tree"]:
        node = nodes[0]
        if parent >= 0:
            node, is_new = places[parent].child(OTHERS if name < 0 else names[name])
            if is_new:
                nodes.append(node)
        node.calls += sum(cells[1::3])
        node.self += sum(cells[2::3])
        places.append(node)
    for node in reversed(nodes):
        node.total = node.self + sum(child.total for child in node.children.values())
    return nodes


class Flame:
    """The picture of a tree, without frames that are shorter than so many nanoseconds.

    `svg` is none where there is nothing to see; `left_out` says in words what it does not show.
    """

    def __init__(self, nodes, least_duration=0):
        self._whole = nodes[0]
        self._least = max(least_duration, 1, self._whole.total * _LEAST_SHARE)
        self._frames, self._bytes, self._rows, self._too_deep = [], 0, 0, 0
        if self._whole.total > 0:
            self._lay_out()
        shown = len(self._frames)
        self.svg = self._drawn() if self._frames else None
        self.left_out = self._omissions(sum(node.total > 0 for node in nodes) - shown)

    def _lay_out(self):
        """Widest first, so that what there is no room for is what matters least."""
        waiting = [(-self._whole.total, 0, 0, 0, self._whole)]
        order = 0
        while waiting and len(self._frames) < _MOST_FRAMES and self._bytes < _MOST_BYTES:
            _, _, row, left, node = heapq.heappop(waiting)
            self._add(node, row, left)
            for child in sorted(node.children.values(), key=lambda child: -child.total):
                order += 1
                if child.total < self._least:
                    break
                if row + 1 < _MOST_ROWS:
                    heapq.heappush(waiting, (-child.total, order, row + 1, left, child))
                else:
                    self._too_deep += 1
                left += child.total

    def _add(self, node, row, left):
        frame = self._frame(node, row, left)
        self._frames.append(frame)
        self._bytes += len(frame.encode())
        self._rows = max(self._rows, row + 1)

    def _frame(self, node, row, left):
        name = shown_name(node.name)
        told = f"{name}\n{time_text(node.total)}, {100 * node.total / self._whole.total:.1f} %"
        if row > 0:
            told += f"; {time_text(node.self)} itself; {counted(node.calls, 'call')}"
        return (
            f'<svg x="{self._percent(left)}" y="{row * _ROW}" width="{self._percent(node.total)}" '
            f'height="{_ROW}"><g><title>{html.escape(told)}</title>'
            f'<rect width="100%" height="{_ROW - 1}" fill="{_colour(node.name)}"/>'
            f'<text x="4" y="14">{html.escape(name)}</text></g></svg>'
        )

    def _percent(self, nanoseconds):
        return f"{100 * nanoseconds / self._whole.total:.4f}".rstrip("0").rstrip(".") + "%"

    def _drawn(self):
        return (
            f'<svg xmlns="http://www.w3.org/2000/svg" width="100%" height="{self._rows * _ROW}" '
            'font-family="sans-serif" font-size="12" fill="#17191e" role="img" '
            f'aria-label="flame graph">{"".join(self._frames)}</svg>'
        )

    def _omissions(self, count):
        if not count:
            return ""
        deep = f", some deeper than {_MOST_ROWS} calls" if self._too_deep else ""
        return f"the flame graph leaves out {counted(count, 'stack')}{deep}"


def shown_name(name):
    """What is shown for a name: characters that can be seen, and not too many of them."""
    name = printable(name) or "(unnamed)"
    return name if len(name) <= _LONGEST_NAME else name[: _LONGEST_NAME - 3] + "..."


def _colour(name):
    """Always the same for a name."""
    hue = zlib.crc32(name.encode("utf-8", "surrogatepass")) % 360
    return f"hsl({hue},55%,78%)"
