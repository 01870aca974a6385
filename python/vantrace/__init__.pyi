from . import client as client
from . import host as host
from . import tasks as tasks
from ._collections import trace_gc as trace_gc
from ._core import NotLoadedError as NotLoadedError
from ._core import PluginError as PluginError
from ._core import counter as counter
from ._core import event as event
from ._core import instant as instant
from ._instrumented import instrumented as instrumented
from ._logging import LoggingHandler as LoggingHandler
from ._published import Performance
from ._record import record as record
from ._struct_array import StructArray as StructArray
from ._wrap import wrap as wrap
from ._wrap import wrap_module as wrap_module

__all__ = [
    "LoggingHandler",
    "NotLoadedError",
    "PluginError",
    "StructArray",
    "client",
    "counter",
    "event",
    "host",
    "instant",
    "instrumented",
    "performance",
    "record",
    "tasks",
    "trace_gc",
    "wrap",
    "wrap_module",
]

__version__: str

performance: Performance
