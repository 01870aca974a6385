"""Tasks at IPython's prompt, which is not the interpreter's own."""

import select
import sys

from . import _tasks

NAME = "vantrace"


def run_tasks(context):
    """An input hook: runs tasks until something is typed, looking for new ones now and then."""
    while not context.input_is_ready():
        if not _tasks.run_idle_slice():
            select.select([context.fileno()], [], [], 0.1)


def install():
    """Where IPython's terminal runs: makes `%gui vantrace` known, and in force unless another is."""
    terminal = sys.modules.get("IPython.terminal.interactiveshell")
    if not terminal:
        return
    shell = sys.modules["IPython"].get_ipython()
    if not isinstance(shell, terminal.TerminalInteractiveShell):
        return  # none, or that of a notebook
    from IPython.terminal import pt_inputhooks

    pt_inputhooks.register(NAME, run_tasks)
    if not shell.active_eventloop:
        shell.enable_gui(NAME)
