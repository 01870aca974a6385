"""A page in a headless browser, for tests that use it as a person does."""

import json
import subprocess
from pathlib import Path

DRIVER = Path(__file__).resolve().parents[1] / "viewer/drive_page.mjs"


class DrivenBrowser:
    """Each action of tests/viewer/drive_page.mjs is a method."""

    def __init__(self):
        self._driver = subprocess.Popen(
            ["node", DRIVER], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True
        )

    def close(self):
        self._driver.stdin.close()
        self._driver.wait(timeout=60)
        self._driver.stdout.close()

    def __getattr__(self, action):
        return lambda *arguments: self._do(action, *arguments)

    def _do(self, *action):
        self._driver.stdin.write(json.dumps(action) + "\n")
        self._driver.stdin.flush()
        line = self._driver.stdout.readline()
        assert line, "the driver ended (./dev setup installs it and its browser)"
        answer = json.loads(line)
        assert "error" not in answer, answer["error"]
        return answer["value"]

    def texts(self, selector):
        """The texts of the elements of a selector that can be seen."""
        return self._do(
            "ask",
            f"[...document.querySelectorAll({json.dumps(selector)})]"
            ".filter((e) => e.checkVisibility()).map((e) => e.innerText)",
        )
