"""The command line: which command, and its options."""

import sys

from ._core import version

USAGE = """\
usage: vantrace run [-o FILE] [--no-table] SCRIPT [ARGUMENTS]
       vantrace tree [--json] [--all]

commands:
  run    record a Python script: a table of where the time went, and a trace
  tree   the published namespaces and methods

options of run (those after SCRIPT are the script's):
  -o, --output FILE   write the trace there: .json (trace events) or .folded (collapsed stacks);
                      by default vantrace-SCRIPT-TIME.json in the current folder
  --no-table          no table

options of tree:
  --json              as JSON
  --all               hidden methods too

other options:
  -h, --help          this text
  -V, --version       the version

run's exit status is the script's own, also when the trace cannot be written in the end; it is 2
when the script cannot be read or the trace's folder cannot be written to. Table and notices go to
standard error.
"""


class UsageError(Exception):
    """What the command line got wrong; the program ends with status 2."""


def main(arguments):
    """Runs a command; gives the exit status."""
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
    kind = "option" if arguments[0].startswith("-") else "command"
    raise UsageError(f"there is no {kind} {arguments[0]!r}; see vantrace --help")


def _run(arguments):
    output, table = None, True
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
        else:
            raise UsageError(f"run has no option {option!r}; see vantrace --help")
    if not arguments:
        raise UsageError("run takes a script; see vantrace --help")
    from . import _run as runner

    return runner.run(arguments[0], arguments[1:], output, table)


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
