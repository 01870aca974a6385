"""Writes the tables of figures into the pages, between the marks that they have for that."""

import pathlib
import re

import figures

ROOT = pathlib.Path(__file__).parents[1]
COST = ROOT / "docs/cost.md"
README = ROOT / "README.md"
# Rows that the README shows.
FOREMOST = (
    "inactive scope",
    "recorded pair",
    "recorded pair, 1,000 names, depth 50",
    "recorded pair, a number as context",
    "recorded pair, two texts of the program as context",
    "counted pair",
    "profiled pair",
    "recorded, counted and profiled pair",
    "cold: recorded pair",
    "statistics by name, an event of 10^7",
    '`with vantrace.event("n")`, recorded',
    '`with vantrace.event("n")`, inactive',
    "`vantrace.instant`, recorded",
    "Python function traced, a call of fib(27)",
    "`import vantrace`",
    "`./dev run` of an empty script",
)


def replaced(text, mark, content):
    """With other content between <!-- MARK --> and <!-- end of MARK -->."""
    begin, end = f"<!-- {mark} -->", f"<!-- end of {mark} -->"
    pattern = re.compile(f"(?<={re.escape(begin)}\n).*?(?={re.escape(end)})", re.DOTALL)
    if not pattern.search(text):
        raise ValueError(f"there is no place for {mark}")
    return pattern.sub(lambda _: content, text, count=1)


def _table(columns, lines):
    rule = "|" + "---|" * len(columns)
    return "\n".join([f"| {' | '.join(columns)} |", rule, *lines]) + "\n"


def _value(figure):
    return f"{figures.number(figure['value'])} {figure['unit']}"


def _beside(figure):
    """The floor and the peers, each by name."""
    parts = []
    if figure["floor"] is not None:
        parts.append(f"{figure['floor_name']}: {figures.number(figure['floor'])}")
    parts += [f"{name}: {figures.number(value)}" for name, value in figure["peers"].items()]
    return "; ".join(parts)


def section_table(measured):
    lines = (
        f"| {figure['row']} | {_value(figure)} | {_beside(figure)} | {figures.ratio(figure)} "
        f"| {figure['target'] or ''} | {figures.met(figure)} |"
        for figure in measured
    )
    return _table(["row", "figure", "beside", "ratio", "target", "met"], lines)


def all_tables(measured):
    sections = dict.fromkeys(figure["section"] for figure in measured)
    return "\n".join(
        f"## {section}\n\n{section_table([f for f in measured if f['section'] == section])}"
        for section in sections
    )


def foremost_table(measured):
    by_name = {figure["row"]: figure for figure in measured}
    lines = (
        f"| {name} | {_value(by_name[name])} | {_beside(by_name[name])} |"
        for name in FOREMOST
        if name in by_name
    )
    return _table(["what", "figure", "beside"], lines)


def machine_table(topology):
    return _table(["machine", ""], (f"| {what} | {value} |" for what, value in topology))


def rewrite(path, changes):
    text = path.read_text()
    for mark, content in changes.items():
        text = replaced(text, mark, content)
    path.write_text(text)


def write(measured, topology):
    rewrite(COST, {"machine": machine_table(topology), "figures": all_tables(measured)})
    rewrite(README, {"figures": foremost_table(measured)})
