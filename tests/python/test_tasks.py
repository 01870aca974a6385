"""Python work for the cooperative task manager, driven through the published methods."""

import contextlib
import gc
import os
import signal
import sys
import threading
import weakref

import pytest
from conftest import run_python
from vantrace import _tasks, performance, tasks

manager = performance.cooperativeTaskManager
AMPLE = 60_000_000  # microseconds

pytestmark = pytest.mark.usefixtures("no_leaks", "empty_sessions")


@pytest.fixture(name="empty_sessions")
def fixture_empty_sessions():
    """Nothing is pending before and after the test, and the main session's pause depth is 0."""
    while not manager.isPaused():
        manager.pause()
    manager.resume()
    yield
    manager.removeAllTasks()
    manager.finishAllTasks()


@contextlib.contextmanager
def unraisable_errors():
    """The texts of the errors that nobody took. Within a test: the framework's hook is in force."""
    errors = []
    with pytest.MonkeyPatch.context() as patch:
        patch.setattr(sys, "unraisablehook", lambda what: errors.append(str(what.exc_value)))
        yield errors


class Log(list):
    """A generator's doings, one entry each."""

    def steps(self, count, name="step"):
        try:
            for number in range(count):
                self.append(f"{name} {number}")
                yield number
        finally:
            self.append(f"{name} closed")


@pytest.fixture(name="log")
def fixture_log():
    return Log()


def test_a_callable_is_one_step(log):
    tasks.add(lambda: log.append("done"))
    assert (manager.getNumPendingTasks(), log) == (1, [])
    manager.process(AMPLE)
    assert (manager.getNumPendingTasks(), log) == (0, ["done"])


def test_a_generator_s_yields_are_steps(log):
    tasks.add(log.steps(2))
    tasks.add(log.steps(1, "other"))
    manager.process(AMPLE)
    assert log == ["step 0", "step 1", "step closed", "other 0", "other closed"]


def test_a_generator_function_goes_on_as_its_generator(log):
    def work():
        yield from log.steps(2)

    tasks.add(work)
    manager.process(AMPLE)
    assert log == ["step 0", "step 1", "step closed"]


def test_no_step_begins_after_the_budget(log):
    def work():
        for number in range(3):
            log.append(number)
            end = performance.utils.getMicrosecondTimer() + 2000
            while performance.utils.getMicrosecondTimer() < end:
                pass
            yield

    tasks.add(work())
    manager.process(1000)
    assert log == [0]
    manager.process(0)
    assert log == [0]
    manager.process(2**63)  # a negative budget
    assert log == [0]
    manager.process(AMPLE)
    assert log == [0, 1, 2]


def test_paused_tasks_wait(log):
    tasks.add(log.steps(1))
    manager.pause()
    manager.process(AMPLE)
    assert log == []
    manager.resume()
    manager.process(AMPLE)
    assert log == ["step 0", "step closed"]


def test_the_ppe_session_waits_for_the_prompt(log):
    tasks.add(log.steps(1), session="ppe")
    assert manager.getNumPendingTasks() == 0
    manager.process(AMPLE)
    assert log == []
    manager.finishAllTasks()
    assert log == ["step 0", "step closed"]


def test_an_idle_prompt_is_told_whether_to_come_back_at_once(log):
    def endless():
        while True:
            yield

    assert not _tasks.run_idle_slice()
    tasks.add(endless())
    assert _tasks.run_idle_slice()
    manager.pause()
    assert not _tasks.run_idle_slice()
    manager.resume()
    manager.removeAllTasks()
    tasks.add(log.steps(1, "main"))
    tasks.add(log.steps(1, "ppe"), session="ppe")
    assert not _tasks.run_idle_slice()
    assert log == ["main 0", "main closed", "ppe 0", "ppe closed"]


@pytest.mark.parametrize("name", ["", "100%s", "gr\xf6\xdfe \u4e2d \U0001f600", "lone \ud800", "x" * 5000])
def test_tasks_are_finished_by_name(log, name):
    tasks.add(log.steps(2, "a"), name=name)
    tasks.add(log.steps(1, "b"), name="another")
    tasks.add(log.steps(1, "c"), name=name)
    manager.finishTaskByName(name)
    assert log == ["a 0", "a 1", "a closed", "c 0", "c closed"]
    assert manager.getNumPendingTasks() == 1


def test_a_task_s_name_is_its_work_s(log, capsys):
    class Work:
        def __call__(self):
            pass

    tasks.add(log.steps(1))
    tasks.add(len)
    tasks.add(Work())
    manager.logPendingTasks()
    printed = capsys.readouterr().out.splitlines()
    assert printed[:3] == ["main: 3 pending tasks", "  Log.steps", "  len"]
    assert printed[3].endswith("Work")


def test_removing_closes_generators(log):
    tasks.add(log.steps(5))
    tasks.add(log.steps(5, "never begun"))
    tasks.add(lambda: manager.removeAllTasks())
    work = log.steps(3, "kept")
    next(work)
    tasks.add(work)
    manager.removeAllTasks()
    assert log == ["kept 0", "kept closed"]
    assert manager.getNumPendingTasks() == 0


def test_a_task_may_remove_all_while_it_runs(log):
    def work():
        try:
            manager.removeAllTasks()
            log.append(manager.getNumPendingTasks())
            yield
            log.append("not reached")
        finally:
            log.append("closed")

    tasks.add(work())
    tasks.add(log.steps(1))
    manager.process(AMPLE)
    assert log == [0, "closed"]


def test_a_task_may_add_tasks(log):
    def work():
        tasks.add(log.steps(1, "added"))
        yield
        log.append("first")

    tasks.add(work())
    manager.process(AMPLE)
    assert log == ["first", "added 0", "added closed"]


def test_a_task_may_process_and_finish_itself(log):
    def work():
        manager.process(AMPLE)
        log.append("inside")
        manager.finishTaskByName("own")
        log.append("not found any more")
        yield
        log.append("done")

    tasks.add(work(), name="own")
    tasks.add(lambda: log.append("behind"))
    manager.process(AMPLE)
    assert log == ["inside", "not found any more", "done", "behind"]


def test_an_error_ends_its_task_and_reaches_the_caller(log):
    def work():
        yield
        raise KeyError("mine")

    tasks.add(work())
    tasks.add(log.steps(1))
    with pytest.raises(KeyError, match="mine") as caught:
        manager.process(AMPLE)
    assert caught.traceback[-1].name == "work"
    assert (manager.getNumPendingTasks(), log) == (1, [])
    manager.process(AMPLE)
    assert log == ["step 0", "step closed"]


def test_errors_of_several_finished_at_once_are_not_lost():
    for error in (KeyError("first"), ValueError("second"), OSError("third")):
        tasks.add(lambda error=error: (_ for _ in ()).throw(error))
    with unraisable_errors() as errors, pytest.raises(KeyError, match="first"):
        manager.finishAllTasks()
    assert errors == ["second", "third"]


def test_finishing_by_name_ends_though_tasks_fail():
    for _ in range(3):
        tasks.add(lambda: 1 / 0, name="bad")
    for left in (2, 1, 0):
        with pytest.raises(ZeroDivisionError):
            manager.finishTaskByName("bad")
        assert manager.getNumPendingTasks() == left
    manager.finishTaskByName("bad")


def test_an_error_while_a_generator_is_closed_is_not_lost():
    def work():
        try:
            yield
        finally:
            raise ValueError("at the end")

    generator = work()
    next(generator)
    tasks.add(generator)
    with unraisable_errors() as errors:
        manager.removeAllTasks()
    assert errors == ["at the end"]


def test_an_interrupt_comes_out_of_the_call(log):
    def work():
        os.kill(os.getpid(), signal.SIGINT)
        while True:
            log.append("waits")

    tasks.add(work)
    tasks.add(lambda: log.append("behind"))
    with pytest.raises(KeyboardInterrupt):
        manager.process(AMPLE)
    assert manager.getNumPendingTasks() == 1
    log.clear()
    manager.process(AMPLE)
    assert log == ["behind"]


def test_sys_exit_in_a_task_ends_the_program():
    code = (
        "from vantrace import performance, tasks\n"
        "import sys\n"
        "tasks.add(lambda: sys.exit(7))\n"
        "performance.cooperativeTaskManager.process(10**7)\n"
    )
    done = run_python("-c", code)
    assert (done.returncode, done.stderr) == (7, "")


def test_a_generator_in_use_elsewhere_is_an_error_of_the_task():
    def work():
        tasks.add(generator)
        manager.finishTaskByName(generator.__qualname__)
        yield

    generator = work()
    with pytest.raises(ValueError, match="already executing"):
        next(generator)


def test_tasks_hold_their_work_no_longer_than_needed(log):
    class Big:
        pass

    def use(big):
        yield

    for end in (lambda: manager.process(AMPLE), manager.removeAllTasks, manager.finishAllTasks):
        big = Big()
        alive = weakref.ref(big)
        tasks.add(use(big))
        tasks.add(lambda big=big: None)
        del big
        gc.collect()
        assert alive()
        end()
        gc.collect()
        assert not alive()


def test_adding_and_ending_leaks_no_reference():
    def work():
        yield

    before = sys.getrefcount(work)
    for _ in range(100):
        tasks.add(work)
        tasks.add(work())
    manager.process(AMPLE)
    assert sys.getrefcount(work) == before


def test_threads_add_and_process_at_once():
    count, threads = 200, 4
    done, lock = [], threading.Lock()
    start = threading.Barrier(2 * threads)

    def step(number):
        for part in range(3):
            with lock:
                done.append((number, part))
            yield

    def add(first):
        start.wait()
        for number in range(first, first + count):
            tasks.add(step(number))

    def process():
        start.wait()
        for _ in range(50):
            manager.process(500)

    workers = [threading.Thread(target=add, args=(i * count,)) for i in range(threads)]
    workers += [threading.Thread(target=process) for _ in range(threads)]
    for worker in workers:
        worker.start()
    for worker in workers:
        worker.join()
    manager.process(AMPLE)
    assert sorted(done) == [(n, part) for n in range(threads * count) for part in range(3)]


@pytest.mark.parametrize(
    ("arguments", "error", "text"),
    [
        ((7,), TypeError, "work: expected a callable or a generator, got int"),
        (([],), TypeError, "work: expected a callable or a generator, got list"),
        ((len, 7), TypeError, "name: expected str, got int"),
        ((len, b"x"), TypeError, "name: expected str, got bytes"),
        ((len, "a\0b"), ValueError, r"name: expected text without NUL, got 'a\\x00b'"),
        ((len, "a", 7), TypeError, "session: expected str, got int"),
        ((len, "a", "other"), ValueError, "session: expected 'main' or 'ppe', got 'other'"),
    ],
)
def test_wrong_arguments_are_named(arguments, error, text):
    with pytest.raises(error, match=f"^{text}$"):
        tasks.add(*arguments)
    assert manager.getNumPendingTasks() == 0


def test_only_the_first_use_loads_the_library(python):
    out = python(
        "import vantrace\n"
        "def loaded(): return 'libzandor_performance' in open('/proc/self/maps').read()\n"
        "print(loaded())\n"
        "vantrace.tasks.add(len)\n"
        "print(loaded())\n"
    )
    assert out == "False\nTrue\n"
