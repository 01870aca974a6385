"""How commands read what stands behind them: flags, options with values, and files."""

import os

from ._cli import UsageError

_SIZES = {"K": 1 << 10, "M": 1 << 20, "G": 1 << 30}
_UNITS = {"ns": 1, "us": 1_000, "ms": 1_000_000, "s": 1_000_000_000}


class Options:
    """Reads them by the tables of a subclass, which sets the defaults before."""

    COMMAND = ""
    FLAGS = {}  # option: the attribute and what it becomes
    VALUES = {}  # option: the attribute (a list collects), and what reads the value

    def __init__(self, arguments):
        self.files, self.wants_help = [], False
        arguments = list(arguments)
        while arguments:
            argument = arguments.pop(0)
            if not argument.startswith("-") or argument == "-":
                self.files.append(os.fspath(argument))
            elif argument in ("-h", "--help"):
                self.wants_help = True
            elif not self.take(argument, arguments):
                raise no_option(self.COMMAND, argument)

    def take(self, option, arguments):
        """Takes an option, and its value from the option itself or the arguments.

        False where it is none of the tables'.
        """
        return take(self, option, arguments, self.FLAGS, self.VALUES)

    def only_file(self):
        """The one file that the command takes."""
        if len(self.files) != 1:
            raise UsageError(f"{self.COMMAND} takes one file, not {len(self.files)}")
        return self.files[0]


def no_option(command, option):
    return UsageError(f"{command} has no option {option!r}; see vantrace {command} --help")


def take(target, option, arguments, flags, values):
    """Sets what an option says; False where the tables do not have it."""
    if option in flags:
        setattr(target, *flags[option])
        return True
    name, equals, text = option.partition("=")
    if name not in values:
        return False
    attribute, read = values[name]
    if not equals:
        if not arguments:
            raise UsageError(f"{name} takes a value")
        text = arguments.pop(0)
    value = read(name, text)
    if isinstance(getattr(target, attribute), list):
        getattr(target, attribute).append(value)
    else:
        setattr(target, attribute, value)
    return True


# What reads values: each is called with the option's name and its text.


def _fullmatch(pattern, text):
    # Compiling patterns takes as long as all else that most commands import.
    import re

    return re.fullmatch(pattern, text, re.ASCII)


def text(_, text):
    return text


def path(_, text):
    return os.fspath(text)


def time(option, text):
    """Nanoseconds."""
    match = _fullmatch(r"(\d+(?:\.\d+)?)(ns|us|ms|s)", text)
    if not match:
        raise UsageError(f"{option} takes a time such as 10us or 1.5ms, not {text!r}")
    return min(round(float(match[1]) * _UNITS[match[2]]), 2**63 - 1)


def size(option, text):
    """Bytes."""
    match = _fullmatch(r"(\d+)([KMG])", text)
    if not match or int(match[1]) == 0:
        raise UsageError(f"{option} takes a size such as 64M or 2G, not {text!r}")
    return min(int(match[1]) * _SIZES[match[2]], 2**64 - 1)


def number(of_what="", least=0, most=10**18 - 1):
    """What reads a whole number between bounds."""
    bounds = f" up to {most}" if most < 10**9 else ""

    def read(option, text):
        if not _fullmatch(r"\d{1,18}", text) or not least <= int(text) <= most:
            raise UsageError(f"{option} takes a number{of_what and ' ' + of_what}{bounds}, not {text!r}")
        return int(text)

    return read


def one_of(*choices):
    """What reads one of these words."""

    def read(option, text):
        if text not in choices:
            raise UsageError(f"{option} takes one of {', '.join(choices)}, not {text!r}")
        return text

    return read
