"""Processes that a recorded one makes anew, not by a fork: they record into the same run folder.

Their environment names the folder and what is recorded, and has the interpreter import our module
`sitecustomize` before anything of the program.
"""

import atexit
import os
import sys

_VARIABLE = "VANTRACE_RUN"
_SITE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "_site")
_UNTRACED = "untraced-"
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
    _watch(folder)


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
    _watch(folder)


def _end(process, recording):
    if os.getpid() == process:
        recording.__exit__(None, None, None)


def _watch(folder):
    """Hears of the interpreters that the modules subprocess and multiprocessing start."""
    import _posixsubprocess

    start = _posixsubprocess.fork_exec

    def fork_exec(arguments, executables, *others):
        environment = others[3]
        try:
            _started(folder, executables[0], arguments, environment)
        except Exception:
            pass  # whatever is wrong with them, the start itself says it
        return start(arguments, executables, *others)

    _posixsubprocess.fork_exec = fork_exec


def _started(folder, executable, arguments, environment):
    """Tells of an interpreter that will not import our module; others tell it themselves."""
    if not _is_python(os.fsdecode(executable)):
        return
    arguments = [os.fsdecode(argument) for argument in arguments]
    option = _option_without_us(arguments[1:])
    if option:
        tell_untraced(folder, arguments, f"the option -{option}")
    elif environment is not None and not _leads_to_us(environment):
        tell_untraced(folder, arguments, "an environment of its own")


def _is_python(program):
    name = os.path.basename(program)
    return name.startswith("python") and not name[len("python") :].strip("0123456789.")


def _option_without_us(arguments):
    """The interpreter's option that keeps it from importing our module; None where there is none."""
    arguments = iter(arguments)
    for argument in arguments:
        if not argument.startswith("-") or argument == "-":
            return None
        for position, letter in enumerate(argument[1:], 2):
            if letter in "IES":
                return letter
            if letter in "cm":
                return None  # what follows is the program's
            if letter in "WX-":
                if position == len(argument) or letter == "-":
                    next(arguments, None)  # its value
                break
    return None


def _leads_to_us(environment):
    paths = [entry for entry in environment if entry.startswith(b"PYTHONPATH=")]
    names = os.fsencode(_VARIABLE) + b"="
    return any(entry.startswith(names) for entry in environment) and any(
        os.fsencode(_SITE) in path.partition(b"=")[2].split(b":") for path in paths
    )


def tell_untraced(folder, command, reason):
    """Leaves a note of a process for the one that makes the trace."""
    number = 0
    while True:
        path = os.path.join(folder, f"{_UNTRACED}{os.getpid()}-{number}")
        try:
            descriptor = os.open(path, os.O_CREAT | os.O_EXCL | os.O_WRONLY, 0o600)
        except FileExistsError:
            number += 1
            continue
        except OSError:
            return
        with open(descriptor, "w", encoding="utf-8", errors="surrogateescape") as note:
            note.write("\n".join([reason.replace("\n", " "), " ".join(command)]))
        return


def untraced(folder):
    """What was told: (command, reason), each only once."""
    found = {}
    for name in sorted(os.listdir(folder)):
        if name.startswith(_UNTRACED):
            path = os.path.join(folder, name)
            with open(path, encoding="utf-8", errors="surrogateescape") as note:
                reason, _, command = note.read().partition("\n")
            found[command] = reason
    return found.items()
