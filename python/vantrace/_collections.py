"""Garbage collections as events."""

import gc

from ._core import event, instant

NAME = "garbage collection"


class trace_gc:
    """trace_gc(): each garbage collection is an event from now on, with its generation as context.

    What it found follows as an instant "garbage found", where it found something. `stop()`, or the
    end of a with block, ends it.
    """

    def __init__(self):
        self._events = [event(NAME, generation=generation) for generation in range(3)]
        self._running = None
        gc.callbacks.append(self._heard)

    def stop(self):
        """Ends it, and a collection that runs as far as it is told."""
        if self._heard in gc.callbacks:
            gc.callbacks.remove(self._heard)
        self._end()

    def __enter__(self):
        return self

    def __exit__(self, kind, error, traceback):
        self.stop()

    # No collection begins while another one runs.
    def _heard(self, phase, info):
        if phase == "start":
            self._running = self._events[info["generation"]]
            self._running.__enter__()
        elif self._running:
            self._end()
            if info["collected"] or info["uncollectable"]:
                instant(
                    "garbage found",
                    collected=info["collected"],
                    uncollectable=info["uncollectable"],
                )

    def _end(self):
        running, self._running = self._running, None
        if running:
            running.__exit__(None, None, None)
