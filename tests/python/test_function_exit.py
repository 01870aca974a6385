"""A process that traces functions ends as it would without us: in silence."""

import pytest

from conftest import run_python

PRELUDE = """
import asyncio, os, sys, threading, vantrace
recording = vantrace.record(functions=True, max_bytes=1 << 24, keep="last")
recording.__enter__()
def leaf(number): return number
def steps():
    while True: yield leaf(1)
async def wait():
    while True:
        leaf(2)
        await asyncio.sleep(0)
def forever(work):
    running = threading.Event()
    def loop():
        while True:
            work()
            running.set()
    for _ in range(4):
        threading.Thread(target=loop, daemon=True).start()
    running.wait()
"""


@pytest.fixture(name="ends_in_silence")
def fixture_ends_in_silence(tmp_path):
    def run(code, status=0, out=""):
        done = run_python("-X", "dev", "-c", PRELUDE + code, cwd=tmp_path)
        assert (done.returncode, done.stdout, done.stderr) == (status, out, "")

    return run


def test_while_tracing(ends_in_silence):
    ends_in_silence("leaf(1)")


def test_after_tracing(ends_in_silence):
    ends_in_silence("leaf(1); recording.__exit__(None, None, None); leaf(2)")


@pytest.mark.parametrize(
    "work",
    [
        "leaf(1)",
        "[leaf(n) for n in range(1000)]",
        "next(map(leaf, steps()))",
        "re.sub('a', lambda match: 'b', 'aaa')",
    ],
)
def test_with_threads_running(ends_in_silence, work):
    for _ in range(3):
        ends_in_silence(f"import re\nforever(lambda: {work})")


def test_with_threads_that_run_coroutines(ends_in_silence):
    for _ in range(3):
        ends_in_silence(
            """
started = threading.Barrier(3)
async def main():
    asyncio.get_running_loop().slow_callback_duration = 60  # the barrier may take its time
    tasks = [asyncio.create_task(wait(), name=f"task {n}") for n in range(3)]
    await asyncio.sleep(0)
    started.wait()
    await asyncio.gather(*tasks)
for _ in range(2):
    threading.Thread(target=lambda: asyncio.run(main()), daemon=True).start()
started.wait()
"""
        )


def test_with_functions_in_exit_handlers_and_destructors(ends_in_silence):
    ends_in_silence(
        """
import atexit, builtins
atexit.register(leaf, 3)
class Late:
    call = staticmethod(leaf)
    def __del__(self): self.call(4)
kept = Late()
builtins.kept = Late()
"""
    )


def test_with_suspended_generators_and_coroutines(ends_in_silence):
    ends_in_silence(
        """
generator = steps(); next(generator)
coroutine = wait(); coroutine.send(None)
"""
    )


def test_while_threads_start_and_stop_tracing(ends_in_silence):
    ends_in_silence(
        """
def toggle():
    with vantrace.record(functions=True, max_bytes=1 << 20): leaf(1)
forever(toggle)
"""
    )


def test_tracing_is_switched_while_threads_call(ends_in_silence):
    ends_in_silence(
        """
recording.__exit__(None, None, None)
go = threading.Event()
def work():
    while not go.is_set(): leaf(1)
threads = [threading.Thread(target=work) for _ in range(3)]
for thread in threads: thread.start()
for _ in range(200):
    with vantrace.record(functions=True) as again: leaf(2)
    assert [row for row in again.summary() if row.name == "__main__.leaf"]
go.set()
for thread in threads: thread.join()
"""
    )


def test_forks_while_threads_call(ends_in_silence):
    ends_in_silence(
        """
go = threading.Event()
def work():
    while not go.is_set(): leaf(1)
threads = [threading.Thread(target=work) for _ in range(3)]
for thread in threads: thread.start()
for _ in range(30):
    child = os.fork()
    if child == 0:
        leaf(2)
        rows = [row.count for row in recording.summary() if row.name == "__main__.leaf"]
        recording.__exit__(None, None, None)
        os._exit(0 if rows == [1] else 1)
    assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 0
go.set()
for thread in threads: thread.join()
"""
    )
