"""`vantrace run`: disks that are full, and folders of runs that could not finish."""

import os
import resource
import signal
import subprocess
import sys

import pytest

from conftest import run_python
from trace_rules import check_trace, events_of

MANY = "def work():\n    pass\nfor _ in range(200_000):\n    work()\nprint('unharmed')\n"


def names(folder, file):
    """Of the events of a trace file."""
    done = run_python("-m", "vantrace", "export", file, "-o", "out.json", cwd=folder)
    assert done.returncode == 0, done.stderr
    text = (folder / "out.json").read_text(encoding="utf-8")
    assert check_trace(text) == []
    return [event["name"] for event in events_of(text) if event["ph"] in "XBi"]


def check_unharmed(done, folder, file):
    assert (done.returncode, done.stdout) == (0, "unharmed\n")
    lines = [line for line in done.stderr.splitlines() if "room on the disk" in line]
    assert len(lines) == 1
    assert "Error" not in done.stderr
    rows = [line.split() for line in done.stderr.splitlines()]
    assert ["__main__.work", "200,000"] in [row[:2] for row in rows]  # the table counts all
    assert 0 < names(folder, file).count("__main__.work") < 200_000


def test_a_full_disk(small_disk, tmp_path):
    (tmp_path / "script.py").write_text(MANY, encoding="utf-8")
    file = small_disk / "t.vtrace"
    done = run_python("-m", "vantrace", "run", "-o", file, "script.py", cwd=tmp_path)
    check_unharmed(done, tmp_path, file)
    assert os.listdir(small_disk) == ["t.vtrace"]


def test_a_limit_on_the_size_of_files(tmp_path):
    (tmp_path / "script.py").write_text(MANY, encoding="utf-8")
    limit = 2 << 20
    done = run_python(
        *("-m", "vantrace", "run", "-o", "t.vtrace", "script.py"),
        cwd=tmp_path,
        preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit)),
    )
    check_unharmed(done, tmp_path, "t.vtrace")


@pytest.fixture(name="left")
def fixture_left(tmp_path):
    """The folder of a run that was killed itself."""
    (tmp_path / "script.py").write_text(
        "import signal, vantrace\nvantrace.instant('before')\n"
        "print('ready', flush=True)\nwhile True: signal.pause()\n",
        encoding="utf-8",
    )
    command = [sys.executable, "-m", "vantrace", "run", "-o", "t.json", "script.py"]
    process = subprocess.Popen(command, cwd=tmp_path, stdout=subprocess.PIPE, text=True)
    assert process.stdout.readline() == "ready\n"
    process.send_signal(signal.SIGKILL)
    process.communicate(timeout=60)  # until the script, which has the pipe, is gone too
    [folder] = [name for name in os.listdir(tmp_path) if name.endswith(".run")]
    return folder


def test_the_folder_of_a_run_that_was_killed_becomes_a_trace(left, tmp_path):
    done = run_python("-m", "vantrace", "export", left, "-o", "left.vtrace", cwd=tmp_path)
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
    assert "before" in names(tmp_path, "left.vtrace")
    assert left in os.listdir(tmp_path)


def test_a_folder_becomes_nothing_else(left, tmp_path):
    done = run_python("-m", "vantrace", "export", left, "-o", "left.json", cwd=tmp_path)
    assert done.returncode == 2
    assert done.stderr == "vantrace: of a folder comes a .vtrace file, not 'left.json'\n"


def test_a_folder_without_a_recording(tmp_path):
    (tmp_path / "empty").mkdir()
    done = run_python("-m", "vantrace", "export", "empty", "-o", "t.vtrace", cwd=tmp_path)
    assert done.returncode == 2
    assert done.stderr == "vantrace: there is no recording in 'empty'\n"
    assert not (tmp_path / "t.vtrace").exists()
