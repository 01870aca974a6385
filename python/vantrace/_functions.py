"""Tracing of every Python function while a recording goes on."""

import os

from . import _frames

OWN = os.path.join(os.path.dirname(os.path.abspath(__file__)), "")
# What is installed is told by its folder's name; the standard library stands where os does.
LIBRARIES = (os.path.join(os.path.dirname(os.path.abspath(os.__file__)), ""),)


class Functions:
    """Which functions are events; begun and ended, perhaps several times.

    Names are `module.qualname`. `include` and `exclude` are patterns of the shell for these. With
    `libraries` those of the standard library and of installed packages are events of their own,
    else their time is their callers'. With `c_calls` the C functions that functions call are events
    as well, which is dearer. Of several that are begun at once the first one decides.
    """

    def __init__(self, include=(), exclude=(), libraries=False, c_calls=False):
        self._selection = {
            "own": OWN,
            "libraries": LIBRARIES,
            "include": _patterns(include),
            "exclude": _patterns(exclude),
            "with_libraries": libraries,
            "c_calls": c_calls,
        }
        self._last_report = None

    def begin(self):
        self._last_report = None
        _frames.start(**self._selection)

    def end(self):
        _frames.stop()
        self._last_report = _frames.report()

    def report(self):
        """What was collapsed into callers, and what was not seen, since the latest beginning."""
        return self._last_report or _frames.report()


def _patterns(patterns):
    return (patterns,) if isinstance(patterns, str) else tuple(patterns)


def places():
    """Where functions stand: {name: (file, line)}."""
    return _frames.places()
