"""The sum of the test reports fails where a result is bad, missing or silently skipped."""

import pathlib
import subprocess
import sys

import pytest

pytestmark = pytest.mark.unsanitized

ROOT = pathlib.Path(__file__).resolve().parents[2]
REPORT = ROOT / "tools" / "test_report.py"

PASSED = '<testcase name="runtime.A.b" classname="runtime.A.b" status="run"/>'
FAILED = '<testcase name="runtime.A.c" status="fail"><failure message=""/></testcase>'
SKIPPED = '<testcase name="test_it" classname="tests.test_a"><skipped>no disk</skipped></testcase>'
DISABLED = '<testcase name="runtime.A.d" classname="runtime.A.d" status="disabled"/>'


@pytest.fixture(name="report")
def fixture_report(tmp_path):
    def run(*cases, allowed=""):
        skips, report = tmp_path / "skips.txt", tmp_path / "release-native.xml"
        skips.write_text(allowed)
        report.write_text(f"<testsuite>{''.join(cases)}</testsuite>")
        command = [sys.executable, REPORT, skips, report]
        result = subprocess.run(command, capture_output=True, text=True, check=False)
        return result.returncode, result.stdout.splitlines()

    return run


def test_all_passed_is_good(report):
    status, lines = report(PASSED)
    assert status == 0
    assert lines[-1] == "1 passed, 0 failed, 0 skipped"


def test_failure_is_bad_and_named(report):
    status, lines = report(PASSED, FAILED)
    assert status == 1
    assert "release-native: failed: runtime.A.c" in lines
    assert lines[-1] == "1 passed, 1 failed, 0 skipped"


@pytest.mark.parametrize("case", [SKIPPED, DISABLED])
def test_skip_without_reason_on_record_is_bad(report, case):
    status, lines = report(PASSED, case)
    assert status == 1
    assert lines[-1] == "1 passed, 0 failed, 1 skipped"


def test_skip_on_record_is_good(report):
    status, _ = report(PASSED, SKIPPED, allowed="# why\ntests.test_a.test_it: needs a disk\n")
    assert status == 0


def test_record_without_reason_is_refused(report):
    status, _ = report(PASSED, allowed="tests.test_a.test_it\n")
    assert status != 0


def test_report_without_tests_is_bad(report):
    status, lines = report()
    assert status == 1
    assert "release-native: no test ran" in lines
