"""Folders that others could reach into, links in our way, and an environment full of nonsense."""

import json
import os
import stat

import pytest

from conftest import run_python

pytestmark = pytest.mark.unsanitized

EVIL = "e\x1b]0;title\x07evil"
OTHER_USER = 65534
RUNTIME = "vantrace._runtime_folder.runtime_folder()"


@pytest.fixture(name="base")
def fixture_base(tmp_path):
    base = tmp_path / "runtime"
    base.mkdir(mode=0o700)
    return base


def folder_used(base):
    """Where a process that is told of `base` puts its sockets, or the error that it gets."""
    code = f"""
import vantrace._runtime_folder
try:
    print({RUNTIME})
except OSError as error:
    print(type(error).__name__)
"""
    done = run_python("-c", code, env=os.environ | {"XDG_RUNTIME_DIR": str(base)})
    assert done.returncode == 0, done.stderr
    return done.stdout.strip()


def test_the_folder_of_sockets_is_the_user_s_alone(base):
    folder = base / "vantrace"
    assert folder_used(base) == str(folder)
    assert stat.S_IMODE(folder.stat().st_mode) == 0o700


@pytest.mark.parametrize("mode", [0o755, 0o770, 0o707, 0o777])
def test_a_folder_that_others_may_enter_is_refused(base, mode):
    (base / "vantrace").mkdir()
    (base / "vantrace").chmod(mode)
    assert folder_used(base) == "PermissionError"


def test_a_link_in_its_place_is_refused(base, tmp_path):
    (tmp_path / "elsewhere").mkdir(mode=0o700)
    (base / "vantrace").symlink_to(tmp_path / "elsewhere")
    assert folder_used(base) == "PermissionError"


def test_a_file_in_its_place_is_refused(base):
    (base / "vantrace").touch(mode=0o600)
    assert folder_used(base) == "PermissionError"


@pytest.mark.skipif(os.geteuid() != 0, reason="only root can give folders away")
def test_a_folder_of_another_user_is_refused(base):
    (base / "vantrace").mkdir(mode=0o700)
    os.chown(base / "vantrace", OTHER_USER, OTHER_USER)
    assert folder_used(base) == "PermissionError"


@pytest.mark.parametrize("spoil", [lambda base: base.chmod(0o755), lambda base: base.rmdir()])
def test_a_session_s_folder_that_is_not_private_is_passed_by(base, spoil):
    spoil(base)
    assert folder_used(base) == f"/tmp/vantrace-{os.getuid()}"


def test_what_a_run_records_meanwhile_is_the_user_s_alone(tmp_path):
    script = tmp_path / "script.py"
    script.write_text(
        """
import os, json
folder = next(entry.path for entry in os.scandir() if entry.name.endswith(".run"))
paths = [folder, *(entry.path for entry in os.scandir(folder))]
print(json.dumps([oct(os.stat(path).st_mode & 0o777) for path in paths]))
""",
        encoding="utf-8",
    )
    done = run_python("-m", "vantrace", "run", "-o", "t.vtrace", script, cwd=tmp_path, umask=0o022)
    assert done.returncode == 0, done.stderr
    folder, *files = json.loads(done.stdout)
    assert folder == "0o700"
    assert files
    # Nobody else reaches a file there, whatever its mode.
    assert stat.S_IMODE((tmp_path / "t.vtrace").stat().st_mode) == 0o644


def test_a_link_where_a_trace_goes_is_followed_and_stays(tmp_path):
    script = tmp_path / "script.py"
    script.write_text("pass", encoding="utf-8")
    (tmp_path / "real").mkdir()
    (tmp_path / "real/own.vtrace").touch()
    (tmp_path / "t.vtrace").symlink_to("real/own.vtrace")
    done = run_python("-m", "vantrace", "run", "-o", "t.vtrace", script, cwd=tmp_path)
    assert done.returncode == 0, done.stderr
    assert (tmp_path / "t.vtrace").is_symlink()
    assert (tmp_path / "real/own.vtrace").stat().st_size > 0


VARIABLES = [
    "VANTRACE_CLIENT",
    "VANTRACE_RUN",
    "VANTRACE_DISABLED",
    "ZANDOR_RUNTIME_DIR",
    "XDG_RUNTIME_DIR",
    "XDG_STATE_HOME",
    "HOME",
    "COLUMNS",
    "NO_COLOR",
    "TERM",
]
VALUES = {
    "empty": b"",
    "absent": b"/absent/\xff\xfe",
    "long": b"/" + b"x" * 100_000,
    "number": b"9" * 5000,
    "terminal": EVIL.encode(),
    "lines": b"/tmp\n{'functions': True, 'x': [[[[\n",
    "file": b"/etc/passwd",
}


@pytest.mark.parametrize("name", VALUES)
def test_a_hostile_environment_harms_no_program(tmp_path, name):
    script = tmp_path / "script.py"
    script.write_text(
        """
import os, subprocess, sys, vantrace
stats = vantrace.host.private("performance.productStats.logEventTime")
with vantrace.event("x", n=1):
    stats("some", "row")
subprocess.run([sys.executable, "-c", "print('child', flush=True)"], check=True)
print("unharmed")
""",
        encoding="utf-8",
    )
    environment = {os.fsencode(key): os.fsencode(value) for key, value in os.environ.items()}
    environment |= {variable.encode(): VALUES[name] for variable in VARIABLES}
    for command in (["-m", "vantrace", "run", "-o", "t.vtrace", script], [script]):
        done = run_python(*command, cwd=tmp_path, env=environment)
        told = [line for line in done.stdout.splitlines() if "statistics are not kept" not in line]
        assert (done.returncode, told) == (0, ["child", "unharmed"]), done.stderr
        assert "Traceback" not in done.stderr
        assert "\x1b" not in done.stderr


def test_an_overlong_folder_of_clients_is_no_other_folder(tmp_path):
    """Cut off it would name one that is there."""
    for length in (248, 249, 255, 256, 300):
        base = tmp_path / str(length)
        base.mkdir()
        long = f"{base}/{'x' * (length - len(str(base)) - 1)}"
        environment = os.environ | {"ZANDOR_RUNTIME_DIR": long}
        done = run_python("-m", "vantrace", "clients", env=environment)
        assert (done.returncode, done.stdout) == (0, "no clients\n")
        assert os.listdir(base) in ([], [os.path.basename(long)])


def test_a_reason_with_a_hostile_path_is_no_command_to_a_terminal(tmp_path):
    in_the_way = tmp_path / EVIL
    in_the_way.touch()
    code = """
import vantrace
vantrace.host.private("performance.productStats.logEventTime")("some", "row")
"""
    done = run_python("-c", code, env=os.environ | {"XDG_STATE_HOME": str(in_the_way)})
    assert "statistics are not kept" in done.stdout
    assert "evil" in done.stdout
    assert not {"\x1b", "\x07"} & set(done.stdout)
