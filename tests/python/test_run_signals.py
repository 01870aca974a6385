"""`vantrace run`: the script gets the signals that it would get without us, each of them once."""

import os
import signal
import subprocess
import sys

import pexpect
import pytest

from trace_rules import check_trace, events_of

RUN = [sys.executable, "-m", "vantrace", "run", "--events-only", "-o", "t.json", "script.py"]
ALONE = [sys.executable, "script.py"]
WORK = "import os, signal, sys, vantrace\nwith vantrace.event('work'):\n    pass\n"


def names(path):
    text = path.read_text(encoding="utf-8")
    assert check_trace(text) == []
    return [event["name"] for event in events_of(text) if event["ph"] in "Xi"]


@pytest.fixture(name="started")
def fixture_started(tmp_path):
    """Starts a script under us in a group of its own; it says when it is ready."""
    processes = []

    def start(code):
        (tmp_path / "script.py").write_text(WORK + code, encoding="utf-8")
        process = subprocess.Popen(
            RUN, cwd=tmp_path, stdout=subprocess.PIPE, text=True, start_new_session=True
        )
        processes.append(process)
        assert process.stdout.readline() == "ready\n"
        return process

    yield start
    for process in processes:
        process.kill()
        process.communicate()


COUNTING = """
got = 0

def count(*_):
    global got
    got += 1
    os.write(1, b"got one\\n")  # whole, whatever signal comes next

signal.signal(signal.SIGUSR1, count)
signal.signal(signal.SIGTERM, lambda *_: sys.exit(got))
print("ready", flush=True)
while True:
    signal.pause()
"""


def test_a_signal_for_the_whole_group_comes_once(started):
    process = started(COUNTING)
    for _ in range(20):
        os.killpg(process.pid, signal.SIGUSR1)
        assert process.stdout.readline() == "got one\n"
    # Passed on behind whatever was passed on before.
    process.send_signal(signal.SIGTERM)
    assert process.communicate(timeout=60)[0] == ""
    assert process.returncode == 20


def test_signals_for_us_between_those_for_the_group(started):
    handler = "signal.signal(signal.SIGUSR2, lambda *_: print('another', flush=True))\n"
    process = started(COUNTING.replace('print("ready"', handler + 'print("ready"'))
    for _ in range(20):
        os.killpg(process.pid, signal.SIGUSR1)
        assert process.stdout.readline() == "got one\n"
        # The lower number is taken first: by now there is none of the group's to merge with.
        process.send_signal(signal.SIGUSR2)
        assert process.stdout.readline() == "another\n"
        process.send_signal(signal.SIGUSR1)
        assert process.stdout.readline() == "got one\n"
    process.send_signal(signal.SIGTERM)
    assert process.communicate(timeout=60)[0] == ""
    assert process.returncode == 40


def test_several_signals_for_the_group_come_once_each(started):
    process = started(COUNTING.replace("sys.exit(got)", "os.write(1, b'end\\n')"))
    for _ in range(20):
        os.killpg(process.pid, signal.SIGUSR1)
        os.killpg(process.pid, signal.SIGTERM)
        assert {process.stdout.readline() for _ in range(2)} == {"got one\n", "end\n"}
    process.send_signal(signal.SIGINT)
    assert process.communicate(timeout=60)[0] == ""
    assert process.returncode == -signal.SIGINT


def test_a_group_that_is_killed_by_a_signal(started, tmp_path):
    process = started("print('ready', flush=True)\nwhile True: signal.pause()\n")
    os.killpg(process.pid, signal.SIGTERM)
    process.communicate(timeout=60)
    assert process.returncode == -signal.SIGTERM
    assert names(tmp_path / "t.json") == ["work"]


def on_terminal(command, folder):
    """A command that leads the session of a terminal of its own."""
    return pexpect.spawn(command[0], command[1:], cwd=folder, timeout=60, echo=False)


def interrupted_twice(command, folder):
    """What the terminal showed, and how the process ended."""
    session = on_terminal(command, folder)
    session.expect_exact("ready\r\n")
    session.sendintr()
    session.expect_exact("once\r\n")
    session.sendintr()
    session.expect_exact(pexpect.EOF)
    session.close()
    return session.before, session.exitstatus, session.signalstatus


def test_two_interrupts_from_the_keyboard(tmp_path):
    (tmp_path / "script.py").write_text(
        WORK
        + """
def wait(text):
    print(text, flush=True)
    while True:
        signal.pause()

try:
    wait("ready")
except KeyboardInterrupt:
    wait("once")
""",
        encoding="utf-8",
    )
    shown, *ending = interrupted_twice(RUN, tmp_path)
    shown_alone, *ending_alone = interrupted_twice(ALONE, tmp_path)
    assert ending == ending_alone == [None, signal.SIGINT]
    assert b"KeyboardInterrupt" in shown_alone
    assert shown.startswith(shown_alone)
    assert shown[len(shown_alone) :].startswith(b"vantrace: ")
    assert names(tmp_path / "t.json") == ["work"]


def test_a_terminal_that_goes_away(tmp_path):
    (tmp_path / "script.py").write_text(
        WORK + "print('ready', flush=True)\nwhile True: signal.pause()\n", encoding="utf-8"
    )
    session = on_terminal(RUN, tmp_path)
    session.expect_exact("ready\r\n")
    os.close(session.fileno())  # the hangup is sent to the session's leader alone: to us
    session.closed = True
    _, status = os.waitpid(session.pid, 0)
    assert os.waitstatus_to_exitcode(status) == -signal.SIGHUP
    assert names(tmp_path / "t.json") == ["work"]


CONTINUED = """
continued = 0

def count(*_):
    global continued
    continued += 1

signal.signal(signal.SIGCONT, count)
print("ready", flush=True)
for line in sys.stdin:
    print(f"continued {continued}", flush=True)
print("done", flush=True)
"""


def stopped_and_continued(command, folder):
    """What a shell with job control shows of a job that is stopped twice, and how that ended."""
    shell = pexpect.spawn("/bin/bash", ["--norc", "--noediting"], cwd=folder, timeout=60, echo=False)
    shell.sendline("PS1='$''> '")
    shell.expect_exact("$> ")
    shell.sendline(" ".join(command))
    shell.expect_exact("ready\r\n")
    for number in (1, 2):
        shell.sendcontrol("z")
        shell.expect(r"\[1\]\+  (\w+.*?)  .*\$> ")
        assert shell.match[1] == b"Stopped"
        shell.sendline("fg")
        shell.expect_exact("script.py\r\n")
        shell.sendline("go on")
        shell.expect_exact(f"continued {number}\r\n")
    shell.sendeof()
    shell.expect_exact("done\r\n")
    shell.expect_exact("$> ")
    shell.sendline("echo status $?")
    shell.expect(r"status (\d+)\r\n")
    status = int(shell.match[1])
    shell.close()
    return status


def test_a_job_that_is_stopped_and_brought_back(tmp_path):
    (tmp_path / "script.py").write_text(WORK + CONTINUED, encoding="utf-8")
    assert stopped_and_continued(ALONE, tmp_path) == 0
    assert stopped_and_continued(RUN, tmp_path) == 0
    assert names(tmp_path / "t.json") == ["work"]
