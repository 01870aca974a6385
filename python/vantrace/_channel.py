"""The socket at which a dormant program is asked, and the messages that pass: a line of JSON each."""

# Of the modules that a dormant program would have to wait for none is imported before it is asked.
import _socket
import os
import struct

from ._runtime_folder import runtime_folder

_LONGEST = 1 << 20
_CREDENTIALS = struct.Struct("3i")  # process, user, group


def listening():
    """A socket at which this process can be asked."""
    folder = runtime_folder()
    _remove_left_over(folder)
    path = _path(folder, os.getpid())
    try:
        os.unlink(path)  # of an earlier process of this number
    except FileNotFoundError:
        pass
    server = _socket.socket(_socket.AF_UNIX, _socket.SOCK_STREAM | _socket.SOCK_CLOEXEC)
    server.bind(path)
    server.listen(8)
    return server


def connected(process):
    """A socket to that process; an OSError where nobody listens there."""
    client = _socket.socket(_socket.AF_UNIX, _socket.SOCK_STREAM | _socket.SOCK_CLOEXEC)
    client.connect(_path(runtime_folder(), process))
    return client


def remove(process):
    """Takes away the socket's file of a process."""
    try:
        os.unlink(_path(runtime_folder(), process))
    except OSError:
        pass


def accepted(server):
    """The next one who asks, once it is there."""
    descriptor, _ = server._accept()
    return _socket.socket(fileno=descriptor)


def is_same_user(peer):
    """Whether a peer is of our own user, or may do everything anyway."""
    credentials = peer.getsockopt(_socket.SOL_SOCKET, _socket.SO_PEERCRED, _CREDENTIALS.size)
    return _CREDENTIALS.unpack(credentials)[1] in (os.getuid(), 0)


def send(peer, message):
    import json

    peer.sendall(json.dumps(message).encode("ascii") + b"\n")


def receive(peer):
    """The next message; None when the other side is gone. A ValueError for what is none."""
    import json

    line = bytearray()
    while not line.endswith(b"\n"):
        # No more than this line: the next message may have come, too.
        ahead = peer.recv(1 << 16, _socket.MSG_PEEK)
        part = peer.recv(ahead.find(b"\n") + 1 or len(ahead))
        if not part or len(line) > _LONGEST:
            return None
        line += part
    message = json.loads(line)
    if not isinstance(message, dict):
        raise ValueError("a message is an object")
    return message


def _path(folder, process):
    return os.path.join(folder, f"dormant-{process}")


def _remove_left_over(folder):
    """Those of processes that were killed."""
    for name in os.listdir(folder):
        kind, _, process = name.partition("-")
        if kind != "dormant" or not process.isdecimal():
            continue
        if not os.path.exists(f"/proc/{process}"):
            remove(int(process))
