"""Native programs that emit before main, from exit handlers and destructors, and on through exit."""

import subprocess

import pytest

from conftest import BUILD


@pytest.mark.unsanitized
@pytest.mark.parametrize("rounds", [20, pytest.param(3000, marks=pytest.mark.soak)])
def test_they_end_well_again_and_again(rounds):
    for _ in range(rounds):
        done = subprocess.run(
            [BUILD / "bin/native_raw_exit_phases"], capture_output=True, timeout=60, check=False
        )
        assert (done.returncode, done.stdout, done.stderr) == (0, b"", b"")
