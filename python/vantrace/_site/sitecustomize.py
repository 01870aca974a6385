"""Begins the recording of a process that a recorded one started; then the program's own module of
this name, where there is one, takes the place of this."""

import os
import sys


def _begin():
    folder = os.path.dirname(os.path.abspath(__file__))
    packages = os.path.dirname(os.path.dirname(folder))
    sys.path[:] = [entry for entry in sys.path if entry != folder]
    sys.path.insert(0, packages)
    try:
        from vantrace import _children

        _children.begin()
    except ImportError as error:
        # Another interpreter, which the package is not for.
        _tell(os.environ.get("VANTRACE_RUN", ""), error)
    finally:
        sys.path.remove(packages)


def _tell(run, error):
    """As the package itself would tell it."""
    folder = run.partition("\n")[0]
    try:
        path = os.path.join(folder, "untraced-%d-0" % os.getpid())
        with open(path, "w", encoding="utf-8", errors="replace") as file:
            command = getattr(sys, "orig_argv", sys.argv)
            file.write("%s\n%s" % (error, " ".join(command)))
    except (OSError, ValueError):
        pass


_begin()
del sys.modules[__name__]
# Where there is none, what this raises is what the interpreter expects then.
import sitecustomize  # noqa: E402, F401
