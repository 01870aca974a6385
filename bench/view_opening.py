#!/usr/bin/python3
"""How long a trace file takes to open in the browser, in time and in CPU time, and its memory.

usage: view_opening.py FILE.vtrace ...   (bench/trace_files makes such files)
"""

import os
import pathlib
import signal
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests/python"))

from driven_page import DrivenBrowser  # noqa: E402  pylint: disable=wrong-import-position


def megabytes(pid, file, field):
    """Of a process: VmHWM of status, at most; Pss of smaps_rollup, now, its share of what is shared."""
    with open(f"/proc/{pid}/{file}", encoding="ascii") as status:
        for line in status:
            if line.startswith(field):
                return int(line.split()[1]) / 1024
    return 0


def descendants(pid):
    """All processes that came of one."""
    found = [pid]
    for parent in found:
        for task in os.listdir(f"/proc/{parent}/task"):
            with open(f"/proc/{parent}/task/{task}/children", encoding="ascii") as children:
                found += map(int, children.read().split())
    return found[1:]


def cpu_seconds(pid):
    with open(f"/proc/{pid}/stat", encoding="ascii") as stat:
        fields = stat.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def measure(file):
    browser = DrivenBrowser()
    used = sum(map(cpu_seconds, descendants(os.getpid())))
    began = time.monotonic()
    server = subprocess.Popen(
        [sys.executable, "-m", "vantrace", "view", "--no-open", file],
        stdout=subprocess.PIPE,
        text=True,
    )
    browser.open(server.stdout.readline().split()[1])
    opened = time.monotonic() - began
    used = sum(map(cpu_seconds, descendants(os.getpid()))) - used
    while browser.ask("document.documentElement.dataset.phase") != "whole":
        time.sleep(0.2)
    whole = time.monotonic() - began
    browser.wait("Boolean(document.getElementById('chart').dataset.shown)")
    pages = [pid for pid in descendants(os.getpid()) if pid != server.pid]
    print(
        f"{os.path.basename(file)}: first picture {opened:.1f} s ({used:.1f} s CPU of both), "
        f"all read {whole:.1f} s ({cpu_seconds(server.pid):.1f} s CPU), "
        f"at most {megabytes(server.pid, 'status', 'VmHWM'):.0f} MB; "
        f"browser {sum(megabytes(pid, 'smaps_rollup', 'Pss:') for pid in pages):.0f} MB",
        flush=True,
    )
    server.send_signal(signal.SIGINT)
    server.wait()
    browser.close()


for each in sys.argv[1:]:
    measure(each)
