"""Functions whose calls are events."""

import functools
import inspect
import os

from ._core import event as new_event
from ._core import event_function

# Decided once: functions that were left as they are stay so.
IS_DISABLED = os.environ.get("VANTRACE_DISABLED", "0") not in ("", "0")


def decorate(event, function):
    """What `event(function)` gives: the function with each call an event, unless it is disabled.

    A generator or coroutine is an event from its first step to its last, while it waits too.
    """
    if isinstance(function, (staticmethod, classmethod)):
        return type(function)(decorate(event, function.__func__))
    if not callable(function):
        raise TypeError(f"an event decorates functions, not {type(function).__name__}")
    if IS_DISABLED:
        return function
    if inspect.isasyncgenfunction(function):
        wrapper = _async_generator(event, function)
    elif inspect.iscoroutinefunction(function):
        wrapper = _coroutine(event, function)
    elif inspect.isgeneratorfunction(function):
        wrapper = _generator(event, function)
    else:
        wrapper = event_function(event, function)
    return functools.update_wrapper(wrapper, function)


# Several calls of one function can be suspended at once: each has an event object of its own.


def _coroutine(event, function):
    async def wrapper(*args, **kwargs):
        with new_event(event.name, **event.context):
            return await function(*args, **kwargs)

    return wrapper


def _generator(event, function):
    def wrapper(*args, **kwargs):
        with new_event(event.name, **event.context):
            return (yield from function(*args, **kwargs))

    return wrapper


def _async_generator(event, function):
    async def wrapper(*args, **kwargs):
        with new_event(event.name, **event.context):
            generator = function(*args, **kwargs)
            try:
                item = await anext(generator)
                while True:
                    try:
                        sent = yield item
                    except GeneratorExit:
                        raise
                    except BaseException as error:
                        item = await generator.athrow(error)
                    else:
                        item = await generator.asend(sent)
            except StopAsyncIteration:
                return
            finally:
                await generator.aclose()

    return wrapper
