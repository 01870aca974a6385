#!/usr/bin/python3
"""How a trace file opens in a headless browser: times, memory, and how smoothly it moves.

usage: view_opening.py FILE.vtrace ...   (bench/trace_files makes such files; PYTHONPATH says where
                                          the package is)

The browser runs before the command starts, as a person's does; its memory counts from then on.
"""

import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import threading
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests/python"))

from driven_page import DrivenBrowser  # noqa: E402  pylint: disable=wrong-import-position

PATIENCE = 600  # seconds until all has to be read
# What a page does when it has drawn bars for all of the recording.
SHOWN = """(() => {
  const { shown, until, bars } = document.getElementById('chart').dataset;
  return Boolean(shown) && until === '' && Number(bars) > 0;
})()"""
# Moves by keys, one a frame, and gives [longest, median] time between frames in milliseconds, and
# the time from the last key until what was asked for is drawn.
MOVING = """(async (keys) => {
  const chart = document.getElementById('chart');
  const frame = () => new Promise(requestAnimationFrame);
  const gaps = [];
  let last = await frame();
  for (const key of keys) {
    document.body.dispatchEvent(new KeyboardEvent('keydown', { key, bubbles: true }));
    const now = await frame();
    gaps.push(now - last);
    last = now;
  }
  while (!chart.dataset.settled) await frame();
  await frame();
  const settled = performance.now() - last;
  gaps.sort((a, b) => a - b);
  return [gaps.at(-1), gaps[gaps.length >> 1], settled];
})"""
MOVES = {
    "zoom": ["+"] * 12 + ["-"] * 12,
    "pan": ["+"] * 4 + ["ArrowRight"] * 20 + ["ArrowLeft"] * 20 + ["0"],
}


def number_in(pid, file, field):
    """Megabytes; 0 of a process that has gone."""
    try:
        with open(f"/proc/{pid}/{file}", encoding="ascii") as status:
            return next(int(line.split()[1]) for line in status if line.startswith(field)) / 1024
    except (OSError, StopIteration):
        return 0


def descendants(pid):
    """All processes that came of one."""
    found = [pid]
    for parent in found:
        try:
            for task in os.listdir(f"/proc/{parent}/task"):
                with open(f"/proc/{parent}/task/{task}/children", encoding="ascii") as children:
                    found += map(int, children.read().split())
        except OSError:
            continue  # it has gone
    return found[1:]


def cpu_seconds(pid):
    with open(f"/proc/{pid}/stat", encoding="ascii") as stat:
        fields = stat.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


class PeakMemory:
    """Of the browser: the most that its processes had at once, looked at ten times a second."""

    def __init__(self, leave_out):
        self._leave_out = leave_out
        self._ended = threading.Event()
        self._thread = threading.Thread(target=self._look)
        self.most = 0

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._ended.set()
        self._thread.join()

    def _look(self):
        while not self._ended.wait(0.1):
            pids = set(descendants(os.getpid())).difference(self._leave_out)
            self.most = max(self.most, sum(number_in(pid, "smaps_rollup", "Pss:") for pid in pids))


def wait(browser, expression, what):
    end = time.monotonic() + PATIENCE
    while not browser.ask(expression):
        if browser.ask("document.querySelector('#progress.failed')?.innerText ?? ''"):
            raise RuntimeError(f"{what}: reading failed")
        if time.monotonic() > end:
            raise RuntimeError(f"{what}: not within {PATIENCE} s")
        time.sleep(0.05)


def moving(browser, when):
    for what, keys in MOVES.items():
        longest, median, settled = browser.ask(f"{MOVING}({keys})")
        print(
            f"  {what} {when}: a frame every {median:.0f} ms, the longest {longest:.0f} ms; "
            f"drawn in full {settled:.0f} ms behind the last key",
            flush=True,
        )


def measure(file):
    browser = DrivenBrowser()
    others = descendants(os.getpid())  # what drives the browser
    with tempfile.NamedTemporaryFile("w", suffix=".html") as blank:
        blank.write("<!doctype html><html data-ready>")
        blank.flush()
        browser.open(blank.name)
    began = time.monotonic()
    server = subprocess.Popen(
        [sys.executable, "-m", "vantrace", "view", "--no-open", file],
        stdout=subprocess.PIPE,
        text=True,
    )
    try:
        with PeakMemory({server.pid, *others}) as peak:
            browser.open(server.stdout.readline().split()[1])
            wait(browser, SHOWN, "the first picture")
            shown, used = time.monotonic() - began, cpu_seconds(server.pid)
            print(
                f"{os.path.basename(file)}: first picture {shown:.1f} s "
                f"(server {used:.2f} s CPU), load {os.getloadavg()[0]:.1f}",
                flush=True,
            )
            moving(browser, "meanwhile")
            wait(browser, "document.documentElement.dataset.phase === 'whole'", "all")
            print(
                f"  all read {time.monotonic() - began:.1f} s "
                f"(server {cpu_seconds(server.pid):.1f} s CPU)",
                flush=True,
            )
            wait(browser, SHOWN, "the whole picture")
            moving(browser, "then")
        print(
            f"  memory at most: server {number_in(server.pid, 'status', 'VmHWM'):.0f} MB, "
            f"browser {peak.most:.0f} MB",
            flush=True,
        )
    finally:
        server.send_signal(signal.SIGINT)
        server.wait()
        browser.close()


for each in sys.argv[1:]:
    measure(each)
