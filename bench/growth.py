#!/usr/bin/python3
"""Draws how the cost of an event grows with their number, into docs/growth.svg.

    growth.py BUILD [MOST]

From 10^5 to MOST events, 10^7 unless it says otherwise; struct arrays to a tenth of that.
"""

import math
import pathlib
import statistics
import sys

from programs import programs

PICTURE = pathlib.Path(__file__).parents[1] / "docs/growth.svg"
SUBJECTS = {
    "recording": "#1f77b4",
    "statistics": "#2ca02c",
    "trace-file": "#9467bd",
    "json": "#d62728",
    "json-file": "#ff7f0e",
    "plain-file": "#e7ba52",
    "struct-arrays": "#7f7f7f",
}
LEAST = 100_000
REPEATS = 3
WIDTH, HEIGHT, MARGIN = 640, 360, 56
LOWEST, HIGHEST = 1, 1000  # nanoseconds


def sizes(least, most):
    """Two for each power of ten."""
    size = least
    while size <= most:
        yield size
        if 3 * size <= most:
            yield 3 * size
        size *= 10


def measured(program, subject, most):
    """[(events, nanoseconds of each), ..]"""
    scale = 10 if subject == "struct-arrays" else 1
    points = []
    for size in sizes(LEAST // scale, most // scale):
        name = f"{subject} {size}#each"
        times = [program.samples([name], 1)[name][0] for _ in range(REPEATS)]
        points.append((size, statistics.median(times)))
        print(f"{subject:14} {size:>11,} {points[-1][1]:8.1f} ns each", flush=True)
    return points


def place(value, low, high, begin, end):
    """On a logarithmic axis."""
    part = (math.log10(value) - math.log10(low)) / (math.log10(high) - math.log10(low))
    return begin + part * (end - begin)


class Picture:
    def __init__(self, least, most):
        self.least, self.most = least, most
        self.parts = []

    def x(self, size):
        return place(size, self.least, self.most, MARGIN, WIDTH - 2 * MARGIN)

    def y(self, time):
        return place(time, LOWEST, HIGHEST, HEIGHT - MARGIN, MARGIN / 2)

    def text(self, x, y, text, anchor="middle", color="#333"):
        where = f'x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}"'
        self.parts.append(f'<text {where} fill="{color}">{text}</text>')

    def axes(self):
        for power in range(round(math.log10(self.least)), round(math.log10(self.most)) + 1):
            x = self.x(10**power)
            self.parts.append(f'<path d="M{x:.1f} {MARGIN / 2}V{HEIGHT - MARGIN}" stroke="#ddd"/>')
            self.text(x, HEIGHT - MARGIN + 18, f'10<tspan dy="-5" font-size="9">{power}</tspan>')
        for time in (1, 10, 100, 1000):
            y = self.y(time)
            self.parts.append(f'<path d="M{MARGIN} {y:.1f}H{WIDTH - 2 * MARGIN}" stroke="#ddd"/>')
            self.text(MARGIN - 6, y + 4, str(time), "end")
        self.text((WIDTH - MARGIN) / 2, HEIGHT - 12, "events, or records of a struct array")
        self.text(MARGIN, MARGIN / 2 - 10, "ns of CPU time for each", "start")

    def curve(self, name, color, points):
        path = "L".join(f"{self.x(size):.1f} {self.y(time):.1f}" for size, time in points)
        self.parts.append(f'<path d="M{path}" stroke="{color}" stroke-width="2" fill="none"/>')
        size, time = points[-1]
        self.text(self.x(size) + 6, self.y(time) + 4, name, "start", color)

    def save(self, path):
        head = f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}"'
        style = 'font-family="sans-serif" font-size="12"'
        white = f'<rect width="{WIDTH}" height="{HEIGHT}" fill="white"/>'
        path.write_text("\n".join([f"{head} {style}>", white, *self.parts, "</svg>\n"]))


def main():
    most = int(sys.argv[2]) if len(sys.argv) > 2 else 10_000_000
    program = programs(pathlib.Path(sys.argv[1]))["growth"]
    picture = Picture(LEAST // 10, most)
    picture.axes()
    for subject, color in SUBJECTS.items():
        picture.curve(subject, color, measured(program, subject, most))
    picture.save(PICTURE)


if __name__ == "__main__":
    main()
