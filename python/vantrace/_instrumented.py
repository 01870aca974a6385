"""@vantrace.instrumented: functions and classes, each call of which is an event."""

import types

from ._core import event as new_event
from ._decorate import decorate

_SPECIAL = ("__init__", "__call__")


def instrumented(target=None, /, *, name=None, **context):
    """Makes each call of a function an event; with or without arguments.

        @vantrace.instrumented
        def assemble(): ...

        @vantrace.instrumented(name="solve", method="cg")
        def conjugate_gradients(): ...

    The event's name is the function's `__qualname__` by default; the other arguments are its
    context. A generator or coroutine is an event from its first step to its last, while it waits
    too. Of a class, which stays the same object, it is the methods that the class itself defines,
    but properties and special methods other than `__init__` and `__call__`.

    Where the environment has VANTRACE_DISABLED=1 when vantrace is imported, functions and classes
    stay as they are.
    """
    if target is None:
        return lambda decorated: _instrument(decorated, name, context)
    return _instrument(target, name, context)


def _instrument(target, name, context):
    if isinstance(target, type):
        return _instrument_class(target, name or target.__qualname__, context)
    return decorate(new_event(_name_of(target) if name is None else name, **context), target)


def _instrument_class(cls, name, context):
    for attribute, member in list(vars(cls).items()):
        if _is_method(attribute, member):
            event = new_event(f"{name}.{attribute}", **context)
            setattr(cls, attribute, decorate(event, member))
    return cls


def _is_method(attribute, member):
    if attribute.startswith("__") and attribute.endswith("__") and attribute not in _SPECIAL:
        return False
    return isinstance(member, (types.FunctionType, staticmethod, classmethod))


def _name_of(function):
    return getattr(function, "__qualname__", None) or type(function).__qualname__
