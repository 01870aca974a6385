"""What `vantrace run` traces and shows: its options about functions and the table."""

from . import _options

SORT_KEYS = ("self", "total", "calls", "name")
KEEP = ("longest", "first", "last")


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
        return _options.take(self, option, arguments, _FLAGS, VALUES)

    def has_others_than(self, name):
        """Whether any other option than that one was given."""
        return vars(self) != vars(RunOptions()) | {name: getattr(self, name)}

    def listeners(self):
        """The published listeners that hear the events, too, but for the logger: what that costs is
        the printing."""
        asked = {"counter": self.count, "profiler": self.profile}
        return [name for name, is_asked in asked.items() if is_asked]

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


_FLAGS = {
    "--events-only": ("events_only", True),
    "--all": ("libraries", True),
    "--c-calls": ("c_calls", True),
    "--count": ("count", True),
    "--profile": ("profile", True),
    "--log": ("log", True),
    "--clients": ("clients", True),
    "--dormant": ("dormant", True),
    "--gc": ("gc", True),
    "--lines": ("lines", True),
}
VALUES = {
    "--include": ("include", _options.text),
    "--exclude": ("exclude", _options.text),
    "--min-duration": ("min_duration", _options.time),
    "--max-memory": ("max_bytes", _options.size),
    "--keep": ("keep", _options.one_of(*KEEP)),
    "--sort": ("sort", _options.one_of(*SORT_KEYS)),
    "--top": ("top", _options.number("of rows")),
    "--repeat": ("repeat", _options.number("of runs", least=1, most=999)),
}
