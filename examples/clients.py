"""Workers in C, C++ and Python on one timeline.

    vantrace run --clients examples/clients.py build/release/examples

Each sums a series in a process of its own; this one starts them and waits.
"""

import os
import subprocess
import sys

import vantrace

STEPS = 60
TERMS = 40_000


def worker():
    """What a Python worker does: plain vantrace events, sent since its environment says so."""
    total = 0.0
    for step in range(STEPS):
        with vantrace.event("python sum", step=step):
            first = step * TERMS
            total += sum((-4.0 if i % 2 else 4.0) / (2 * i + 1) for i in range(first, first + TERMS))
    sys.stdout.write(f"Python: {total:.5f}\n")  # one write: the others write there too


def main(programs):
    commands = {
        "c-worker": [os.path.join(programs, "client_worker"), "c-worker"],
        "cpp-worker": [os.path.join(programs, "client_threads"), "cpp-worker"],
        "python-1": [sys.executable, __file__, "--worker"],
        "python-2": [sys.executable, __file__, "--worker"],
    }
    with vantrace.event("all workers"):
        workers = [
            subprocess.Popen(command, env=os.environ | {"VANTRACE_CLIENT": name})
            for name, command in commands.items()
        ]
        failed = [running.args[0] for running in workers if running.wait() != 0]
    if failed:
        sys.exit(f"failed: {', '.join(failed)}")


if __name__ == "__main__":
    if sys.argv[1:] == ["--worker"]:
        worker()
    else:
        main(sys.argv[1])
