#!/usr/bin/python3
"""Makes a table of what each section of .ci/run took.

usage: ci_shares.py LOG
"""

import pathlib
import re
import sys


def rows(log):
    took = [
        (name, int(seconds))
        for name, seconds in re.findall(r"^=== (.+): \w+ after (\d+) s$", log, re.MULTILINE)
    ]
    total = sum(seconds for _, seconds in took)
    for name, seconds in [*took, ("all", total)]:
        yield f"| {name} | {seconds:,} | {100 * seconds / max(total, 1):.0f} % |"


def main(log):
    print("| job | seconds | share |\n|---|---|---|")
    print("\n".join(rows(pathlib.Path(log).read_text(encoding="utf-8"))))


if __name__ == "__main__":
    main(*sys.argv[1:])
