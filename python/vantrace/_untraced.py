"""Interpreters that a recorded process starts and that will not be recorded: the run names them.

Others begin their recording themselves. What is looked at is how they are started: by the module
subprocess, by os.exec and os.posix_spawn, and by the commands that a shell is given as a text.
"""

import os

_UNTRACED = "untraced-"
_SHELLS = ("sh", "bash", "dash", "ksh", "zsh")
# Words that another command comes after.
_BEFORE_COMMANDS = set("! { do else env exec if nice nohup then time while command".split())


def watch(folder, variable, site):
    """Leaves notes in the folder from now on. Interpreters need the variable, and the folder `site`
    on their path, to be recorded."""
    import _posixsubprocess

    watcher = _Watcher(folder, variable, site)
    start = _posixsubprocess.fork_exec

    def fork_exec(arguments, executables, *others):
        watcher.note(executables[0], arguments, others[3])
        return start(arguments, executables, *others)

    _posixsubprocess.fork_exec = fork_exec
    for name in ("execv", "execve", "posix_spawn", "posix_spawnp"):
        setattr(os, name, _noting(watcher, getattr(os, name)))
    # The program's own calls go on to it; nothing of ours has a shell do anything.
    setattr(os, "system", _noting_text(watcher, getattr(os, "system")))


def _noting(watcher, start):
    """The same function; it may be tried with several paths, of which only one is there."""

    def noting(path, arguments, *others, **options):
        environment = others[0] if others else options.get("env")
        notes = watcher.note(path, arguments, environment)
        try:
            return start(path, arguments, *others, **options)
        except BaseException:
            _take_back(notes)
            raise

    return _named_like(start, noting)


def _take_back(notes):
    for note in notes:
        try:
            os.unlink(note)
        except OSError:
            pass  # the run is over


def _noting_text(watcher, start):
    """The same for a function that a shell's command is given to."""

    def noting(command):
        watcher.note("sh", ["sh", "-c", command], None)
        return start(command)

    return _named_like(start, noting)


def _named_like(known, function):
    function.__name__ = function.__qualname__ = known.__name__
    function.__doc__ = known.__doc__
    return function


class _Watcher:
    def __init__(self, folder, variable, site):
        self._folder = folder
        self._variable = os.fsencode(variable) + b"="
        self._site = os.fsencode(site)

    def note(self, program, arguments, environment):
        """Leaves notes of what will not be recorded; gives their paths.

        Whatever is wrong with the arguments, the start itself says it.
        """
        try:
            found = list(self._untraced(program, arguments, environment))
        except Exception:
            return []
        notes = [tell_untraced(self._folder, command, reason) for command, reason in found]
        return [note for note in notes if note]

    def _untraced(self, program, arguments, environment):
        """(command, reason) of each such interpreter."""
        program = os.path.basename(os.fsdecode(program))
        arguments = [os.fsdecode(argument) for argument in arguments]
        leads_to_us = environment is None or self._leads_to_us(environment)
        if program in _SHELLS:
            yield from _in_shell(arguments, leads_to_us)
        elif _is_python(program):
            yield from _of_interpreter(arguments, leads_to_us)

    def _leads_to_us(self, environment):
        if hasattr(environment, "items"):
            items = [(os.fsencode(key), os.fsencode(value)) for key, value in environment.items()]
            environment = [b"=".join(item) for item in items]
        paths = [entry for entry in environment if entry.startswith(b"PYTHONPATH=")]
        return any(entry.startswith(self._variable) for entry in environment) and any(
            self._site in path.partition(b"=")[2].split(b":") for path in paths
        )


def _of_interpreter(arguments, leads_to_us):
    option = _option_without_us(arguments[1:])
    if option:
        yield arguments, f"the option -{option}"
    elif not leads_to_us:
        yield arguments, "an environment of its own"


def _in_shell(arguments, leads_to_us):
    """Of the commands in the text that a shell is given; of a script in a file nothing is known."""
    options = [
        position
        for position, word in enumerate(arguments)
        if word.startswith("-") and not word.startswith("--") and "c" in word
    ]
    if not options:
        return
    for command in _commands(arguments[options[0] + 1]):
        if _is_python(os.path.basename(command[0])):
            yield from _of_interpreter(command, leads_to_us)


def _commands(text):
    """The words of each simple command, without what comes before its name."""
    import shlex

    words = shlex.shlex(text, posix=True, punctuation_chars="();<>|&\n")
    words.whitespace, words.whitespace_split, words.commenters = " \t\r", True, ""
    command = []
    for word in [*words, ";"]:
        if not set(word) - set("();<>|&\n"):
            if set(word) & set("<>") and command and command[-1].isdigit():
                command.pop()  # the descriptor that is redirected
            if command:
                yield command
            command = []
        elif command or not (word in _BEFORE_COMMANDS or _is_assignment(word)):
            command.append(word)


def _is_assignment(word):
    return word.partition("=")[0].isidentifier() and "=" in word


def _is_python(name):
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


def tell_untraced(folder, command, reason):
    """Leaves a note of a process for the one that makes the trace; gives its path."""
    number = 0
    while True:
        path = os.path.join(folder, f"{_UNTRACED}{os.getpid()}-{number}")
        try:
            descriptor = os.open(path, os.O_CREAT | os.O_EXCL | os.O_WRONLY, 0o600)
        except FileExistsError:
            number += 1
            continue
        except OSError:
            return None
        with open(descriptor, "w", encoding="utf-8", errors="surrogateescape") as note:
            note.write("\n".join([reason.replace("\n", " "), " ".join(command)]))
        return path


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
