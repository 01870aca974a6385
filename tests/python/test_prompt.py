"""Tasks run while Python and IPython wait at their prompts, in a real terminal."""

import contextlib
import os
import sys

import pexpect
import pytest

pytestmark = pytest.mark.unsanitized


class Prompt:
    """An interpreter in a pseudo-terminal."""

    def __init__(self, arguments, environment, cwd):
        self.terminal = pexpect.spawn(
            sys.executable,
            arguments,
            env=environment,
            cwd=str(cwd),
            dimensions=(24, 200),
            timeout=60,
            encoding="utf-8",
        )
        self.terminal.delaybeforesend = None

    def type(self, line):
        self.terminal.send(line + "\r")

    def expect(self, text):
        self.terminal.expect_exact(text)

    def end(self):
        self.type("import os; print('en' + 'd'); os._exit(0)")
        self.expect("end")
        self.terminal.expect(pexpect.EOF)
        self.terminal.wait()
        return self.terminal.exitstatus


KINDS = {
    "python": ["-q", "-i"],
    "ipython": ["-m", "IPython", "--no-banner", "--no-confirm-exit", "--HistoryManager.enabled=False"],
}


@pytest.fixture(name="start")
def fixture_start(tmp_path, monkeypatch):
    """Starts an interpreter of a kind; one a test."""
    monkeypatch.setenv("HOME", str(tmp_path))
    monkeypatch.setenv("TERM", "xterm")
    with contextlib.ExitStack() as stack:

        def start(kind):
            prompt = Prompt(KINDS[kind], dict(os.environ), tmp_path)
            stack.callback(prompt.terminal.close, force=True)
            return prompt

        yield start


@pytest.fixture(name="prompt", params=KINDS)
def fixture_prompt(request, start):
    return start(request.param)


# What is typed does not have the text that is waited for.
SAY = "def say(text): print('<' + text + '>', flush=True)"


def begin(prompt):
    prompt.type("from vantrace import performance, tasks; manager = performance.cooperativeTaskManager")
    prompt.type(SAY)
    prompt.type("")


@pytest.mark.parametrize("session", ["main", "ppe"])
def test_tasks_run_while_nobody_types(prompt, session):
    begin(prompt)
    prompt.type(f"tasks.add((say(f'step {{n}}') for n in range(3)), session={session!r})")
    for step in range(3):
        prompt.expect(f"<step {step}>")
    assert prompt.end() == 0


def test_typing_stays_fluid_while_a_task_never_ends(prompt):
    begin(prompt)
    prompt.type("import itertools")
    prompt.type("tasks.add((say('first') if n == 0 else None for n in itertools.count()))")
    prompt.expect("<first>")
    for number in range(5):
        prompt.type(f"say(str({number} * 111))")
        prompt.expect(f"<{number * 111}>")
    prompt.type("say(str(manager.getNumPendingTasks()) + ' left')")
    prompt.expect("<1 left>")
    prompt.type("manager.removeAllTasks()")
    assert prompt.end() == 0


def test_paused_tasks_wait_until_they_are_resumed(prompt):
    begin(prompt)
    prompt.type("manager.pause(); tasks.add(lambda: say('late'))")
    prompt.type("tasks.add(lambda: say('ppe'), session='ppe')")
    prompt.expect("<ppe>")
    prompt.type("say(str(manager.getNumPendingTasks()) + ' left')")
    prompt.expect("<1 left>")
    prompt.type("manager.resume()")
    prompt.expect("<late>")
    assert prompt.end() == 0


def test_tasks_of_other_threads_run_though_nobody_types(prompt):
    begin(prompt)
    prompt.type("import threading; go = threading.Event()")
    prompt.type("later = lambda: (go.wait(), tasks.add(lambda: say('from a thread')))")
    prompt.type("threading.Thread(target=later).start()")
    prompt.type("tasks.add(go.set)")
    prompt.expect("<from a thread>")
    assert prompt.end() == 0


def test_an_error_is_shown_and_the_prompt_goes_on(prompt):
    begin(prompt)
    prompt.type("tasks.add(lambda: {}['mis' + 'sing'])")
    prompt.type("tasks.add(lambda: say('behind'))")
    prompt.expect("KeyError: 'missing'")
    prompt.expect("<behind>")
    assert prompt.end() == 0


def test_an_interrupt_ends_the_step_that_it_comes_in(prompt):
    begin(prompt)
    prompt.type("import os, signal")
    prompt.type("tasks.add(lambda: os.kill(os.getpid(), signal.SIGINT))")
    prompt.expect("KeyboardInterrupt")
    prompt.type("tasks.add(lambda: say('behind'))")
    prompt.expect("<behind>")
    assert prompt.end() == 0


def test_tasks_of_the_host_run_without_a_word_about_tasks(prompt):
    prompt.type("from vantrace import performance; manager = performance.cooperativeTaskManager")
    prompt.type(SAY)
    prompt.type("")
    prompt.type("manager.setLoggingEnabled(True)")
    prompt.type("performance.utils.queueLoadLibrary('no such' + ' library')")
    prompt.expect("utLoadLibrary(no such library) failed")
    assert prompt.end() == 0


def test_an_earlier_input_hook_is_called_as_well(start):
    prompt = start("python")
    prompt.type("import ctypes, threading; called = threading.Event()")
    prompt.type("hook = ctypes.CFUNCTYPE(ctypes.c_int)(lambda: (called.set(), 0)[1])")
    prompt.type("slot = ctypes.c_void_p.in_dll(ctypes.pythonapi, 'PyOS_InputHook')")
    prompt.type("slot.value = ctypes.cast(hook, ctypes.c_void_p).value")
    begin(prompt)
    prompt.type("called.clear(); tasks.add(lambda: say('task'))")
    prompt.expect("<task>")
    prompt.type("say('called ' + str(called.wait()))")
    prompt.expect("<called True>")
    assert prompt.end() == 0
