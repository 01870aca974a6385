"""Processes whose events another one collects, from Python."""

import json
import os
import re
import subprocess
import sys
import time

import pytest
from conftest import run_python

WAIT = """
import time
def wait_until(condition):
    end = time.monotonic() + 30
    while not condition():
        assert time.monotonic() < end
"""

RECORD = (
    WAIT
    + """
import json, os, subprocess, sys, vantrace
from vantrace import client
from vantrace._clients import Aggregator, accounts

aggregator = Aggregator()

def worker(code, **environment):
    subprocess.run([sys.executable, '-c', WAIT + code], env=os.environ | environment, check=True)

def recorded(body):
    with vantrace.record('trace.json'):
        aggregator.start(5)
        body()
        aggregator.stop()
    with open('trace.json') as file:
        return json.load(file)

def names(trace):
    return sorted(event['name'] for event in trace['traceEvents'] if event['ph'] in 'Xi')
"""
)


@pytest.fixture(name="script")
def fixture_script(tmp_path):
    """Runs code that records others, in a runtime folder of its own; gives what it printed."""
    folder = tmp_path / "runtime"

    def run(code):
        done = run_python(
            "-c",
            f"WAIT = {WAIT!r}\n{RECORD}\n{code}",
            cwd=tmp_path,
            env=os.environ | {"ZANDOR_RUNTIME_DIR": str(folder)},
        )
        assert done.returncode == 0, done.stderr
        assert done.stderr == ""
        return done.stdout

    return run


def test_a_client_sends_events_with_context(script):
    trace = script(
        """
def work():
    with client.Client('solver') as solver:
        wait_until(lambda: solver.is_wanted)
        with solver.event('assemble', n=512, method='cg'):
            solver.instant('checkpoint')
        event = solver.start('open')
        solver.stop(event)
trace = recorded(work)
print(json.dumps(trace))
"""
    )
    events = {
        event["name"]: event for event in json.loads(trace)["traceEvents"] if event["ph"] in "Xi"
    }
    assert events["assemble"]["args"] == {"n": "512", "method": "cg"}
    assert "open" in events


def test_a_worker_joins_by_one_line(script):
    out = script(
        """
trace = recorded(lambda: worker('''
import vantrace
from vantrace import client
client.join('worker-3')
wait_until(lambda: client._joined.is_wanted)
with vantrace.event('step', i=1): pass
vantrace.instant('done')
'''))
print(json.dumps([names(trace), [e['args']['name'] for e in trace['traceEvents']
      if e['name'] in ('process_name', 'thread_name')], trace['metadata']]))
"""
    )
    found, processes, metadata = json.loads(out)
    assert found == ["done", "step"]
    assert processes == ["worker-3", "MainThread"]
    assert metadata["client_1_name"] == "worker-3"
    assert metadata["client_1_published"] == metadata["client_1_delivered"] == "3"


def test_a_worker_joins_by_its_environment(script):
    out = script(
        """
trace = recorded(lambda: worker('''
import vantrace
from vantrace import client
wait_until(lambda: client._joined.is_wanted)
with vantrace.event('step'): pass
''', VANTRACE_CLIENT='by environment'))
print(names(trace), accounts()[0][0])
"""
    )
    assert out == "['step'] by environment\n"


def test_a_forked_worker_is_a_client_of_its_own(script):
    out = script(
        """
def work():
    client.join('family')
    wait_until(lambda: client._joined.is_wanted)
    child = os.fork()
    if child == 0:
        wait_until(lambda: client._joined.is_wanted)
        with vantrace.event('of the child'): pass
        os._exit(0)
    assert os.waitpid(child, 0)[1] == 0
    client.leave()
    print(child)
trace = recorded(work)
print([process for _, process, published, *_ in accounts() if published])
"""
    )
    child, processes = out.split("\n", 1)
    assert processes == f"[{child}]\n"


def test_what_is_no_client_costs_nothing_and_fails_nowhere(script):
    out = script(
        """
alone = client.Client('alone')
assert not alone.is_wanted
with alone.event('unheard', n=1):
    alone.instant('unheard')
assert alone.start('unheard') is None
alone.stop(None)
alone.close()
alone.close()
alone.instant('after the end')
print('fine')
"""
    )
    assert out == "fine\n"


def test_texts_with_a_nul_are_refused(script):
    out = script(
        """
def work():
    with client.Client('c') as c:
        wait_until(lambda: c.is_wanted)
        for arguments in (('a\\0b',), ('a', {'k': 'a\\0b'})):
            try:
                c.start(*arguments)
            except ValueError as error:
                print(error)
recorded(work)
"""
    )
    assert out == 2 * "a text for a client has no NUL inside\n"


def test_run_collects_from_clients(tmp_path):
    script = tmp_path / "script.py"
    code = WAIT + (
        "import vantrace\nfrom vantrace import client\n"
        "wait_until(lambda: client._joined.is_wanted)\n"
        "for i in range(100):\n    with vantrace.event('worker step'): pass\n"
        "client._joined.instant('too long' * 1000)\n"
    )
    script.write_text(
        "import os, subprocess, sys\n"
        f"subprocess.run([sys.executable, '-c', {code!r}], check=True,\n"
        "               env=os.environ | {'VANTRACE_CLIENT': 'worker'})\n"
    )
    done = run_python(
        *("-m", "vantrace", "run", "--clients", "-o", "t.json", script),
        cwd=tmp_path,
        env=os.environ | {"ZANDOR_RUNTIME_DIR": str(tmp_path / "runtime")},
    )
    assert done.returncode == 0, done.stderr
    assert re.search(
        r"vantrace: client worker \(process \d+\): 201 published, 200 delivered, "
        r"1 dropped \(oversize\)\n",
        done.stderr,
    )
    trace = json.loads((tmp_path / "t.json").read_text())
    steps = [event for event in trace["traceEvents"] if event["name"] == "worker step"]
    assert len(steps) == 100
    processes = {e["args"]["name"] for e in trace["traceEvents"] if e["name"] == "process_name"}
    assert "worker" in processes
    keys = ("name", "published", "delivered", "dropped_oversize")
    assert [trace["metadata"][f"client_1_{key}"] for key in keys] == ["worker", "201", "200", "1"]


def test_clients_are_listed(tmp_path):
    environment = os.environ | {"ZANDOR_RUNTIME_DIR": str(tmp_path / "runtime")}
    code = (
        WAIT
        + """
import sys
from vantrace import client
from vantrace._clients import Aggregator
aggregator = Aggregator()
aggregator.start(5)
listed = client.Client('listed')
wait_until(lambda: listed.is_wanted)
listed.instant('here')
print('ready', flush=True)
sys.stdin.read()
aggregator.stop()
"""
    )
    with subprocess.Popen(
        [sys.executable, "-c", code],
        env=environment,
        stdin=subprocess.PIPE,
        stdout=subprocess.PIPE,
        text=True,
    ) as host:
        assert host.stdout.readline() == "ready\n"
        listing = ["-m", "vantrace", "clients"]
        end = time.monotonic() + 30
        rows = []
        while (not rows or rows[0]["published"] == 0) and time.monotonic() < end:
            rows = json.loads(run_python(*listing, "--json", env=environment).stdout)
        text = run_python(*listing, env=environment).stdout
        host.stdin.close()
    assert [(row["client"], row["host"], row["threads"]) for row in rows] == [
        ("listed", host.pid, 1)
    ]
    assert rows[0]["published"] == 1
    assert text.splitlines()[1].endswith("  listed")
    assert run_python(*listing, env=environment).stdout == "no clients\n"


def test_the_list_takes_no_other_option():
    done = run_python("-m", "vantrace", "clients", "--bogus")
    assert done.returncode == 2
    assert "clients has no option '--bogus'" in done.stderr
