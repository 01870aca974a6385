"""Processes that a recorded one makes anew, not by a fork: they record into the same run folder.

Their environment names the folder and what is recorded, and has the interpreter import our module
`sitecustomize` before anything of the program.
"""

import atexit
import os
import sys

from ._untraced import tell_untraced, watch

_VARIABLE = "VANTRACE_RUN"
_SITE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "_site")
_COLLECTS = "collects"


def announce(folder, options, collects):
    """Has the Python processes that this one starts from now on record into the folder.

    Where it collects from clients, those that are clients do not.
    """
    # Not as JSON, whose module the script may not want.
    os.environ[_VARIABLE] = f"{folder}\n{options | {_COLLECTS: collects}!r}"
    paths = os.environ.get("PYTHONPATH", "").split(os.pathsep)
    others = [path for path in paths if path != _SITE]
    os.environ["PYTHONPATH"] = os.pathsep.join([_SITE, *others] if others != [""] else [_SITE])
    watch(folder, _VARIABLE, _SITE)


def begin():
    """Records this process as the one that started it said; not where its run is over."""
    from ast import literal_eval

    folder, _, options = os.environ.get(_VARIABLE, "").partition("\n")
    if not folder or not os.path.isdir(folder):
        return
    try:
        from ._record import record

        options = literal_eval(options)
        if options.pop(_COLLECTS) and os.environ.get("VANTRACE_CLIENT"):
            return  # its events are in the recording as a client's
        recording = record(folder=folder, **options)
        recording.__enter__()
    except Exception as error:
        tell_untraced(folder, sys.orig_argv, f"{type(error).__name__}: {error}")
        return
    atexit.register(_end, os.getpid(), recording)
    watch(folder, _VARIABLE, _SITE)


def _end(process, recording):
    if os.getpid() == process:
        recording.__exit__(None, None, None)
