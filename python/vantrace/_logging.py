"""Records of the module logging as instants."""

import logging

from ._core import instant


class LoggingHandler(logging.Handler):
    """A handler that makes each record an instant "log" with level, logger and message as context.

    logging.getLogger().addHandler(vantrace.LoggingHandler())
    """

    def emit(self, record):
        try:
            instant("log", level=record.levelname, logger=record.name, message=self.format(record))
        except Exception:
            self.handleError(record)
