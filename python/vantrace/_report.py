"""`vantrace report`: a trace file as one page that needs no network."""

import base64
import hashlib
import html
import os
import re
import sys
import time

from . import _line_report, _options
from ._cli import UsageError
from ._core import version
from ._export import read_trace
from ._record import check_writable
from ._table import printable
from ._whole_file import write_whole

USAGE = """\
usage: vantrace report FILE [-o OUTPUT]

Writes a .vtrace file as one HTML page that opens in any browser, without a network: threads over
time, flame graph, time by name, by context, counters. Without -o the page lies beside the file.

  -o, --output OUTPUT   the page to write, .html
"""

# In the order in which they need each other.
_MODULES = (
    "format",
    "dom",
    "data",
    "state",
    "durations",
    "timeline",
    "flame",
    "contexts",
    "names",
    "lines",
    "counters",
    "main",
)
_FOLDER = os.path.join(os.path.dirname(__file__), "report")


def report(arguments):
    """Runs `vantrace report`; gives the exit status."""
    options = _ReportOptions(arguments)
    if options.wants_help:
        sys.stdout.write(USAGE)
        return 0
    file, output = options.needed()
    try:
        check_writable(output)
        data = _data_of(read_trace(file))
        write_whole(output, page(data, os.path.basename(file)).encode())
    except OSError as error:
        raise UsageError(f"cannot write {error.filename!r}: {error.strerror}") from None
    print(f"vantrace: the report is {printable(output)}", file=sys.stderr)
    return 0


def _data_of(trace):
    """What the page shows, as JSON: of events, and of lines where those were sampled."""
    data = trace.report_data()
    count, width = re.match(r'\{"bins":\{"count":(\d+),"width":(\d+)\}', data).groups()
    return f'{data[:-1]},"lines":{_line_report.as_json(trace.lines(), int(count), int(width))}}}'


def page(data, title):
    """The page for a trace's report data."""
    style, script = _asset("style.css"), bundle()
    begin = int(re.search(r'"originUtc":"(-?\d+)"', data)[1])
    parts = {
        "TITLE": html.escape(title),
        "SUBTITLE": f"recorded {_date(begin)}" if begin else "",
        "FOOTER": f"vantrace {version} · the address of this page keeps what you look at",
        "POLICY": _policy(style, script),
        "STYLE": style,
        "SCRIPT": script,
        # Inside a script element no text ends it, and none begins a comment.
        "DATA": data.replace("<", "\\u003c"),
    }
    return re.sub("@([A-Z]+)@", lambda match: parts[match[1]], _asset("page.html"))


def bundle():
    """The page's modules as one: they share a scope, so imports and exports fall away."""
    return "".join(_without_links(_asset(f"{name}.js")) for name in _MODULES)


def _without_links(module):
    return re.sub(r"^import [^;]*;\n|^export (?=\w)", "", module, flags=re.MULTILINE)


def _asset(name):
    with open(os.path.join(_FOLDER, name), encoding="utf-8") as file:
        return file.read()


def _policy(style, script):
    """Nothing may be loaded, and nothing runs but the page's own script."""
    allowed = f"script-src {_hash(script)}; style-src {_hash(style)}"
    return f"default-src 'none'; {allowed}; base-uri 'none'; form-action 'none'"


def _hash(text):
    digest = base64.b64encode(hashlib.sha256(text.encode()).digest())
    return f"'sha256-{digest.decode()}'"


def _date(nanoseconds):
    return time.strftime("%Y-%m-%d %H:%M:%S", time.localtime(nanoseconds // 10**9))


class _ReportOptions(_options.Options):
    COMMAND = "report"
    VALUES = {"-o": ("output", _options.path), "--output": ("output", _options.path)}

    def __init__(self, arguments):
        self.output = None
        super().__init__(arguments)

    def needed(self):
        """The file to read and the page to write."""
        file = self.only_file()
        output = self.output or f"{file.removesuffix('.vtrace')}.html"
        if not output.endswith((".html", ".htm")):
            raise UsageError(f"a report ends in .html, not {output!r}")
        return file, output
