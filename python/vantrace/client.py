"""Being a client: sending events to whoever records on this machine.

    from vantrace import client

    client.join("worker-3")  # all that vantrace.event and instant produce here is sent, too

With VANTRACE_CLIENT=worker-3 in its environment a process does that when it imports vantrace.

A Client sends what it is told and nothing else:

    solver = client.Client("solver")
    with solver.event("assemble", n=512):
        ...
    solver.instant("checkpoint")
    solver.close()

Nothing of this waits, or fails because there is nobody to send to. A child after fork is a client of
its own, of the same name.
"""

import os
import sys
import threading

from . import _client

__all__ = ["Client", "join", "leave"]

_thread = threading.local()
_joined = None


class Client:
    """Client(name): sends events under that name; a context manager that closes it.

    start(name, context) gives an event, which stop(event) ends, from any thread; instant has no
    duration. `is_wanted` tells whether anybody wants events now.
    """

    def __init__(self, name):
        self._client = _client.Client(name)

    @property
    def is_wanted(self):
        return self._client.is_wanted

    def start(self, name, context=None):
        _name_thread()
        return self._client.start(name, context or {})

    def stop(self, event):
        self._client.stop(event)

    def instant(self, name, **context):
        _name_thread()
        self._client.instant(name, context)

    def event(self, name, **context):
        """A context manager: the stretch of work in its block."""
        return _Event(self, name, context)

    def close(self):
        """Ends it; what was published stays for aggregators to collect."""
        self._client.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


class _Event:
    def __init__(self, client, name, context):
        self._client = client
        self._name = name
        self._context = context
        self._events = []

    def __enter__(self):
        self._events.append(self._client.start(self._name, self._context))
        return self

    def __exit__(self, *_):
        self._client.stop(self._events.pop())


def _name_thread():
    if not hasattr(_thread, "is_named"):
        _thread.is_named = True
        _client.name_thread(threading.current_thread().name.replace("\0", " "))


def join(name=None):
    """Sends the events of this process's own instruments from now on; does nothing the second time.

    Every instrument is on from then. The name is the program's where none is given.
    """
    global _joined
    if _joined is not None:
        return
    _joined = _client.Client(name or _program())
    _joined.forward()


def leave():
    """Sends them no more."""
    global _joined
    if _joined is not None:
        _joined.close()
        _joined = None


def _program():
    return os.path.basename(sys.argv[0]) if sys.argv and sys.argv[0] else "python"
