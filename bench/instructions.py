#!/usr/bin/python3
"""Counts the instructions of frequent events: a figure that a busy machine does not move.

    instructions.py PROGRAM [--check | --update]

With --check it ends badly where a row takes more than was kept, beyond the margin; with --update
what was counted is kept.
"""

import json
import pathlib
import re
import subprocess
import sys

KEPT = pathlib.Path(__file__).with_suffix(".json")
MARGIN = 0.10
PAIRS = 20_000


def rows(program):
    return subprocess.run([program], check=True, capture_output=True, text=True).stdout.split()


def count(program, row):
    """Instructions a pair, by what callgrind collects inside measure()."""
    command = ["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null"]
    command += ["--toggle-collect=measure", program, row, str(PAIRS)]
    done = subprocess.run(command, check=True, capture_output=True, text=True)
    return round(int(re.search(r"Collected : (\d+)", done.stderr)[1]) / PAIRS, 1)


def verdict(counted, kept):
    """None where it is as it was, else what to say."""
    if kept is None:
        return "not kept yet"
    if counted > kept * (1 + MARGIN) + 1:
        return f"more than the {kept} that were kept, beyond {MARGIN:.0%}"
    return None


def main():
    program, *options = sys.argv[1:]
    kept = json.loads(KEPT.read_text()) if KEPT.exists() else {}
    counted, complaints = {}, 0
    for row in rows(program):
        counted[row] = count(program, row)
        complaint = verdict(counted[row], kept.get(row))
        complaints += bool(complaint)
        print(f"{row:32} {counted[row]:8.1f} instructions a pair {complaint or ''}".rstrip())
    if "--update" in options:
        KEPT.write_text(json.dumps(counted, indent=1) + "\n")
    return 1 if "--check" in options and complaints else 0


if __name__ == "__main__":
    sys.exit(main())
