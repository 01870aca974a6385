"""The command line: which command, and its options."""

import os
import sys

from ._core import version

USAGE = """\
usage: vantrace run [OPTIONS] SCRIPT [ARGUMENTS]
       vantrace tree [--json] [--all]
       vantrace stats [--json] [FILE]
       vantrace clients [--json]
       vantrace snap [--seconds T] [-o FILE] PID ...
       vantrace stacks PID ...
       vantrace view [--no-open] [--port N] FILE
       vantrace report FILE [-o OUTPUT]
       vantrace diff [OPTIONS] A B
       vantrace export FILE -o OUTPUT [OPTIONS]
       vantrace combine FILE ... -o OUTPUT
       vantrace table [--sort KEY] [--top N] FILE

commands:
  run      record each Python function and event of a script: a table of where the time went, and
           a trace
  tree     the published namespaces and methods
  stats    product statistics: what programs logged, from all processes of this user
  clients  which processes send their events to which recording now, how many, and what was dropped
  snap     record programs that run dormant for a while; vantrace snap --help tells more
  stacks   what the threads of programs that run dormant do now
  view     timeline and flame graph of a trace file in the browser, from this machine alone
  report   a trace file as one HTML page that needs no network
  diff     what changed from one trace file to another; vantrace diff --help tells more
  export   a trace file in another form; vantrace export --help tells more
  combine  several trace files as one
  table    where the time of a trace file went

options of run (those after SCRIPT are the script's):
  -o, --output FILE   write the trace there: .vtrace, or what vantrace export makes of one, .json,
                      .json.gz, .folded, .prof or .speedscope.json; by default
                      vantrace-SCRIPT-TIME.vtrace in the current folder
  --events-only       no functions, only the events that the code itself produces
  --include PATTERN   only functions whose name, module.qualname, matches; may be repeated
  --exclude PATTERN   no functions whose name matches; may be repeated
  --all               functions of the standard library and of installed packages by their own
                      names; else their time is part of their callers'
  --c-calls           the C functions that functions call too, which slows all Python code
  --lines             which lines the time passed in, too, by samples
  --gc                garbage collections as events
  --min-duration T    leave shorter ones out of an export; T is a time such as 10us
  --max-memory SIZE   bounds the memory for the trace, such as 64M; by default a quarter of all
  --keep WHAT         what the trace keeps then: longest (default) events, first or last ones
  --sort KEY          the table's order: self (default), total, calls or name
  --top N             at most N rows (default 40; 0: all)
  --no-table          no table
  --repeat N          run it N times, each in a new process, and tell medians and spread; the traces
                      are FILE-1.vtrace, FILE-2.vtrace, ..., which diff takes as FILE.vtrace
  --count             say in the end how often each function and event began
  --profile           print the profiler's table in the end: exact however long the run
  --log               print a line for each start, stop and instant as they happen
  --clients           collect the events of other processes, too, those that are clients
  --dormant           record nothing until vantrace snap asks for it; no table, and no other option

options of tree:
  --json              as JSON
  --all               hidden methods too

options of clients:
  --json              as JSON

options of stats:
  --json              as JSON
  FILE                another database than the user's own

other options:
  -h, --help          this text
  -V, --version       the version

run ends as the script does, by a signal too, also when the trace cannot be written in the end; its
status is 2 when the script cannot be read or the trace's folder cannot be written to. The trace has
what the script and the Python processes that come of it recorded, however they end. Table and notices
go to standard error.
"""


class UsageError(Exception):
    """What the command line got wrong; the program ends with status 2."""


def console():
    """What the installed command `vantrace` calls."""
    return main(sys.argv[1:])


def main(arguments):
    """Runs a command; gives the exit status."""
    if arguments[:1] == ["run"]:  # what a script does with its own output is the script's
        return _told(arguments)
    try:
        status = _told(arguments)
        sys.stdout.flush()
        return status
    except BrokenPipeError:
        # Whoever read has seen enough; the interpreter is not to try the rest again at its end.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 128 + 13  # as a shell tells of SIGPIPE


def _told(arguments):
    """Runs a command; says what was wrong with its arguments."""
    try:
        return _command(list(arguments))
    except UsageError as error:
        print(f"vantrace: {error}", file=sys.stderr)
        return 2


def _command(arguments):
    match arguments:
        case [] | ["-h" | "--help", *_]:
            sys.stdout.write(USAGE)
            return 0
        case ["-V" | "--version", *_]:
            print(f"vantrace {version}")
            return 0
        case ["run", *rest]:
            return _run(rest)
        case ["tree", *rest]:
            return _tree(rest)
        case ["stats", *rest]:
            return _stats(rest)
        case ["clients", *rest]:
            return _clients(rest)
        case ["export" | "combine" as name, *rest]:
            from . import _export

            return getattr(_export, name)(rest)
        case ["snap" | "stacks" as name, *rest]:
            from . import _ask

            return getattr(_ask, name)(rest)
        case ["table", *rest]:
            from . import _file_table

            return _file_table.table(rest)
        case ["view", *rest]:
            from . import _view

            return _view.view(rest)
        case ["report", *rest]:
            from . import _report

            return _report.report(rest)
        case ["diff", *rest]:
            from . import _diff

            return _diff.diff(rest)
    kind = "option" if arguments[0].startswith("-") else "command"
    raise UsageError(f"there is no {kind} {arguments[0]!r}; see vantrace --help")


def _run(arguments):
    from ._run_options import RunOptions

    output, table, options = None, True, RunOptions()
    given = list(arguments)
    while arguments and arguments[0].startswith("-"):
        option = arguments.pop(0)
        if option in ("-h", "--help"):
            sys.stdout.write(USAGE)
            return 0
        if option == "--":
            break
        if option == "--no-table":
            table = False
        elif option in ("-o", "--output"):
            if not arguments:
                raise UsageError(f"{option} takes a file")
            output = arguments.pop(0)
        elif option.startswith("--output="):
            output = option.removeprefix("--output=")
        elif not options.take(option, arguments):
            raise UsageError(f"run has no option {option!r}; see vantrace --help")
    if not arguments:
        raise UsageError("run takes a script; see vantrace --help")
    if options.repeat > 1:
        from . import _repeat

        given = given[: len(given) - len(arguments)]
        return _repeat.run(arguments[0], arguments[1:], given, output, table, options)
    from . import _run as runner

    return runner.run(arguments[0], arguments[1:], output, table, options)


def _tree(arguments):
    unknown = [option for option in arguments if option not in ("--json", "--all")]
    if any(option in ("-h", "--help") for option in unknown):
        sys.stdout.write(USAGE)
        return 0
    if unknown:
        raise UsageError(f"tree has no option {unknown[0]!r}; see vantrace --help")
    from . import _describe

    text = _describe.as_json if "--json" in arguments else _describe.as_text
    sys.stdout.write(text(with_hidden="--all" in arguments))
    return 0


def _clients(arguments):
    if any(argument in ("-h", "--help") for argument in arguments):
        sys.stdout.write(USAGE)
        return 0
    for argument in arguments:
        if argument != "--json":
            raise UsageError(f"clients has no option {argument!r}; see vantrace --help")
    from . import _list_clients

    return _list_clients.show(as_json="--json" in arguments)


def _stats(arguments):
    files = []
    for argument in arguments:
        if argument in ("-h", "--help"):
            sys.stdout.write(USAGE)
            return 0
        if argument.startswith("-") and argument != "--json":
            raise UsageError(f"stats has no option {argument!r}; see vantrace --help")
        if argument != "--json":
            files.append(argument)
    if len(files) > 1:
        raise UsageError(f"stats takes one file, not {len(files)}")
    from . import _stats as product_stats

    return product_stats.show(files[0] if files else None, as_json="--json" in arguments)
