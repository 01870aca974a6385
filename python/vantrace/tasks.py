"""Work in small steps, done when there is time for it.

    from vantrace import performance, tasks

    def warm_up():
        for path in paths:
            load(path)
            yield  # the end of a step

    tasks.add(warm_up(), name="warm up")
    performance.cooperativeTaskManager.process(5000)  # microseconds

Tasks run when `process` is called, and while Python or IPython waits at its prompt.
"""

import atexit
import types

from . import _idle, _tasks

__all__ = ["add"]

_SESSIONS = ("main", "ppe")


def add(work, name=None, session="main"):
    """Puts a task at the end of a session's queue.

    A generator is done in steps, each up to its next `yield`; what it yields is ignored. A callable
    is one step, called without arguments; if it gives a generator, as a generator function does,
    the task goes on with that one. The name is that of the work by default; several tasks may share
    one. The session is "main" or "ppe", the one for what waits until the prompt is back.

    What a step raises ends the task, and comes out of the call that ran it, such as `process`. At
    the prompt there is none: there it goes to `sys.unraisablehook`, as does the error of a task
    behind the first one that failed when several are finished by one call. A generator whose task
    is removed is closed.
    """
    if not (isinstance(work, types.GeneratorType) or callable(work)):
        raise TypeError(f"work: expected a callable or a generator, got {type(work).__name__}")
    if name is None:
        name = getattr(work, "__qualname__", type(work).__qualname__)
    if not isinstance(name, str):
        raise TypeError(f"name: expected str, got {type(name).__name__}")
    if "\0" in name:
        raise ValueError(f"name: expected text without NUL, got {name!r}")
    if not isinstance(session, str):
        raise TypeError(f"session: expected str, got {type(session).__name__}")
    if session not in _SESSIONS:
        raise ValueError(f"session: expected 'main' or 'ppe', got {session!r}")
    _tasks.add(work, name, session == "ppe")


atexit.register(_tasks.close_all)
_idle.install()
