"""What `vantrace run` traces and shows: its options about functions and the table."""

import re

from ._cli import UsageError

SORT_KEYS = ("self", "total", "calls", "name")
KEEP = ("longest", "first", "last")
_SIZES = {"K": 1 << 10, "M": 1 << 20, "G": 1 << 30}
_UNITS = {"ns": 1, "us": 1_000, "ms": 1_000_000, "s": 1_000_000_000}


class RunOptions:
    """The options' values; at first their defaults."""

    def __init__(self):
        self.events_only = False
        self.libraries = False
        self.c_calls = False
        self.include = []
        self.exclude = []
        self.min_duration = None  # nanoseconds
        self.max_bytes = 0  # the recorder's own choice
        self.keep = "longest"
        self.sort = "self"
        self.top = 40
        self.count = False
        self.profile = False
        self.log = False
        self.clients = False
        self.dormant = False
        self.gc = False
        self.lines = False
        self.repeat = 1

    def take(self, option, arguments):
        """Takes an option, and its value from the option itself or the arguments.

        False where it is none of these.
        """
        if option in _FLAGS:
            setattr(self, _FLAGS[option], True)
            return True
        name, equals, value = option.partition("=")
        if name not in _VALUES:
            return False
        if not equals:
            if not arguments:
                raise UsageError(f"{name} takes a value; see vantrace --help")
            value = arguments.pop(0)
        _VALUES[name](self, value)
        return True

    def has_others_than(self, name):
        """Whether any other option than that one was given."""
        return vars(self) != vars(RunOptions()) | {name: getattr(self, name)}

    def recording(self):
        """What vantrace.record takes of these."""
        return {
            "max_bytes": self.max_bytes,
            "keep": self.keep,
            "exact": True,
            "functions": not self.events_only,
            "include": self.include,
            "exclude": self.exclude,
            "libraries": self.libraries,
            "c_calls": self.c_calls,
            "lines": self.lines,
        }

    def _take_min_duration(self, value):
        match = re.fullmatch(r"(\d+(?:\.\d+)?)(ns|us|ms|s)", value)
        if not match:
            raise UsageError(f"--min-duration takes a time such as 10us or 1.5ms, not {value!r}")
        self.min_duration = round(float(match[1]) * _UNITS[match[2]])

    def _take_max_memory(self, value):
        match = re.fullmatch(r"(\d+)([KMG])", value, re.ASCII)
        if not match or int(match[1]) == 0:
            raise UsageError(f"--max-memory takes a size such as 64M or 2G, not {value!r}")
        self.max_bytes = int(match[1]) * _SIZES[match[2]]

    def _take_keep(self, value):
        if value not in KEEP:
            raise UsageError(f"--keep takes one of {', '.join(KEEP)}, not {value!r}")
        self.keep = value

    def _take_sort(self, value):
        if value not in SORT_KEYS:
            raise UsageError(f"--sort takes one of {', '.join(SORT_KEYS)}, not {value!r}")
        self.sort = value

    def _take_top(self, value):
        if not re.fullmatch(r"\d+", value, re.ASCII):
            raise UsageError(f"--top takes a number of rows, not {value!r}")
        self.top = int(value)

    def _take_repeat(self, value):
        if not re.fullmatch(r"[1-9]\d{0,2}", value, re.ASCII):
            raise UsageError(f"--repeat takes a number of runs from 1 to 999, not {value!r}")
        self.repeat = int(value)


_FLAGS = {
    "--events-only": "events_only",
    "--all": "libraries",
    "--c-calls": "c_calls",
    "--count": "count",
    "--profile": "profile",
    "--log": "log",
    "--clients": "clients",
    "--dormant": "dormant",
    "--gc": "gc",
    "--lines": "lines",
}
_VALUES = {
    "--include": lambda options, value: options.include.append(value),
    "--exclude": lambda options, value: options.exclude.append(value),
    "--min-duration": RunOptions._take_min_duration,
    "--max-memory": RunOptions._take_max_memory,
    "--keep": RunOptions._take_keep,
    "--sort": RunOptions._take_sort,
    "--top": RunOptions._take_top,
    "--repeat": RunOptions._take_repeat,
}
