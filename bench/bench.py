#!/usr/bin/python3
"""Measures rows, tells how they stand to their floors, and keeps the figures.

    bench.py BUILD [--missing] [--rounds N] [--pages] [FILTER]

Rows are measured whose name, or section, has FILTER in it; with --missing only those without
figures in the file of figures, so that a run that was interrupted goes on. With --pages the tables
of the pages are written from the figures.
"""

import argparse
import pathlib
import statistics
import sys

import figures
import machine
import pages
from programs import Absent, programs
from rows import SECTIONS

REPETITIONS = 5


def spec(text):
    return text.split(" ", 1)


class Runner:
    def __init__(self, build, rounds=3):
        self.programs = programs(build)
        self.rounds = rounds

    def _round(self, measurements):
        """One round of what a row needs, a program after the other."""
        wanted = {}
        for text in measurements:
            program, name = spec(text)
            wanted.setdefault(program, []).append(name)
        samples = {}
        for program, names in wanted.items():
            samples |= self._samples(program, names)
        return samples

    def _samples(self, program, names):
        try:
            taken = self.programs[program].samples(names, REPETITIONS)
        except Absent:
            taken = {name: [] for name in names}
        return {f"{program} {name}": samples for name, samples in taken.items()}

    def medians(self, row):
        """Of the row, its floor and its peers, measured in turn; None for what is absent."""
        floor = [row.floor] if row.floor else []
        needed = dict.fromkeys([row.value, *floor, *row.peers.values()])
        taken = {text: [] for text in needed}
        for _ in range(self.rounds):
            for text, samples in self._round(needed).items():
                taken[text] += samples
        return {text: statistics.median(all_) if all_ else None for text, all_ in taken.items()}

    def figure(self, section, row):
        medians = self.medians(row)
        value, floor = medians[row.value], medians.get(row.floor)
        return {
            "row": row.name,
            "section": section,
            "value": value,
            "unit": row.unit,
            "floor": floor,
            "floor_name": row.floor_name,
            "ratio": value / floor if value is not None and floor else None,
            "target": str(row.target) if row.target else None,
            "met": is_met(row, value, floor),
            "peers": {peer: medians[text] for peer, text in row.peers.items()},
        }


def is_met(row, value, floor):
    """None where nothing is asked, or what it is measured by is absent."""
    if not row.target or value is None:
        return None
    if floor is None and row.floor:
        return None
    return row.target.is_met(value, floor)


def parse(arguments):
    parser = argparse.ArgumentParser()
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("filter", nargs="?", default="")
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--missing", action="store_true")
    parser.add_argument("--pages", action="store_true")
    return parser.parse_intermixed_args(arguments)


def selected(options, kept):
    for section, rows in SECTIONS.items():
        for row in rows:
            known = options.missing and row.name in kept
            if options.filter.lower() in f"{section}: {row.name}".lower() and not known:
                yield section, row


def main():
    options = parse(sys.argv[1:])
    path = options.build.parent / "bench.json"
    topology = machine.topology()
    for what, value in topology:
        print(f"{what}: {value}")
    kept = figures.load(path)
    runner = Runner(options.build, options.rounds)
    print(figures.HEADING)
    failed = False
    for section, row in selected(options, kept):
        try:
            kept[row.name] = runner.figure(section, row)
        except RuntimeError as failure:
            print(f"{row.name}: {failure}", file=sys.stderr)
            failed = True
            continue
        print(figures.line(kept[row.name]), flush=True)
        figures.save(path, kept)
    if options.pages:
        pages.write(figures.in_order(kept), topology)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
