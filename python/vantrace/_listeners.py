"""The published listeners beside the recording of `vantrace run`: counter, profiler, logger."""


class Listeners:
    """Those that the options ask for.

    They begin in this order and end in the reverse one, since the profiler and the logger each give
    back the switches as they found them. What the host prints goes to standard error: standard
    output is the script's.
    """

    def __init__(self, options):
        asked = {"counter": options.count, "profiler": options.profile, "logger": options.log}
        self._wanted = [name for name, is_wanted in asked.items() if is_wanted]
        self._counts = None
        if self._wanted:
            from . import performance
            from ._core import direct_console_to_errors

            self._instrument = performance.instrument
            direct_console_to_errors()

    def start(self):
        for name in self._wanted:
            getattr(self._instrument, name).start()

    def stop(self):
        """The profiler prints its table."""
        for name in reversed(self._wanted):
            listener = getattr(self._instrument, name)
            stop = listener.stopAndPrint if name == "profiler" else listener.stop
            stop()
        if "counter" in self._wanted:
            self._counts = self._instrument.counter.getAllEventCounts()

    def lines(self):
        """What the counter found, most counted first."""
        from ._table import printable

        if self._counts is None:
            return
        yield f"{'count':>13}  event"
        for row in sorted(self._counts, key=lambda row: row["count"], reverse=True):
            yield f"{row['count']:>13,.0f}  {printable(row['name']) or '(unnamed)'}"
