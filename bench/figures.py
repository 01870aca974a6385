"""Figures: as a list of objects in a file, and as lines of text."""

import json
import os

from rows import ROWS

NAME_WIDTH = max(len(row.name) for row in ROWS)
HEADING = f"{'row':{NAME_WIDTH}} {'figure':>10}       {'floor':>8} {'ratio':>7}  {'target':<13} met"


def load(path):
    """By name of the row, those that are rows still; none where there is no file."""
    if not path.exists():
        return {}
    names = {row.name for row in ROWS}
    kept = json.loads(path.read_text())
    return {figure["row"]: figure for figure in kept if figure["row"] in names}


def in_order(kept):
    return [kept[row.name] for row in ROWS if row.name in kept]


def save(path, kept):
    path.parent.mkdir(parents=True, exist_ok=True)
    aside = path.with_suffix(".new")
    aside.write_text(json.dumps(in_order(kept), indent=1) + "\n")
    os.replace(aside, path)


def number(value):
    """With three figures or so."""
    if value is None:
        return "absent"
    decimals = 0 if abs(value) >= 100 else 1 if abs(value) >= 10 else 2
    return f"{value:,.{decimals}f}"


def met(figure):
    return {True: "yes", False: "NO", None: ""}[figure["met"]]


def ratio(figure):
    return f"{figure['ratio']:.2f} x" if figure["ratio"] is not None else ""


def floor(figure):
    return number(figure["floor"]) if figure["floor"] is not None else ""


def line(figure):
    text = (
        f"{figure['row']:{NAME_WIDTH}} {number(figure['value']):>10} {figure['unit']:5} "
        f"{floor(figure):>8} {ratio(figure):>7}  {figure['target'] or '':<13} {met(figure):3}"
    )
    peers = (f"{name} {number(value)}" for name, value in figure["peers"].items())
    return " ".join([text.rstrip(), *(f"[{peer}]" for peer in peers)])
