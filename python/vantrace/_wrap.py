"""Events for native functions, whose calls no hook sees."""

import functools
import sys

from ._core import WrappedFunction, event, wrapped_function
from ._decorate import IS_DISABLED


def wrap(function, name=None, /, **context):
    """A function that does what `function` does, each call an event.

        solve = vantrace.wrap(numpy.linalg.solve)

    The event's name is the function's, `module.qualname`, or `name`. Signature, attributes and, for
    isinstance(), the type are the function's; it equals the function, and pickled it is the function.
    """
    if isinstance(function, type) or not callable(function):
        raise TypeError(f"wrap takes a function, not {_described(function)}")
    if IS_DISABLED:
        return function
    wrapper = wrapped_function(event(name or _full_name(function), **context), function)
    # What it lacks it takes from the function.
    return functools.update_wrapper(wrapper, function, updated=())


class wrap_module:
    """wrap_module(module): each call of a module's functions is an event, from now on.

        vantrace.wrap_module(numpy.linalg)

        with vantrace.wrap_module(numpy.linalg):
            ...

    Those that the module offers: all of its `__all__`, or without one the functions of its own whose
    name has no leading underscore; classes stay as they are. Code that imported a function from the
    module before keeps the bare one. `undo()`, or the end of the block, puts back what was there.
    """

    def __init__(self, module):
        names = _offered(module)
        self._module = module
        self._functions = {}
        for name in names:
            function = getattr(module, name, None)
            if _is_wrappable(function):
                wrapper = wrap(function, f"{module.__name__}.{name}")
                self._functions[name] = wrapper
                setattr(module, name, wrapper)

    @property
    def names(self):
        """The names of the wrapped functions."""
        return list(self._functions)

    def undo(self):
        """Puts the bare functions back, but for those that somebody else replaced since."""
        for name, wrapper in self._functions.items():
            if getattr(self._module, name, None) is wrapper:
                setattr(self._module, name, wrapper.__wrapped__)
        self._functions = {}

    def __enter__(self):
        return self

    def __exit__(self, kind, error, traceback):
        self.undo()

    def __repr__(self):
        return f"<wrap_module of {self._module.__name__}: {len(self._functions)} functions>"


def reduced(wrapper):
    """How a wrapper is pickled: by the function's name where that leads to it, else as the function."""
    function = wrapper.__wrapped__
    if _found(wrapper) is wrapper:
        return wrapper.__qualname__
    return _itself, (function,)


def _itself(function):
    return function


def _found(function):
    """What stands where a function says that it stands."""
    found = sys.modules.get(getattr(function, "__module__", None))
    for part in getattr(function, "__qualname__", "").split("."):
        found = getattr(found, part, None)
    return found


def _full_name(function):
    name = getattr(function, "__qualname__", None) or getattr(function, "__name__", None)
    if not isinstance(name, str):
        raise TypeError(f"wrap needs a name for {_described(function)}, which has none")
    module = getattr(function, "__module__", None)
    return f"{module}.{name}" if isinstance(module, str) else name


def _described(value):
    return f"the class {value.__qualname__}" if isinstance(value, type) else type(value).__name__


def _offered(module):
    if not isinstance(module, type(sys)):
        raise TypeError(f"wrap_module takes a module, not {_described(module)}")
    names = getattr(module, "__all__", None)
    if names is not None:
        return list(names)
    return [
        name
        for name, value in vars(module).items()
        if not name.startswith("_") and _is_of(module, value)
    ]


def _is_of(module, value):
    """Whether it was made in the module or below; functions that do not tell count as the module's."""
    home = getattr(value, "__module__", None) or module.__name__
    return home == module.__name__ or home.startswith(module.__name__ + ".")


def _is_wrappable(function):
    is_wrapper = type(function) is WrappedFunction
    is_function = callable(function) and not isinstance(function, type)
    return is_function and not is_wrapper and not IS_DISABLED
