"""A memory limit of the control group: what is bounded keeps to it, and whom it kills takes nobody along."""

import json
import os
import pathlib
import signal

import pytest

from conftest import run_python
from test_clients import RECORD, WAIT

pytestmark = pytest.mark.unsanitized

GROUPS = pathlib.Path("/sys/fs/cgroup")
# The folder of groups and the file of a limit, of either version.
VERSIONS = [(GROUPS / "memory", "memory.limit_in_bytes"), (GROUPS, "memory.max")]


def make_group(name, limit):
    """A folder of a new group with a limit; None where there is none to be had."""
    for folder, file in VERSIONS:
        group = folder / name
        try:
            group.mkdir()
        except OSError:
            continue
        try:
            (group / file).write_text(str(limit), encoding="ascii")
            return group
        except OSError:
            group.rmdir()
    return None


@pytest.fixture(name="group")
def fixture_group(request):
    """A group whose memory is limited to 96 MiB."""
    group = make_group(f"{request.node.name}-{os.getpid()}", 96 << 20)
    if group is None:
        pytest.skip("only root may limit a group's memory, and not everywhere")
    yield group
    group.rmdir()


def joins(group):
    return lambda: (group / "cgroup.procs").write_text("0", encoding="ascii")


def test_it_kills_what_has_no_bound(group):
    done = run_python("-c", "kept = b'x' * (128 << 20)", preexec_fn=joins(group))
    assert done.returncode == -signal.SIGKILL


def test_a_recorder_keeps_to_it_by_itself(group, tmp_path):
    code = """
import vantrace
with vantrace.record() as recording:
    for i in range(3_000_000):
        vantrace.instant('many', number=i, text='a value of some length')
recording.save('t.vtrace')
print('unharmed')
"""
    done = run_python("-c", code, cwd=tmp_path, preexec_fn=joins(group))
    assert done.returncode == 0, done.stderr
    assert "unharmed\n" in done.stdout
    [line] = [line for line in (done.stdout + done.stderr).splitlines() if "dropped" in line]
    assert line.startswith("recorder: ")
    export = ("export", "--min-duration", "1000s", "t.vtrace", "-o", "t.json")
    assert run_python("-m", "vantrace", *export, cwd=tmp_path).returncode == 0
    metadata = json.loads((tmp_path / "t.json").read_text(encoding="utf-8"))["metadata"]
    assert int(metadata["dropped_refused"]) > 1_000_000
    assert f"({metadata['dropped_refused']} refused" in line


def test_a_client_that_it_kills_has_published_what_it_published(group, tmp_path):
    worker = """
from vantrace import client
solver = client.Client('solver')
wait_until(lambda: solver.is_wanted)
for i in range(1000):
    with solver.event('step'): pass
kept = b'x' * (128 << 20)
"""
    code = f"""
def work():
    killed = subprocess.run([sys.executable, '-c', WAIT + {worker!r}], check=False,
                            preexec_fn=lambda: open({str(group / "cgroup.procs")!r}, 'w').write('0'))
    worker('''
from vantrace import client
with client.Client('other') as other:
    wait_until(lambda: other.is_wanted)
    other.instant('unharmed')
''')
    print(killed.returncode)
trace = recorded(work)
print(names(trace).count('step'), names(trace).count('unharmed'))
print([(published, delivered, drops) for _, _, published, delivered, drops in accounts()])
"""
    done = run_python(
        *("-c", f"WAIT = {WAIT!r}\n{RECORD}\n{code}"),
        cwd=tmp_path,
        env=os.environ | {"ZANDOR_RUNTIME_DIR": str(tmp_path / "runtime")},
    )
    assert done.returncode == 0, done.stderr
    status, found, counts = done.stdout.splitlines()
    assert int(status) == -signal.SIGKILL
    assert found == "1000 1"
    assert counts == "[(2000, 2000, {}), (1, 1, {})]"
