"""`vantrace run`: processes that the script makes, in whatever way, are in its trace."""

import os
import re
import signal
import subprocess
import sys

import pytest

from conftest import ROOT, run_python
from trace_rules import check_trace, events_of

WORKER = """
import os
def work(number):
    return number * number
"""


@pytest.fixture(name="run")
def fixture_run(tmp_path):
    """Runs a script under us beside a module of work; gives the process and {name: pids}."""
    (tmp_path / "worker.py").write_text(WORKER, encoding="utf-8")

    def run(code, *options, **settings):
        script = tmp_path / "script.py"
        script.write_text(code, encoding="utf-8")
        done = run_python(
            "-m", "vantrace", "run", "-o", "t.json", *options, script, cwd=tmp_path, **settings
        )
        return done, processes_of(tmp_path / "t.json")

    return run


def processes_of(path):
    text = path.read_text(encoding="utf-8")
    assert check_trace(text) == []
    found = {}
    for event in events_of(text):
        if event["ph"] in "XBi":
            found.setdefault(event["name"], []).append(event["pid"])
    return found


def alone(tmp_path, **settings):
    return run_python(tmp_path / "script.py", cwd=tmp_path, **settings)


@pytest.mark.parametrize("method", ["fork", "spawn", "forkserver"])
def test_pools_of_multiprocessing(run, method):
    done, found = run(
        f"""
import multiprocessing, worker
if __name__ == "__main__":
    with multiprocessing.get_context("{method}").Pool(2) as pool:
        print(sum(pool.map(worker.work, range(10), chunksize=1)))
        pool.close()
        pool.join()
"""
    )
    assert (done.returncode, done.stdout) == (0, "285\n")
    assert len(found["worker.work"]) == 10
    assert found["__main__.<module>"][0] not in found["worker.work"]


@pytest.mark.parametrize("method", ["fork", "spawn"])
def test_executors(run, method):
    done, found = run(
        f"""
import concurrent.futures, multiprocessing, worker
if __name__ == "__main__":
    context = multiprocessing.get_context("{method}")
    with concurrent.futures.ProcessPoolExecutor(2, mp_context=context) as pool:
        print(sum(pool.map(worker.work, range(10))))
"""
    )
    assert (done.returncode, done.stdout) == (0, "285\n")
    assert len(found["worker.work"]) == 10


def test_pools_that_are_terminated(run):
    done, found = run(
        """
import multiprocessing, worker
if __name__ == "__main__":
    pool = multiprocessing.get_context("spawn").Pool(2)
    print(sum(pool.map(worker.work, range(10))))
    pool.terminate()
"""
    )
    assert (done.returncode, done.stdout) == (0, "285\n")
    assert len(found["worker.work"]) == 10


def test_joblib_s_default_workers(run):
    done, found = run(
        """
import joblib, worker
if __name__ == "__main__":
    print(sum(joblib.Parallel(n_jobs=2)(joblib.delayed(worker.work)(n) for n in range(10))))
"""
    )
    assert (done.returncode, done.stdout) == (0, "285\n"), done.stderr
    assert len(found["worker.work"]) == 10
    assert found["__main__.<module>"][0] not in found["worker.work"]


@pytest.mark.parametrize(
    "command",
    [
        "[sys.executable, '-c', 'import worker; worker.work(3)']",
        "[sys.executable, 'other.py']",
        "[sys.executable, '-u', '-W', 'error', 'other.py']",
        "[sys.executable, '-m', 'other']",
        "['sh', '-c', sys.executable + ' other.py']",
    ],
)
def test_interpreters_that_are_started(run, tmp_path, command):
    (tmp_path / "other.py").write_text("import worker\nworker.work(3)\n", encoding="utf-8")
    done, found = run(f"import subprocess, sys\nsubprocess.run({command}, check=True)\n")
    assert done.returncode == 0, done.stderr
    assert len(found["worker.work"]) == 1
    assert "not traced" not in done.stderr


def test_children_of_children(run, tmp_path):
    (tmp_path / "other.py").write_text(
        """
import os, subprocess, sys, worker
level = int(sys.argv[1])
worker.work(level)
if level:
    subprocess.run([sys.executable, __file__, str(level - 1)], check=True)
elif os.fork() == 0:
    worker.work(-1)
    os._exit(0)
else:
    os.wait()
"""
    )
    done, found = run("import subprocess, sys\nsubprocess.run([sys.executable, 'other.py', '2'], check=True)\n")
    assert done.returncode == 0, done.stderr
    assert len(set(found["worker.work"])) == 4


def test_children_that_are_killed(run, tmp_path):
    (tmp_path / "other.py").write_text("import os, worker\nworker.work(1)\nos.kill(os.getpid(), 9)\n")
    done, found = run(
        "import subprocess, sys\nprint(subprocess.run([sys.executable, 'other.py']).returncode)\n"
    )
    assert (done.returncode, done.stdout) == (0, "-9\n")
    assert len(found["worker.work"]) == 1


def test_what_a_child_sees_and_prints_is_as_ever(run, tmp_path):
    (tmp_path / "other.py").write_text(
        """
import sys
print(sys.path, sys.argv, sys.flags, __name__, "sitecustomize" in sys.modules)
print(getattr(sys.modules.get("sitecustomize"), "__file__", None))
1 / 0
"""
    )
    done, _ = run("import subprocess, sys\nprint(subprocess.run([sys.executable, 'other.py']).returncode)\n")
    plain = alone(tmp_path)
    assert done.stdout == plain.stdout
    assert done.stderr.startswith(plain.stderr)


def test_a_sitecustomize_of_the_program_still_runs(run, tmp_path):
    site = tmp_path / "site"
    site.mkdir()
    (site / "sitecustomize.py").write_text("import sys\nsys.customized = __file__\n")
    environment = os.environ | {
        "PYTHONPATH": os.pathsep.join([str(site), os.environ["PYTHONPATH"]])
    }
    (tmp_path / "other.py").write_text("import sys, worker\nworker.work(1)\nprint(sys.customized)\n")
    done, found = run(
        "import subprocess, sys\nsubprocess.run([sys.executable, 'other.py'], check=True)\n",
        env=environment,
    )
    assert done.stdout == f"{site / 'sitecustomize.py'}\n"
    assert len(found["worker.work"]) == 1


@pytest.mark.parametrize("failure", ["raise ValueError('in site')", "import no_such_module"])
def test_a_sitecustomize_that_fails_is_reported_as_ever(run, tmp_path, failure):
    site = tmp_path / "site"
    site.mkdir()
    (site / "sitecustomize.py").write_text(failure + "\n")
    environment = os.environ | {
        "PYTHONPATH": os.pathsep.join([str(site), os.environ["PYTHONPATH"]])
    }
    (tmp_path / "other.py").write_text("import worker\nworker.work(1)\n")
    done, found = run(
        "import subprocess, sys\nsubprocess.run([sys.executable, 'other.py'], check=True)\n",
        env=environment,
    )
    plain = alone(tmp_path, env=environment)
    # The script's own interpreter failed in it as well, before us.
    assert plain.stderr.count("Error in sitecustomize") == 2
    assert done.stderr.startswith(plain.stderr)
    assert len(found["worker.work"]) == 1


@pytest.mark.parametrize(
    "arguments, settings, reason",
    [
        ("'-I', 'other.py'", "", "the option -I"),
        ("'-uE', 'other.py'", "", "the option -E"),
        ("'-W', 'error', '-S', 'other.py'", "", "the option -S"),
        ("'other.py'", ", env={}", "an environment of its own"),
    ],
)
def test_a_child_that_cannot_be_traced_is_named(run, tmp_path, arguments, settings, reason):
    (tmp_path / "other.py").write_text("print('other')\n")
    done, _ = run(
        "import subprocess, sys\n"
        f"subprocess.run([sys.executable, {arguments}], check=True{settings})\n"
    )
    assert (done.returncode, done.stdout) == (0, "other\n")
    command = " ".join([sys.executable, *re.findall(r"'(.*?)'", arguments)])
    assert f"vantrace: not traced, for {reason}: {command}\n" in done.stderr


def test_a_child_that_goes_on_is_not_waited_for(run, tmp_path):
    (tmp_path / "other.py").write_text(
        """
import os, sys, worker
worker.work(1)
os.close(1)
os.close(2)
sys.stdin.read()
"""
    )
    done, found = run(
        """
import os, subprocess, sys
other = subprocess.Popen([sys.executable, "other.py"], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
other.stdout.read()
print(other.pid)
os.set_inheritable(other.stdin.fileno(), True)
keeper = os.fork()
if keeper == 0:  # keeps its input open for longer than the script lasts
    os.close(1)
    os.close(2)
    os.close(0)
    os.setsid()
    while True:
        os.pause() if hasattr(os, "pause") else __import__("signal").pause()
print(keeper)
"""
    )
    other, keeper = map(int, done.stdout.split())
    os.kill(other, 0)  # it still runs
    assert len(found["worker.work"]) == 1
    os.kill(keeper, signal.SIGKILL)
    try:
        os.kill(other, signal.SIGKILL)
    except ProcessLookupError:
        pass  # its input came to an end


def test_a_child_that_starts_after_the_run_is_none_of_it(tmp_path):
    environment = os.environ | {
        "VANTRACE_RUN": f"{tmp_path / 'gone'}\n{{}}",
        "PYTHONPATH": os.pathsep.join([site_folder(), os.environ["PYTHONPATH"]]),
    }
    done = run_python("-c", "print('as ever')", cwd=tmp_path, env=environment)
    assert (done.returncode, done.stdout, done.stderr) == (0, "as ever\n", "")


def site_folder():
    import vantrace

    return os.path.join(os.path.dirname(os.path.abspath(vantrace.__file__)), "_site")


def test_the_guide_s_example(run, tmp_path):
    guide = (ROOT / "docs/run.md").read_text(encoding="utf-8")
    done, found = run(re.search(r"(?s)```python\n(.*?)```", guide)[1])
    assert (done.returncode, done.stdout) == (0, "285\n")
    assert len(found["__main__.square"]) == 10
    assert len(found["__main__.other"]) == 1


@pytest.mark.parametrize(
    "start",
    [
        "os.system(COMMAND)",
        "os.popen(COMMAND).close()",
        "subprocess.run(COMMAND, shell=True)",
        "subprocess.run(['bash', '--norc', '-ec', 'cd .; if true; then A=1 exec ' + COMMAND + ' 2>&1; fi'])",
        "os.waitpid(os.posix_spawn(sys.executable, [sys.executable, '-I', 'other.py'], os.environ), 0)",
        "os.spawnv(os.P_WAIT, sys.executable, [sys.executable, '-I', 'other.py'])",
        "os.execlp(sys.executable, sys.executable, '-I', 'other.py')",
        "os.execve(sys.executable, [sys.executable, '-I', 'other.py'], os.environ)",
    ],
)
def test_an_interpreter_that_a_shell_or_the_process_itself_becomes_is_named(run, tmp_path, start):
    (tmp_path / "other.py").write_text("pass\n")
    done, _ = run(f"import os, subprocess, sys\nCOMMAND = sys.executable + ' -I other.py'\n{start}\n")
    assert done.returncode == 0, done.stderr
    named = [line for line in done.stderr.splitlines() if "not traced" in line]
    assert named == [f"vantrace: not traced, for the option -I: {sys.executable} -I other.py"]


@pytest.mark.parametrize(
    "start",
    [
        "os.system('echo python3 -I other.py')",
        "os.system('echo \"; python3 -I other.py\"')",
        "os.system('cat > python3 < /dev/null')",
        "os.system(sys.executable + ' other.py -I')",
        "os.system('echo \"')",
        "try: os.execv('/nowhere/python3', ['python3', '-I'])\nexcept OSError: pass",
    ],
)
def test_nothing_is_named_that_does_not_start_untraced(run, tmp_path, start):
    (tmp_path / "other.py").write_text("pass\n")
    done, _ = run(f"import os, sys\n{start}\n")
    assert done.returncode == 0
    assert "not traced" not in done.stderr
