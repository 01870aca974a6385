"""A line that tells how far long work is, for whoever waits at a terminal."""

import sys
import time

_PATIENCE = 1.0  # seconds
_PACE = 0.2


class Progress:
    """Called with what is done of `total` so far; a context that takes the line away at its end.

    `total` is an estimate. Nothing is shown in the first second, and nothing but on a terminal.
    """

    def __init__(self, what, total, stream=None, clock=time.monotonic):
        self._what = what
        self._total = total
        self._stream = sys.stderr if stream is None else stream
        self._clock = clock
        self._next = clock() + _PATIENCE
        self._shown = ""
        try:
            self._is_seen = self._stream.isatty()
        except (AttributeError, ValueError):
            self._is_seen = False

    def __call__(self, done):
        if not self._is_seen or self._clock() < self._next:
            return
        self._next = self._clock() + _PACE
        share = min(100 * done // max(self._total, 1), 99)
        self._show(f"vantrace: {self._what}, about {share} %")

    def _show(self, text):
        self._stream.write("\r" + text.ljust(len(self._shown)))
        self._stream.flush()
        self._shown = text

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self._shown:
            self._show("")
            self._stream.write("\r")
            self._stream.flush()
