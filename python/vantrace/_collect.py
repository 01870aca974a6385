"""The events of other processes in a recording of `vantrace run`."""

_PERIOD = 20  # milliseconds


class Clients:
    """Collects from clients while the script runs."""

    def __init__(self, is_wanted):
        self._aggregator = None
        if is_wanted:
            from ._clients import Aggregator

            self._aggregator = Aggregator()

    def start(self):
        if self._aggregator:
            from . import client

            client.leave()  # our own events come to the recording as they are
            self._aggregator.start(_PERIOD)

    def stop(self):
        """Takes in what was published until now."""
        if self._aggregator:
            self._aggregator.stop()

    def lines(self):
        """A line for each client: what it published, and what became of it."""
        if self._aggregator is None:
            return
        from ._clients import accounts
        from ._table import printable

        for name, process, published, delivered, drops in accounts():
            causes = "".join(f", {count:,} dropped ({cause})" for cause, count in drops.items())
            yield (
                f"vantrace: client {printable(name)} (process {process}): "
                f"{published:,} published, {delivered:,} delivered{causes}"
            )
