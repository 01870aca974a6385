"""`vantrace snap` and `vantrace stacks`: what dormant programs are asked."""

import os
import re
import select
import sys
import time

from . import _channel, _options
from ._cli import UsageError
from ._run import Output
from ._run_options import RunOptions
from ._table import printable

USAGE = """\
usage: vantrace snap [OPTIONS] PID ...
       vantrace stacks PID ...

For programs that run under vantrace run --dormant, and their forks. snap records the processes for a
while, into one trace; stacks prints what their threads do now, innermost function first.

options of snap:
  --seconds T          how long to record (default 5); an interrupt ends it earlier
  -o, --output FILE    as of vantrace run; by default vantrace-snap-PID-TIME.vtrace
  and of vantrace run those that say what is recorded: --events-only, --include, --exclude, --all,
  --c-calls, --min-duration, --max-memory, --keep; and --sort, --top, --no-table
"""

_PATIENCE = 5  # seconds until a process that does not answer is given up
_OF_RUN = (
    "--events-only",
    "--include",
    "--exclude",
    "--all",
    "--c-calls",
    "--min-duration",
    "--max-memory",
    "--keep",
    "--sort",
    "--top",
)


def snap(arguments):
    """Runs `vantrace snap`; gives the exit status."""
    request = _SnapOptions(arguments)
    if request.wants_help:
        sys.stdout.write(USAGE)
        return 0
    processes = _process_ids("snap", request.files)
    output = Output(f"snap-{processes[0]}", request.output, request.of_run, request.table)
    peers = {}
    try:
        _record(processes, request, output, peers)
        for process, peer in peers.items():
            _stop(process, peer)
    finally:
        for peer in peers.values():
            peer.close()
    return 0 if output.finish() else 1


def stacks(arguments):
    """Runs `vantrace stacks`; gives the exit status."""
    if any(argument in ("-h", "--help") for argument in arguments):
        sys.stdout.write(USAGE)
        return 0
    for process in _process_ids("stacks", arguments):
        peer = _asked(process, {"do": "stacks"})
        try:
            found = _answer(process, peer)["threads"]
        finally:
            peer.close()
        print(f"process {process}")
        for thread in found:
            sys.stdout.writelines(f"  {line}\n" for line in _thread_lines(process, thread))
    return 0


def _record(processes, request, output, peers):
    """Has them record until the time is over, somebody interrupts, or all have ended."""
    options = request.of_run.recording() | {"exact": False}
    order = {"do": "record", "folder": output.run_folder, "options": options}
    try:
        for process in processes:
            peers[process] = _asked(process, order)
        for process, peer in peers.items():
            _receive(process, peer)
        _wait(peers.values(), request.seconds)
    except UsageError:
        output.discard()
        raise
    except KeyboardInterrupt:
        pass


def _seconds(option, text):
    if not re.fullmatch(r"\d{1,6}(\.\d{1,6})?", text, re.ASCII) or float(text) == 0:
        raise UsageError(f"{option} takes a number of seconds such as 5 or 0.5, not {text!r}")
    return float(text)


class _SnapOptions(_options.Options):
    COMMAND = "snap"
    FLAGS = {"--no-table": ("table", False)}
    VALUES = {
        "-o": ("output", _options.path),
        "--output": ("output", _options.path),
        "--seconds": ("seconds", _seconds),
    }

    def __init__(self, arguments):
        self.of_run = RunOptions()
        self.output = None
        self.seconds = 5.0
        self.table = True
        super().__init__(arguments)

    def take(self, option, arguments):
        is_of_run = option.partition("=")[0] in _OF_RUN
        return self.of_run.take(option, arguments) if is_of_run else super().take(option, arguments)


def _process_ids(command, texts):
    for text in texts:
        if not re.fullmatch(r"[1-9]\d{0,8}", text, re.ASCII):
            raise UsageError(f"{command} takes the numbers of processes, not {text!r}")
    if not texts:
        raise UsageError(f"{command} takes the number of a process; see vantrace {command} --help")
    return list(dict.fromkeys(map(int, texts)))


def _asked(process, request):
    """The connection to a process that was sent the request."""
    try:
        peer = _channel.connected(process)
    except (FileNotFoundError, ConnectionRefusedError):
        known = os.path.exists(f"/proc/{process}")
        raise UsageError(
            f"process {process} is not one that vantrace run --dormant started"
            if known
            else f"there is no process {process}"
        ) from None
    except OSError as error:
        raise UsageError(f"cannot reach process {process}: {error.strerror}") from None
    peer.settimeout(_PATIENCE)
    try:
        _channel.send(peer, request)
    except OSError:
        pass  # it shows when the answer does not come
    return peer


def _answer(process, peer):
    answer = _receive(process, peer)
    if answer is None:
        raise UsageError(f"process {process} ended before it answered")
    return answer


def _receive(process, peer):
    """Its next message; None where it has ended."""
    try:
        message = _channel.receive(peer)
    except TimeoutError:
        raise UsageError(
            f"process {process} does not answer: it is stopped, "
            "or a native call holds the interpreter's lock"
        ) from None
    except OSError:
        return None
    if message and "error" in message:
        raise UsageError(f"process {process} cannot do it: {message['error']}")
    return message


def _wait(peers, seconds):
    end = time.monotonic() + seconds
    waiting = set(peers)
    while waiting and (left := end - time.monotonic()) > 0:
        # Nothing comes before we ask for the end: those that can be read have ended.
        waiting -= set(select.select(waiting, [], [], left)[0])


def _stop(process, peer):
    """What was recorded is in the run folder, whether or not the process can say so."""
    from ._table import losses

    try:
        peer.sendall(b".")
        answer = _answer(process, peer)
        if "drops" not in answer:  # we were interrupted before this one came
            answer = _answer(process, peer)
    except (OSError, UsageError):
        print(f"vantrace: process {process} ended before its recording did", file=sys.stderr)
        return
    for line in losses(_Recorded(answer)):
        print(line, file=sys.stderr)


class _Recorded:
    """What a process says of its recording, as the recording itself would."""

    counts_all = False
    has_all_lines = True

    def __init__(self, answer):
        self._answer = answer

    def drops(self):
        return self._answer["drops"]

    def functions(self):
        return self._answer["functions"]


def _thread_lines(process, thread):
    name = printable(thread["name"] or "")
    yield f"thread {thread['id'] or '?'} {name}{_state(process, thread['id'])}"
    frames = [(printable(function), f"{printable(file)}:{line}") for function, file, line in thread["frames"]]
    width = max(len(function) for function, _ in frames)
    for function, place in frames:
        yield f"  {function:{width}}  {place}"


def _state(process, thread):
    """Whether the system has it running, as far as that can be told."""
    try:
        with open(f"/proc/{process}/task/{thread}/stat", encoding="utf-8", errors="replace") as file:
            state = file.read().rpartition(")")[2].split()[0]
    except (OSError, IndexError):
        return ""
    return {"R": ", running", "S": ", waiting", "D": ", waiting", "T": ", stopped"}.get(state, "")
