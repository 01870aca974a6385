"""`vantrace view`: a trace file in the browser, from this machine alone."""

import getpass
import html
import json
import os
import re
import secrets
import signal
import sys
import tempfile
import threading
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from urllib.parse import parse_qs, urlsplit

from . import _options
from ._cli import UsageError
from ._core import TraceView

USAGE = """\
usage: vantrace view [--no-open] [--port N] FILE

Opens timeline and flame graph of a .vtrace file in the browser. The page is served to this machine
alone, at an address that nobody can guess, until the command is interrupted.

  --no-open   only say the address
  --port N    the port; by default one that is free
"""

_FOLDER = os.path.dirname(__file__)
_TYPES = {".html": "text/html", ".js": "text/javascript", ".css": "text/css"}
# The files of the page, with what it shares with reports.
_ASSETS = {
    "view": (
        "view.html",
        "view.css",
        "app.js",
        "chart.js",
        "details.js",
        "finder.js",
        "lanes.js",
        "paint.js",
        "questions.js",
        "span.js",
    ),
    "report": ("style.css", "data.js", "dom.js", "flame.js", "format.js"),
}
_HEADERS = {
    "Content-Security-Policy": "default-src 'none'; script-src 'self'; style-src 'self'; "
    "connect-src 'self'; img-src data:; base-uri 'none'; form-action 'none'; frame-ancestors 'none'",
    "X-Content-Type-Options": "nosniff",
    "Cross-Origin-Resource-Policy": "same-origin",
    "Cross-Origin-Opener-Policy": "same-origin",
    "Referrer-Policy": "no-referrer",
    "Cache-Control": "no-store",
}


def view(arguments):
    """Runs `vantrace view`, until it is interrupted; gives the exit status."""
    options = _ViewOptions(arguments)
    if options.wants_help:
        sys.stdout.write(USAGE)
        return 0
    file = options.only_file()
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, signal.default_int_handler)
    try:
        _serve(file, options)
    except KeyboardInterrupt:
        pass
    return 0


def _serve(file, options):
    shown = _Shown(file)
    try:
        server = _Server(shown, options.port)
    except OSError as error:
        raise UsageError(f"cannot listen on port {options.port}: {error.strerror}") from None
    with server, shown, _Opened(server.address, options) as opened:
        opened.tell()
        server.serve_forever(poll_interval=0.2)


class _Shown:
    """A trace that is read in the background, and what can be asked of it."""

    def __init__(self, file):
        self.name = os.path.basename(file)
        self._failure = None
        try:
            self._view = TraceView(file)
        except OSError as error:
            raise UsageError(f"cannot read {file!r}: {error.strerror}") from None
        except RuntimeError as error:
            raise UsageError(error) from None
        self._reader = threading.Thread(target=self._read, name="reader")

    def __enter__(self):
        self._reader.start()
        return self

    def __exit__(self, *_):
        self._view.stop()
        self._reader.join()

    def _read(self):
        try:
            self._view.read()
        except Exception as error:  # of whatever kind: the page tells
            self._failure = str(error)

    def answer(self, question, given):
        """JSON; KeyError or ValueError where there is no such question."""
        return getattr(self, f"_ask_{question}")(lambda key: given[key][0])

    def _ask_state(self, _):
        state = {"file": self.name, "failure": self._failure, **json.loads(self._view.state())}
        return json.dumps(state)

    def _ask_activity(self, _):
        return self._view.activity()

    def _ask_threads(self, _):
        return self._view.threads()

    def _ask_window(self, given):
        begin, end = (_whole(given(name)) for name in ("begin", "end"))
        pixels, first, last = (_count(given(name)) for name in ("pixels", "first", "last"))
        return self._view.window(begin, end, min(pixels, 20_000), first, last)

    def _ask_flame(self, given):
        return self._view.flame(_whole(given("begin")), _whole(given("end")))

    def _ask_find(self, given):
        place = _whole(given("start")), _whole(given("duration")), _count(given("thread"))
        serial, is_forward = abs(_whole(given("serial"))), given("forward") == "true"
        return self._view.find(given("text"), *place, serial, is_forward)

    def _ask_details(self, given):
        serial = abs(_whole(given("serial")))
        return self._view.details(_whole(given("start")), _count(given("thread")), serial)


_QUESTIONS = ("state", "activity", "threads", "window", "flame", "find", "details")


def _whole(text):
    """A number that fits where it is put; ValueError for another text."""
    if not re.fullmatch(r"-?\d{1,18}", text, re.ASCII):
        raise ValueError(text)
    return int(text)


def _count(text):
    """A small number that is not negative; ValueError for another text."""
    if not re.fullmatch(r"\d{1,9}", text, re.ASCII):
        raise ValueError(text)
    return int(text)


class _Server(ThreadingHTTPServer):
    daemon_threads = True
    block_on_close = False

    def __init__(self, shown, port):
        super().__init__(("127.0.0.1", port), _Handler)
        self.shown = shown
        self.secret = secrets.token_urlsafe(24)
        self.port = self.server_address[1]
        self.address = f"http://127.0.0.1:{self.port}/{self.secret}/"
        self.hosts = (f"127.0.0.1:{self.port}", f"localhost:{self.port}")

    def handle_error(self, request, client_address):
        """A browser that went away is nothing to tell of."""


class _Handler(BaseHTTPRequestHandler):
    """Whoever does not know the path learns nothing."""

    protocol_version = "HTTP/1.1"
    timeout = 300

    def do_GET(self):  # pylint: disable=invalid-name
        """Answers a page or a question."""
        try:
            kind, body = self._found()
        except (KeyError, ValueError, OverflowError):
            return self._send(404, "text/plain", b"")
        return self._send(200, kind, body)

    def _found(self):
        """A type and a body; KeyError or ValueError where there is nothing."""
        path = urlsplit(self.path)
        _, secret, *names = path.path.split("/")
        ours = self.server.secret.encode()
        is_known = secrets.compare_digest(secret.encode("utf-8", "replace"), ours)
        if not is_known or self.headers.get_all("Host") not in [[h] for h in self.server.hosts]:
            raise KeyError(secret)
        [name] = names
        if name in _QUESTIONS:
            given = parse_qs(path.query, keep_blank_values=True)
            return "application/json", self.server.shown.answer(name, given).encode()
        return _asset(name or "view.html")

    def send_error(self, code, message=None, explain=None):
        """As do_GET does, for whatever was asked."""
        self.close_connection = True
        self._send(404, "text/plain", b"")

    def _send(self, status, kind, body):
        self.send_response_only(status)
        for name, value in _HEADERS.items():
            self.send_header(name, value)
        self.send_header("Content-Type", f"{kind}; charset=utf-8")
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *_):
        """Says nothing."""


def _asset(name):
    folder = next((folder for folder, names in _ASSETS.items() if name in names), None)
    if folder is None:
        raise KeyError(name)
    with open(os.path.join(_FOLDER, folder, name), "rb") as file:
        return _TYPES[os.path.splitext(name)[1]], file.read()


class _Opened:
    """Tells the address, and opens it where there is a browser."""

    def __init__(self, address, options):
        self._address = address
        self._ssh = os.environ.get("SSH_CONNECTION", "").split()
        self._is_asked = not options.no_open and not self._ssh
        self._folder = None

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self._folder:
            self._folder.cleanup()

    def tell(self):
        """On standard output."""
        print(f"vantrace: {self._address}")
        if self._ssh:
            print(f"vantrace: from your machine: {self._forwarding()}")
        print("vantrace: Ctrl-C ends it", flush=True)
        if self._is_asked:
            self._open()

    def _forwarding(self):
        port = urlsplit(self._address).port
        _, _, host, ssh_port = self._ssh if len(self._ssh) == 4 else (*[""] * 2, "HOST", "22")
        other = f" -p {ssh_port}" if ssh_port != "22" else ""
        return f"ssh -N -L {port}:127.0.0.1:{port}{other} {getpass.getuser()}@{host}"

    def _open(self):
        """By way of a file: other users see the arguments of a browser, but not that file."""
        import webbrowser

        self._folder = tempfile.TemporaryDirectory(prefix="vantrace-view-")
        path = os.path.join(self._folder.name, "view.html")
        address = html.escape(self._address)
        with open(path, "w", encoding="utf-8") as file:
            file.write(f'<!doctype html><meta http-equiv="refresh" content="0; url={address}">')
        webbrowser.open(f"file://{path}")


class _ViewOptions(_options.Options):
    COMMAND = "view"
    FLAGS = {"--no-open": ("no_open", True)}
    VALUES = {"--port": ("port", _options.number(most=65535))}

    def __init__(self, arguments):
        self.no_open, self.port = False, 0
        super().__init__(arguments)
