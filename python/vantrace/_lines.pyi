from typing import NamedTuple

class Line(NamedTuple):
    file: str
    line: int
    function: str
    self: int
    cpu: int
    held: int
    text: str

class LineThread(NamedTuple):
    name: str
    seen: int
    cpu: int
    held: int

class LineTimes:
    ticks: int
    lines: list[Line]
    threads: list[LineThread]
