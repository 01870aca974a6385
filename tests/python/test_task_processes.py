"""Tasks that are pending when the interpreter ends or the process forks."""

PENDING = """
import os, sys, threading
from vantrace import performance, tasks
manager = performance.cooperativeTaskManager
def work():
    try:
        while True: yield
    finally: print("closed", flush=True)
"""


def test_pending_generators_are_closed_at_exit(python):
    code = "tasks.add(work()); manager.process(100); tasks.add(work); tasks.add(len, session='ppe')"
    assert python(PENDING + code) == "closed\n"


def test_a_daemon_thread_may_be_in_a_step_at_exit(python):
    code = """
inside = threading.Event()
def busy():
    while True:
        inside.set()
        yield
tasks.add(busy())
threading.Thread(target=manager.process, args=(2**62,), daemon=True).start()
inside.wait()
"""
    for _ in range(5):
        assert python(PENDING + code) == ""


def test_a_daemon_thread_may_wait_inside_a_step_at_exit(python):
    code = """
inside = threading.Event()
def waiting():
    inside.set()
    threading.Event().wait()
tasks.add(waiting)
threading.Thread(target=manager.finishAllTasks, daemon=True).start()
inside.wait()
"""
    assert python(PENDING + code) == ""


def test_a_child_after_fork_has_the_tasks(python):
    code = """
tasks.add(work())
manager.process(100)
sys.stdout.flush()
child = os.fork()
if child == 0:
    assert manager.getNumPendingTasks() == 1
    tasks.add(lambda: print("in the child", flush=True), name="child")
    manager.finishTaskByName("child")
    manager.removeAllTasks()
    os._exit(0)
assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 0
manager.removeAllTasks()
"""
    assert python(PENDING + code) == "in the child\nclosed\nclosed\n"


def test_a_child_drops_the_step_that_another_thread_was_in(python):
    code = """
inside, go_on = threading.Event(), threading.Event()
def step():
    inside.set()
    go_on.wait()
    print("done", flush=True)
    yield
tasks.add(step(), name="step")
thread = threading.Thread(target=manager.process, args=(10**9,))
thread.start()
inside.wait()
child = os.fork()
if child == 0:
    tasks.add(lambda: print("child", flush=True))
    manager.process(10**9)
    os._exit(manager.getNumPendingTasks())
assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 0
go_on.set()
thread.join()
"""
    assert python(PENDING + code) == "child\ndone\n"


def test_children_forked_while_tasks_run(python):
    code = """
stop, begun = threading.Event(), threading.Barrier(4)
def one():
    yield
def run():
    begun.wait()
    while not stop.is_set():
        tasks.add(one)
        manager.finishAllTasks()
threads = [threading.Thread(target=run) for _ in range(3)]
for thread in threads: thread.start()
begun.wait()
for _ in range(30):
    child = os.fork()
    if child == 0:
        done = []
        tasks.add(lambda: done.append(1))
        manager.finishAllTasks()
        os._exit(0 if done else 1)
    assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 0
stop.set()
for thread in threads: thread.join()
"""
    assert python(PENDING + code) == ""
