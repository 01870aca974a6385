#!/usr/bin/python3
"""Says which lines and branches the tests reach, by folder and by file, and which they do not.

usage: coverage_report.py ROOT NATIVE.json PYTHON.json [GAPS.txt]

NATIVE.json is what "llvm-cov export" prints, PYTHON.json what "coverage json" writes. A branch is one
outcome of a condition; where a template is made several times over, what one of them reaches is
reached. GAPS.txt gets, for each file, what no test reaches.
"""

import collections
import itertools
import json
import os
import pathlib
import sys

# All lines with code and all branches of a file, and those that nothing reached.
File = collections.namedtuple("File", "lines missed_lines branches missed_branches")
ROW = "{:<56} {:>6} {:>6} {:>6}   {:>8} {:>6} {:>6}"
HEAD = ("lines", "missed", "", "branches", "missed", "")


def line_counts(segments):
    """(line, count) of each line with code; a segment is a place where the count changes."""
    before, before_line = None, 0
    for line, places in itertools.groupby(segments, key=lambda segment: segment[0]):
        carried = [before[2]] if before and before[3] else []
        for between in range(before_line + 1, line) if carried else ():
            yield between, before[2]
        places = list(places)
        begun = [count for _, _, count, counted, entry, gap in places if counted and entry and not gap]
        skipped = places[0][4] and not places[0][3]
        if (begun or carried) and not skipped:
            yield line, max(begun + carried)
        before, before_line = places[-1], line


def native_file(entry):
    lines = dict(line_counts(entry["segments"]))
    taken = collections.Counter()
    for line, column, _, _, true, false, *_ in entry["branches"]:
        taken[line, column, "true"] += true
        taken[line, column, "false"] += false
    return File(
        len(lines),
        sorted(line for line, count in lines.items() if not count),
        len(taken),
        [
            (line, f"{line}:{column} never {outcome}")
            for (line, column, outcome), count in sorted(taken.items())
            if not count
        ],
    )


def python_file(entry):
    summary = entry["summary"]
    return File(
        summary["num_statements"],
        entry["missing_lines"],
        summary["num_branches"],
        [
            (line, f"{line} never to {'the end' if to < 0 else to}")
            for line, to in entry.get("missing_branches", [])
        ],
    )


def measured_files(root, native, python):
    """Each measured file of the project by its path from the root."""
    files = {entry["filename"]: native_file(entry) for entry in native["data"][0]["files"]}
    files |= {path: python_file(entry) for path, entry in python["files"].items()}
    # A compiler's cache names files by way of the build folder.
    inside = {os.path.relpath(path, root): file for path, file in files.items() if file.lines}
    return {path: file for path, file in sorted(inside.items()) if not path.startswith("../")}


def folder_of(path):
    """A library and a part of the front end are a folder each; the plug-in is one."""
    parts = pathlib.Path(path).parts
    return "/".join(parts[: 1 if parts[0] == "vantrace" else 2])


def row(name, files):
    lines = sum(file.lines for file in files)
    missed_lines = sum(len(file.missed_lines) for file in files)
    branches = sum(file.branches for file in files)
    missed_branches = sum(len(file.missed_branches) for file in files)
    return ROW.format(
        name,
        lines,
        missed_lines,
        share(lines, missed_lines),
        branches,
        missed_branches,
        share(branches, missed_branches),
    )


def share(all_of_them, missed):
    return f"{100 * (all_of_them - missed) / all_of_them:.1f}%" if all_of_them else "-"


def report(files):
    folders = collections.defaultdict(list)
    for path, file in files.items():
        folders[folder_of(path)].append(file)
    yield ROW.format("folder", *HEAD)
    yield from (row(folder, members) for folder, members in sorted(folders.items()))
    yield row("all", files.values())
    yield ""
    yield ROW.format("file", *HEAD)
    yield from (row(path, [file]) for path, file in files.items())


def stretches(lines):
    """Lines in a row as "first-last"."""
    for _, group in itertools.groupby(enumerate(lines), key=lambda pair: pair[1] - pair[0]):
        group = [line for _, line in group]
        yield str(group[0]) if len(group) == 1 else f"{group[0]}-{group[-1]}"


def gaps(files):
    """What nothing reached; of a line that was never reached, its branches are not told."""
    for path, file in files.items():
        unreached = set(file.missed_lines)
        branches = [text for line, text in file.missed_branches if line not in unreached]
        if unreached or branches:
            yield path
        if unreached:
            yield f"  lines {' '.join(stretches(file.missed_lines))}"
        yield from (f"  {text}" for text in branches)


def read(path):
    return json.loads(pathlib.Path(path).read_text(encoding="utf-8"))


def main(root, native, python, gaps_path=None):
    files = measured_files(root, read(native), read(python))
    print("\n".join(report(files)))
    if gaps_path:
        pathlib.Path(gaps_path).write_text("".join(f"{line}\n" for line in gaps(files)), "utf-8")


if __name__ == "__main__":
    main(*sys.argv[1:])
