"""`vantrace snap` and `vantrace stacks`: what dormant programs are asked."""

import os
import re
import select
import sys
import time

from . import _channel
from ._cli import UsageError
from ._export import trace_output
from ._run_options import RunOptions
from ._supervise import RunFolder
from ._table import printable

_PATIENCE = 5  # seconds until a program that does not answer is given up

USAGE = """\
usage: vantrace snap [OPTIONS] PID ...
       vantrace stacks PID ...

For programs that run under vantrace run --dormant. snap records the processes for a while into one
trace; stacks prints what their threads do now, innermost function first.

options of snap:
  --seconds T         how long to record (default 5); an interrupt ends it earlier
  -o, --output FILE   as of vantrace run; by default vantrace-snap-PID-TIME.vtrace
  --events-only, --include, --exclude, --all, --c-calls, --max-memory, --keep, --min-duration,
  --sort, --top, --no-table: as of vantrace run
"""


def snap(arguments):
    """Runs `vantrace snap`; gives the exit status."""
