"""`%load_ext vantrace`: recording cells and lines of a notebook, or of IPython."""

import io
import shlex
import time

from IPython.core.error import UsageError as ShellUsageError
from IPython.core.magic import needs_local_scope, no_var_expand
from IPython.display import display

from . import _cell_output, _frames
from ._cell_code import CellCode, place_names
from ._cli import UsageError
from ._interrupts import Interrupts
from ._record import check_writable, record
from ._run_options import RunOptions

USAGE = """\
%vantrace [OPTIONS] STATEMENT     records one line
%%vantrace [OPTIONS]              records a cell

Shows where the time went: a table, and a flame graph.

  -o, --output FILE   write the trace there, too: .vtrace, .json, .json.gz, .folded, .prof or
                      .speedscope.json
  --events-only       no functions, only the events that the code itself produces
  --include PATTERN   only functions whose name, module.qualname, matches; may be repeated
  --exclude PATTERN   no functions whose name matches; may be repeated
  --all               functions of the standard library and of installed packages by their own
                      names; else their time is part of their callers'
  --c-calls           the C functions that functions call too, which slows all Python code
  --gc                garbage collections as events
  --min-duration T    leave what is shorter out of the flame graph and of what -o writes, but for
                      .vtrace; T is a time such as 10us
  --max-memory SIZE   bounds the memory for events, such as 64M (default 256M); the table is exact
                      all the same
  --keep WHAT         what is kept then: longest (default) events, first or last ones
  --sort KEY          the table's order: self (default), total, calls or name
  --top N             at most N rows (default 40; 0: all, up to 500)
"""

_NAME = "vantrace"
_MAX_BYTES = 256 << 20
_NOT_HERE = ("--count", "--profile", "--log", "--clients", "--dormant", "--repeat")


def load_ipython_extension(shell):
    """Adds the magic to a shell."""

    def vantrace(line, cell=None, local_ns=None):
        return _run(shell, line, cell, shell.user_ns if local_ns is None else local_ns)

    vantrace.__doc__ = USAGE
    magic = needs_local_scope(no_var_expand(vantrace))
    shell.register_magic_function(magic, magic_kind="line_cell", magic_name=_NAME)
    _frames.set_base(_recorded.__code__)  # what called that is not the cell's


def unload_ipython_extension(shell):
    """Takes it away again."""
    for kind in ("line", "cell"):
        shell.magics_manager.magics[kind].pop(_NAME, None)


def _run(shell, line, cell, local_names):
    try:
        options = _Options(line)
        if options.wants_help:
            print(USAGE)
            return None
        code = options.code(shell, line, cell)
    except UsageError as error:
        raise ShellUsageError(str(error)) from None
    recording = _Recording(options.run, place_names(shell))
    try:
        with Interrupts() as interrupts:
            return _recorded(interrupts, recording, code, (shell.user_ns, local_names))
    finally:
        if recording.duration is not None:
            display(_cell_output.bundle(recording, options.run, options.output), raw=True)


def _recorded(interrupts, recording, code, names):
    try:
        try:
            interrupts.hold_during(recording.begin)
            return code.run(*names)
        finally:
            interrupts.hold_during(recording.end)
    finally:
        # Once more, where an interrupt came on the way to the first time.
        interrupts.hold_during(recording.end)


class _Options:
    """What stands before the code."""

    def __init__(self, line):
        self.run = RunOptions()
        self.run.max_bytes = _MAX_BYTES
        self.output, self.wants_help = None, False
        words = _Words(line)
        while words.next_is_option() and (option := words.pop()) != "--":
            self._take(option, words)
        self.statement = words.rest
        if self.output is not None:
            _check_output(self.output)

    def _take(self, option, words):
        name, equals, value = option.partition("=")
        if name in ("-h", "--help"):
            self.wants_help = True
        elif name in ("-o", "--output"):
            if not equals and not words:
                raise UsageError(f"{name} takes a file")
            self.output = value if equals else words.pop()
        elif name in _NOT_HERE or not self.run.take(option, words):
            raise UsageError(f"%vantrace has no option {option!r}; see %vantrace --help")

    def code(self, shell, line, cell):
        """What is to be recorded: the cell, or what follows the options."""
        if cell is None:
            if not self.statement:
                raise UsageError("%vantrace takes a statement; see %vantrace --help")
            return CellCode(shell, self.statement)
        if self.statement:
            raise UsageError(f"the code begins below %%vantrace, not with {self.statement!r}")
        return CellCode(shell, cell, above=f"#%%{_NAME} {line}\n")


class _Words:
    """The words of a line, quoted as in a shell; what is not taken stays as it is."""

    def __init__(self, line):
        self.rest = line.strip()

    def __bool__(self):
        return bool(self.rest)

    def next_is_option(self):
        return self.rest.startswith("-")

    def pop(self, _=0):
        stream = io.StringIO(self.rest)
        lexer = shlex.shlex(stream, posix=True, punctuation_chars=False)
        lexer.whitespace_split, lexer.commenters = True, ""
        try:
            word = lexer.get_token()
        except ValueError:
            raise UsageError(f"a quotation does not end: {self.rest}") from None
        self.rest = stream.read().strip()
        return word


def _check_output(path):
    from ._export import trace_writer

    if not path.endswith(".vtrace"):
        trace_writer(path, "a trace", [".vtrace"])
    try:
        check_writable(path)
    except OSError as error:
        raise UsageError(f"cannot write {error.filename!r}: {error.strerror}") from None


class _Recording:
    """A cell's recording, with a recorder of its own."""

    counts_all = True

    def __init__(self, options, place_names):
        self.duration = None  # nanoseconds; none where it did not begin
        self._recording = record(**options.recording())
        self._wants_gc = options.gc
        self._collections = None
        self._place_names = place_names
        self.summary = self._recording.summary
        self.threads = self._recording.threads
        self.functions = self._recording.functions
        self.drops = self._recording.drops
        self.line_times = self._recording.line_times
        self.save = self._recording.save

    def begin(self):
        if self._wants_gc:
            from ._collections import trace_gc

            self._collections = trace_gc()
        self._recording.__enter__()
        self._began = time.perf_counter_ns()

    def end(self):
        """Also of one that did not begin, or has ended."""
        ended = time.perf_counter_ns()
        if self._collections:
            self._collections.stop()
        if self._recording.is_active:
            self.duration = ended - self._began
            self._recording.__exit__(None, None, None)

    @property
    def has_all_lines(self):
        return self._recording.has_all_lines

    def places(self):
        return self._place_names(self._recording.places())
