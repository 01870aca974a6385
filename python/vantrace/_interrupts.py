"""Interrupts that do not come in the middle of what has to be done as a whole."""

import signal
import sys
import threading


class Interrupts:
    """While the block lasts, `hold_during` keeps interrupts away from what it calls.

    Those of any other moment go where they would go without us. Python runs their handlers in the
    main thread, so elsewhere there is nothing to do.
    """

    def __init__(self):
        self._before = None
        self._came = False

    def __enter__(self):
        handler = signal.getsignal(signal.SIGINT)
        if callable(handler) and threading.current_thread() is threading.main_thread():
            self._before = handler
            signal.signal(signal.SIGINT, self._handle)
        return self

    def __exit__(self, kind, error, traceback):
        if self._before and signal.getsignal(signal.SIGINT) == self._handle:
            signal.signal(signal.SIGINT, self._before)
        self._deliver()

    def hold_during(self, function):
        """Calls it. An interrupt that comes meanwhile comes when it has returned."""
        try:
            function()
        finally:
            self._deliver()

    def _handle(self, number, frame):
        if self._is_held(frame):
            self._came = True
        else:
            self._before(number, frame)

    def _is_held(self, frame):
        while frame and not (frame.f_code in _HOLDING and frame.f_locals["self"] is self):
            frame = frame.f_back
        return frame is not None

    def _deliver(self):
        if self._came:
            self._came = False
            self._before(signal.SIGINT, sys._getframe())


_HOLDING = {
    function.__code__
    for function in (Interrupts.__enter__, Interrupts.__exit__, Interrupts.hold_during)
}
