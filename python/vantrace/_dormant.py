"""A program that records nothing until it is asked: by `vantrace snap` and `vantrace stacks`.

A thread waits at a socket. It is none of the module threading, takes no signals and, while nobody
asks, does not run.
"""

import _signal
import _thread
import atexit
import os
import sys

from . import _channel, _run


def wait_for_requests():
    """Answers from now on, in this process and its forks, until they end."""
    _Waiting().begin()


class _Waiting:
    """The socket, those who ask at it, and what is being recorded for them."""

    def __init__(self):
        self._server = None
        self._peers = set()
        self._recordings = set()
        self._entering = _thread.allocate_lock()  # a fork finds no recording half begun

    def begin(self):
        atexit.register(self._end)
        os.register_at_fork(
            before=self._entering.acquire,
            after_in_parent=self._entering.release,
            after_in_child=self._begin_in_child,
        )
        self._listen()

    def _listen(self):
        """Where that cannot be, nobody can ask; the program goes on as it would."""
        try:
            self._server = _channel.listening()
            _start_thread(self._serve)
        except (OSError, RuntimeError):
            self._server = None

    def _end(self):
        self._stop_recordings()
        if self._server:
            _channel.remove(os.getpid())

    def _stop_recordings(self):
        for recording in list(self._recordings):
            self._stop(recording)

    def _stop(self, recording):
        """Once, whoever comes first: the end of the request, of the process, or of a fork."""
        try:
            self._recordings.remove(recording)
        except KeyError:
            return
        recording.__exit__(None, None, None)

    def _begin_in_child(self):
        """What is recorded is the parent's; who has asked for it must see it end with the parent."""
        self._entering.release()
        self._stop_recordings()
        for descriptor in [self._server, *self._peers]:
            if descriptor:
                descriptor.close()
        self._peers = set()
        self._listen()

    def _serve(self):
        while True:
            try:
                peer = _channel.accepted(self._server)
            except OSError:
                return
            self._peers.add(peer)
            try:
                _start_thread(self._answer, peer)
            except RuntimeError:  # no more threads
                self._leave(peer)

    def _leave(self, peer):
        self._peers.discard(peer)
        peer.close()

    def _answer(self, peer):
        try:
            if _channel.is_same_user(peer):
                _channel.send(peer, self._answer_to(peer))
        except OSError:
            pass  # the other side is gone
        finally:
            self._leave(peer)

    def _answer_to(self, peer):
        try:
            request = _channel.receive(peer) or {}
            if request.get("do") == "stacks":
                return {"threads": threads()}
            if request.get("do") == "record":
                return self._record(peer, request["folder"], request["options"])
            return {"error": "only stacks and record can be asked for"}
        except OSError as error:
            return {"error": f"{error.filename or ''}: {error.strerror}"}
        except Exception as error:
            return {"error": f"{type(error).__name__}: {error}"}

    def _record(self, peer, folder, options):
        """Until the other side says that it is enough, or is gone."""
        from ._record import record

        recording = record(folder=folder, **options)
        with self._entering:
            recording.__enter__()
            self._recordings.add(recording)
        try:
            _channel.send(peer, {"records": True})
            peer.recv(1)
        finally:
            self._stop(recording)
        return {"drops": recording.drops(), "functions": recording.functions()}


def _start_thread(function, *arguments):
    """It has all signals blocked: those of the process are for the program's own threads."""
    mask = _signal.pthread_sigmask(_signal.SIG_SETMASK, _signal.valid_signals())
    try:
        _thread.start_new_thread(function, arguments)
    finally:
        _signal.pthread_sigmask(_signal.SIG_SETMASK, mask)


def threads():
    """What the program's threads do: name, the system's id, and (function, file, line) from within."""
    known = getattr(sys.modules.get("threading"), "_active", {})
    found = []
    for ident, frame in sys._current_frames().items():
        frames = list(_frames_of(frame))
        if frames[-1][1] == __file__:
            continue
        thread = known.get(ident)
        found.append(
            {
                "name": getattr(thread, "name", None),
                "id": getattr(thread, "native_id", None),
                "frames": frames,
            }
        )
    return found


def _frames_of(frame):
    """Without those that called the script."""
    while frame and frame.f_code.co_filename != _run.__file__:
        code = frame.f_code
        yield code.co_qualname, code.co_filename, frame.f_lineno
        frame = frame.f_back
