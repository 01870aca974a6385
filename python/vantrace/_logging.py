"""Records of the module logging as instants."""

import logging

from ._core import instant


class LoggingHandler(logging.Handler):
    """A handler that makes each record an instant "log" with level, logger and message as context.

    logging.getLogger().addHandler(vantrace.LoggingHandler())
    """

    def emit(self, record):
        try:
            instant("log", level=record.levelname, logger=record.name, message=_Message(self, record))
        except Exception:
            self.handleError(record)


class _Message:
    """Text that is made where the instant is delivered."""

    __slots__ = ("_handler", "_record")

    def __init__(self, handler, record):
        self._handler, self._record = handler, record

    def __str__(self):
        return self._handler.format(self._record)
