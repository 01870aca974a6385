"""The process that a script runs in, and the one that outlives it.

The script runs in a child, which has the terminal. What it records lies in files of a run folder,
so that this process can make a trace of them however the child and its own children end.
"""

# The module signal makes enumerations, which a script that needs none would wait for.
import _signal
import os
import resource

from ._core import die_with_parent

_FROM_KERNEL = 128  # si_code of a terminal's signals, which reach the whole group


class Child:
    """A fork of this process: `Child()` returns in both."""

    def __init__(self):
        self._handler = _signal.signal(_signal.SIGCHLD, _signal.SIG_DFL)
        self._mask = _signal.pthread_sigmask(_signal.SIG_SETMASK, _signal.valid_signals())
        parent = os.getpid()
        self._pid = os.fork()
        self.is_here = self._pid == 0
        if self.is_here:
            die_with_parent(parent)
            _signal.signal(_signal.SIGCHLD, self._handler)
            _signal.pthread_sigmask(_signal.SIG_SETMASK, self._mask)

    def wait(self):
        """Waits for its end, with the signals that are sent to this process passed on to it.

        Gives its status as os.waitpid does.
        """
        while True:
            # Blocked signals are not ignored: they wait here.
            signal = _signal.sigwaitinfo(_signal.valid_signals())
            if signal.si_signo != _signal.SIGCHLD:
                if signal.si_code != _FROM_KERNEL:
                    os.kill(self._pid, signal.si_signo)
                continue
            pid, status = os.waitpid(self._pid, os.WNOHANG | os.WUNTRACED)
            if pid == 0:
                continue  # it went on
            if not os.WIFSTOPPED(status):
                return status
            # Whoever looks after this process sees it stop, and has it go on.
            os.kill(os.getpid(), _signal.SIGSTOP)
            os.kill(self._pid, _signal.SIGCONT)


def end_like(status):
    """Ends this process as the one with that status ended."""
    if os.WIFSIGNALED(status):
        signal = os.WTERMSIG(status)
        resource.setrlimit(resource.RLIMIT_CORE, (0, 0))  # one core is enough
        if signal != _signal.SIGKILL:
            _signal.signal(signal, _signal.SIG_DFL)
        os.kill(os.getpid(), signal)
        _signal.pthread_sigmask(_signal.SIG_UNBLOCK, [signal])
    os._exit(os.waitstatus_to_exitcode(status))


class RunFolder:
    """The folder for what processes record, beside where the trace comes to stand."""

    def __init__(self, folder):
        number = 1
        while True:
            self.path = os.path.join(folder, f".vantrace-{os.getpid()}-{number}.run")
            try:
                os.mkdir(self.path, 0o700)
                return
            except FileExistsError:
                number += 1

    def remove(self):
        for name in os.listdir(self.path):
            os.unlink(os.path.join(self.path, name))
        os.rmdir(self.path)
