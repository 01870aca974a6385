"""Recording a script that runs as the real `__main__`."""

import atexit
import builtins
import io
import os
import sys
import time
from importlib.machinery import SourceFileLoader
from types import ModuleType

from . import _children, _frames
from ._cli import UsageError
from ._collect import Clients
from ._core import Trace, finish_run_folder
from ._export import trace_writer
from ._listeners import Listeners
from ._record import check_writable, record
from ._supervise import Child, RunFolder, end_like
from ._table import printable
from ._untraced import untraced

_LONGEST_COMMAND = 100
_RESERVE = 4 << 20
_UNSAID = "unsaid"


def run(script, arguments, output, table, options):
    """Runs the script in a child; ends as it ends, in whatever way that is.

    The recording ends when the interpreter does: after the script's threads and exit handlers.
    """
    source = _read(script)
    if options.dormant:
        if output is not None or not table or options.has_others_than("dormant"):
            raise UsageError("--dormant goes without other options: vantrace snap takes them")
        return _run_dormant(script, arguments, source)
    if options.lines:
        _check_lines()
    output = Output(script, output, options, table)
    child = Child()
    if not child.is_here:
        status = child.wait()
        output.finish()
        end_like(status)
    report = _Report(output.run_folder, table, options)
    _children.announce(output.run_folder, options.recording() | {"exact": False}, options.clients)
    code = _main_code(script, arguments, source)
    _frames.set_base(run.__code__)  # what called that is not the script's
    report.begin()
    _execute(code)
    return 0


def _check_lines():
    from ._lines import needed_sampler

    try:
        needed_sampler()
    except (ImportError, OSError) as error:
        raise UsageError(error) from None


def _run_dormant(script, arguments, source):
    """Runs the script here: nothing is recorded until somebody asks."""
    from . import _dormant

    code = _main_code(script, arguments, source)
    _dormant.wait_for_requests()
    _execute(code)
    return 0


def _read(script):
    try:
        with io.open_code(os.path.abspath(script)) as file:
            return file.read()
    except OSError as error:
        raise UsageError(f"cannot open {script!r}: {error.strerror}") from None


def _absolute(path):
    """As the interpreter makes the path of its script absolute."""
    return os.path.join(os.getcwd(), path)


def _main_code(script, arguments, source):
    """Puts the script in our place; gives its code."""
    file = _absolute(script)
    sys.argv[:] = [script, *arguments]
    if not sys.flags.safe_path:
        sys.path[0] = os.path.dirname(os.path.realpath(script))
    main = ModuleType("__main__")
    main.__dict__.update(
        __annotations__={},
        __builtins__=builtins,
        __cached__=None,
        __file__=file,
        __loader__=SourceFileLoader("__main__", file),
    )
    sys.modules["__main__"] = main
    with _OwnFramesHidden():
        return compile(source, file, "exec", dont_inherit=True)


def _execute(code):
    # The script may recurse as deep as if it had been called first of all.
    own = _frames.recursions()
    _frames.add_recursions(own)
    try:
        with _OwnFramesHidden():
            exec(code, sys.modules["__main__"].__dict__)
    finally:
        _frames.add_recursions(-own)


class _OwnFramesHidden:
    """The traceback of an exception that leaves the block begins where the script does."""

    def __enter__(self):
        # Untouched, it is no memory, but room: for what is done here when the script found none.
        self._reserve = bytearray(_RESERVE)

    def __exit__(self, kind, error, traceback):
        del self._reserve
        if error is None or kind is SystemExit:
            return
        hook, scripts_own = sys.excepthook, traceback and traceback.tb_next

        def show(*_):
            error.__traceback__ = scripts_own
            try:
                hook(kind, error, scripts_own)
            except SystemExit:
                raise
            except BaseException as failure:
                _show_failed_hook(failure, error)

        sys.excepthook = show


def _show_failed_hook(failure, error):
    """What the interpreter prints then, without the frame that called the hook for it."""
    failure.__traceback__ = failure.__traceback__.tb_next
    print("Error in sys.excepthook:", file=sys.stderr)
    sys.__excepthook__(type(failure), failure, failure.__traceback__)
    print("\nOriginal exception was:", file=sys.stderr)
    sys.__excepthook__(type(error), error, error.__traceback__)


class _Unheard:
    """Takes the host's lines of what was dropped, which we say ourselves: standard output belongs
    to the script."""

    def write(self, text):
        return len(text)

    def flush(self):
        pass


class _Report:
    """What the script's process says of its recording in the end."""

    def __init__(self, folder, table, options):
        self._folder = folder
        self._table = table
        self._options = options
        self._process = os.getpid()
        self._stderr = sys.stderr
        self._recording = record(folder=folder, **options.recording())
        self._listeners = Listeners(options)
        self._collections = None
        self._clients = Clients(options.clients)

    def begin(self):
        # Registered before any of the script's own, it runs after them.
        atexit.register(self._end)
        self._recording.__enter__()
        if self._options.gc:
            from ._collections import trace_gc

            self._collections = trace_gc()
        self._listeners.start()
        self._clients.start()
        self._begin = time.perf_counter_ns()
        self._begin_cpu = time.process_time_ns()

    def _end(self):
        if os.getpid() != self._process:
            return  # a fork of the script that came to its own end
        duration = time.perf_counter_ns() - self._begin
        cpu_time = time.process_time_ns() - self._begin_cpu
        self._clients.stop()
        self._listeners.stop()
        if self._collections:
            self._collections.stop()
        self._recording.__exit__(None, None, None)
        try:
            sys.stdout.flush()
        except (AttributeError, OSError, ValueError):
            pass  # closed, or its reader is gone: the interpreter says so itself
        stdout, sys.stdout = sys.stdout, _Unheard()
        try:
            _say(self._stderr, *self._result_lines(duration, cpu_time))
            _say(self._stderr, *self._listeners.lines())
            _say(self._stderr, *self._clients.lines())
        except MemoryError:
            return  # as if the script had been killed
        finally:
            sys.stdout = stdout

    def _result_lines(self, duration, cpu_time):
        from ._table import lines, losses, style_of

        if not self._table or self._is_part():
            return losses(self._recording)
        style = style_of(self._stderr)
        listeners = self._options.listeners()
        found = list(lines(self._recording, duration, cpu_time, self._options, style, listeners))
        try:
            os.unlink(os.path.join(self._folder, _UNSAID))
        except FileNotFoundError:
            pass  # the script tidied up
        return found

    def _is_part(self):
        """Whether other processes recorded, too: the table is of all of them then."""
        try:
            files = [name for name in os.listdir(self._folder) if name.endswith(".run")]
        except OSError:
            return False
        return any(not name.startswith(f"{self._process}-") for name in files)


class Output:
    """Where the trace goes, and the folder that it is made from."""

    def __init__(self, script, output, options, table=False):
        """With `table` it is said, too, unless the script's process did that itself."""
        self._script = script
        self._options = options
        self._path = None if output is None else os.path.abspath(output)
        self._folder = os.path.dirname(self._path) if output else os.getcwd()
        try:
            if self._path is not None and not self._path.endswith(".vtrace"):
                trace_writer(self._path, "a trace", [".vtrace"])
            check_writable(self._path or os.path.join(self._folder, "vantrace.vtrace"))
            self._run_folder = RunFolder(self._folder)
            if table:
                # Removing it needs no room on the disk.
                with open(self._unsaid, "x", encoding="ascii"):
                    pass
        except OSError as error:
            raise UsageError(f"cannot write {error.filename!r}: {error.strerror}") from None

    @property
    def run_folder(self):
        return self._run_folder.path

    @property
    def _unsaid(self):
        return os.path.join(self.run_folder, _UNSAID)

    def discard(self):
        """Nothing is to be made of the folder."""
        self._run_folder.remove()

    def finish(self):
        """Makes the trace of what the folder has, and says where it is; whether that was possible."""
        try:
            for command, reason in untraced(self.run_folder):
                _say(sys.stderr, f"vantrace: not traced, for {printable(reason)}: {_shortened(command)}")
            path = self._path or self._fresh_path()
            whole = self._write(path)
            self._say_table(whole)
            self._run_folder.remove()
        except OSError as error:
            _say(sys.stderr, f"vantrace: cannot write {error.filename!r}: {error.strerror}")
            if os.path.isdir(self.run_folder):
                _say(
                    sys.stderr,
                    f"vantrace: what was recorded is in {self.run_folder}; "
                    "vantrace export FOLDER -o FILE.vtrace makes the trace of it",
                )
            return False
        _say(sys.stderr, f"vantrace: the trace is {printable(path)}")
        return True

    def _say_table(self, whole):
        if not os.path.exists(self._unsaid):
            return
        from ._file_table import lines_of_trace
        from ._table import style_of

        count = Trace(whole).processes
        processes = f"{count} process{'' if count == 1 else 'es'}"
        _say(sys.stderr, f"vantrace: what is in the trace, of {processes}:")
        _say(sys.stderr, *lines_of_trace(whole, self._options, style_of(sys.stderr)))

    def _write(self, path):
        """Gives the trace file that it made of the folder."""
        if path.endswith(".vtrace"):
            finish_run_folder(self.run_folder, path)
            return path
        whole = os.path.join(self.run_folder, "whole.vtrace")
        finish_run_folder(self.run_folder, whole)
        trace = Trace(whole)
        if self._options.min_duration is not None and not path.endswith(".folded"):
            trace.select(None, None, self._options.min_duration, 0, True)
        trace_writer(path)(trace, path)
        return whole

    def _fresh_path(self):
        """A name that no file had; there is one now."""
        stem = os.path.splitext(os.path.basename(self._script))[0]
        stem = f"vantrace-{stem}-{time.strftime('%Y%m%d-%H%M%S')}"
        number = 1
        while True:
            name = f"{stem}{'' if number == 1 else f'-{number}'}.vtrace"
            path = os.path.join(self._folder, name)
            try:
                os.close(os.open(path, os.O_CREAT | os.O_EXCL | os.O_WRONLY, 0o666))
                return path
            except FileExistsError:
                number += 1


def _shortened(command):
    command = printable(command)
    return command if len(command) <= _LONGEST_COMMAND else command[: _LONGEST_COMMAND - 3] + "..."


def _say(stream, *lines):
    try:
        stream.writelines(line + "\n" for line in lines)
        stream.flush()
    except (AttributeError, OSError, ValueError):
        pass  # there is nobody to tell
