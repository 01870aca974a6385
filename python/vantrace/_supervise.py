"""The process that a script runs in, and the one that outlives it.

The script runs in a child, which has the terminal. What it records lies in files of a run folder,
so that this process can make a trace of them however the child and its own children end.
"""

# The module signal makes enumerations, which a script that needs none would wait for.
import _signal
import os
import resource

from ._core import die_with_parent


class Child:
    """A fork of this process: `Child()` returns in both."""

    def __init__(self):
        self._handler = _signal.signal(_signal.SIGCHLD, _signal.SIG_DFL)
        self._mask = _signal.pthread_sigmask(_signal.SIG_SETMASK, _signal.valid_signals())
        parent = os.getpid()
        go, self._go = os.pipe()
        self._pid = os.fork()
        self.is_here = self._pid == 0
        if self.is_here:
            die_with_parent(parent)
            os.read(go, 1)  # until its signals are looked after
            os.close(go)
            os.close(self._go)
            _signal.signal(_signal.SIGCHLD, self._handler)
            _signal.pthread_sigmask(_signal.SIG_SETMASK, self._mask)

    def wait(self):
        """Waits for its end, with the signals that are sent to this process alone passed on to it.

        Gives its status as os.waitpid does.
        """
        witness = _Witness()
        os.write(self._go, b"!")
        while True:
            # Blocked signals are not ignored: they wait here.
            signal = _signal.sigwaitinfo(_signal.valid_signals()).si_signo
            if signal != _signal.SIGCHLD:
                if not witness.saw(signal):
                    os.kill(self._pid, signal)
                continue
            pid, status = os.waitpid(self._pid, os.WNOHANG | os.WUNTRACED)
            if pid == 0:
                continue  # it went on, or the witness changed
            if not os.WIFSTOPPED(status):
                witness.leave()
                return status
            _stop_by(os.WSTOPSIG(status))


class _Witness:
    """A process of our group that does nothing but see which signals the whole group is sent.

    The child has those already, from a terminal or whoever sent them. Nothing in a signal itself
    tells whether others have it, too.
    """

    def __init__(self):
        parent = os.getpid()
        # This process has both ends, so that asking one that was killed is no broken pipe.
        self._heard, self._questions = os.pipe()
        self._answers, answers = os.pipe()
        self._pid = os.fork()
        if self._pid == 0:
            die_with_parent(parent)
            _answer(self._heard, answers)
        os.close(answers)

    def saw(self, signal):
        """Whether the group was sent the signal that we just took.

        Whoever sends to a group reaches its newest processes first: the witness has it before we do.
        """
        if not self._has(signal):
            return False
        # One that came meanwhile may have merged with the first there.
        while _signal.sigtimedwait([signal], 0):
            self._has(signal)
        return True

    def _has(self, signal):
        os.write(self._questions, bytes([signal]))
        return os.read(self._answers, 1) == b"y"

    def leave(self):
        os.kill(self._pid, _signal.SIGKILL)
        os.waitpid(self._pid, 0)


def _answer(questions, answers):
    """The witness, until it is killed. All signals are blocked, and merge as they do for us."""
    while True:
        signal = os.read(questions, 1)[0]
        os.write(answers, b"y" if _signal.sigtimedwait([signal], 0) else b"n")


def _stop_by(signal):
    """Stops this process as the child is stopped, for whoever looks after us to see.

    They have it go on by a signal that is the child's, too, or is passed on to it.
    """
    if signal != _signal.SIGSTOP:
        _signal.signal(signal, _signal.SIG_DFL)
    os.kill(os.getpid(), signal)
    _signal.pthread_sigmask(_signal.SIG_UNBLOCK, [signal])
    _signal.pthread_sigmask(_signal.SIG_BLOCK, [signal])


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
