"""The files of runs that are repeated: FILE.vtrace stands for FILE-1.vtrace, FILE-2.vtrace, ..."""

import os
from itertools import count


def numbered(file, number):
    """The file of one of the runs, counted from 1."""
    stem, ending = os.path.splitext(file)
    return f"{stem}-{number}{ending}"


def runs_of(file):
    """The file itself where it is there; else those of its runs, if there are any."""
    if os.path.exists(file):
        return [file]
    files = []
    for number in count(1):
        if not os.path.exists(numbered(file, number)):
            return files or [file]
        files.append(numbered(file, number))
