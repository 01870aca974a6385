"""A notebook's kernel: cells go in, what a notebook would show comes out."""

import os
import re

from jupyter_client.manager import start_new_kernel

_LONGEST = 60  # seconds for a cell


class Shown:
    """What a cell showed."""

    def __init__(self):
        self.printed = ""
        self.data = []  # of each display, by MIME type
        self.value = None
        self.status = None
        self.error = None
        self.traceback = ""

    @property
    def recording(self):
        """The one recording that it shows: (text, HTML)."""
        [data] = self.data
        assert data.keys() == {"text/plain", "text/html"}
        return data["text/plain"], data["text/html"]

    @property
    def table(self):
        """The table's cells by name, as text."""
        text, _ = self.recording
        rows = [re.split(r"  +", line) for line in text.splitlines()]
        return {name: cells for name, *cells in rows if len(cells) >= 6}


def _answers(next_message, request):
    """What the kernel says to a request; answers to what was asked before may be there still."""
    while True:
        message = next_message(timeout=_LONGEST)
        if message["parent_header"].get("msg_id") == request:
            yield message["msg_type"], message["content"]


class Kernel:
    """A kernel that starts with the extension loaded."""

    def __init__(self, folder):
        environment = os.environ | {
            "HOME": str(folder),
            "IPYTHONDIR": str(folder / "ipython"),
            "PYDEVD_DISABLE_FILE_VALIDATION": "1",
        }
        self._manager, self._client = start_new_kernel(
            kernel_name="python3", env=environment, cwd=str(folder)
        )
        assert self.run("%load_ext vantrace").status == "ok"

    def end(self):
        self._client.stop_channels()
        # At once, but where what ran is counted: a process tells of that when it ends by itself.
        self._manager.shutdown_kernel(now="COVERAGE_PROCESS_START" not in os.environ)

    def run(self, source, interrupt_at=None):
        """Runs a cell; interrupts it when it has printed that text."""
        request = self._client.execute(source, stop_on_error=False)
        shown = Shown()
        for kind, content in _answers(self._client.get_iopub_msg, request):
            if content.get("execution_state") == "idle":
                break
            self._take(shown, kind, content)
            if interrupt_at and interrupt_at in shown.printed:
                interrupt_at = None
                self._manager.interrupt_kernel()
        _, reply = next(_answers(self._client.get_shell_msg, request))
        shown.status = reply["status"]
        return shown

    @staticmethod
    def _take(shown, kind, content):
        if kind == "stream":
            shown.printed += content["text"]
        elif kind == "display_data":
            shown.data.append(content["data"])
        elif kind == "execute_result":
            shown.value = content["data"]["text/plain"]
        elif kind == "error":
            shown.error = content["ename"]
            shown.traceback = re.sub(r"\x1b\[[\d;]*m", "", "\n".join(content["traceback"]))
