"""The project's script: what it prints, whose output is whose, and whose exit status counts."""

import pathlib
import subprocess

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
DEV = ROOT / "dev"
VERBS = (
    "setup run test test native python vantrace install package bench bench bench check sanitize coverage "
    "fuzz help"
).split()

pytestmark = pytest.mark.unsanitized


def dev(*arguments, cwd=ROOT):
    return subprocess.run([DEV, *arguments], cwd=cwd, capture_output=True, check=False)


@pytest.fixture(name="script")
def fixture_script(tmp_path):
    def write(text):
        path = tmp_path / "script.py"
        path.write_text(text)
        return path

    return write


def test_help_gives_each_form_one_line():
    lines = dev("help").stdout.decode().splitlines()[1:]
    assert [line.split()[0] for line in lines] == VERBS


def test_unknown_verb_is_refused():
    result = dev("dance")
    assert result.returncode == 2
    assert b"no verb named dance" in result.stderr


def test_runs_from_any_folder_and_leaves_it_to_the_script(tmp_path):
    result = dev("python", "-c", "import os, vantrace; print(os.getcwd())", cwd=tmp_path)
    assert result.stdout.decode().rstrip() == str(tmp_path)


def test_children_of_the_interpreter_find_the_package(script):
    parent = script(
        "import subprocess, sys\n"
        "subprocess.run([sys.executable, '-c', 'import vantrace'], check=True)\n"
    )
    assert dev("python", parent).returncode == 0


def test_standard_output_belongs_to_the_script(script, tmp_path):
    noisy = script("import sys; sys.stdout.buffer.write(bytes(range(256)))")
    result = dev("run", "-o", tmp_path / "trace.json", noisy, cwd=tmp_path)
    assert result.stdout == bytes(range(256))


def test_exit_status_is_the_script_s(script, tmp_path):
    failing = script("import sys; sys.exit(7)")
    result = dev("run", "-o", tmp_path / "trace.json", failing, cwd=tmp_path)
    assert result.returncode == 7


def test_options_stop_at_the_script_s_name(script, tmp_path):
    shows = script("import sys; print(sys.argv[1:])")
    result = dev("run", "-o", tmp_path / "trace.json", shows, "-o", "mine", "--", cwd=tmp_path)
    assert result.stdout.decode().strip() == "['-o', 'mine', '--']"


def test_second_run_builds_nothing(script, tmp_path):
    quiet = script("pass")
    dev("run", "-o", tmp_path / "trace.json", quiet, cwd=tmp_path)
    built = (ROOT / "build" / "run.log").stat().st_mtime_ns
    dev("run", "-o", tmp_path / "trace.json", quiet, cwd=tmp_path)
    assert (ROOT / "build" / "run.log").stat().st_mtime_ns == built


def test_fuzz_without_a_number_is_refused():
    assert dev("fuzz", "soon").returncode == 2
