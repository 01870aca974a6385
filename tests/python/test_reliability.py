"""docs/reliability.md names tests that exist, with the counts that they run with."""

import re
import subprocess
import sys

import pytest

from conftest import BUILD, ROOT

pytestmark = [
    pytest.mark.unsanitized,
    pytest.mark.skipif(BUILD.name != "release", reason="sanitized builds leave some tests out"),
]

TEXT = (ROOT / "docs/reliability.md").read_text(encoding="utf-8")
ROWS = [
    [cell.strip() for cell in line.strip("|").split("|")]
    for line in TEXT.split("## Promises")[1].split("## ")[0].splitlines()
    if line.startswith("|") and "`" in line
][1:]
LOG = """\
=== setup
=== setup: good after 5 s
=== exports: BAD after 15 s
"""


@pytest.fixture(name="native", scope="module")
def fixture_native():
    """The names of all native tests, without those of their programs."""
    listing = subprocess.run(
        ["ctest", "-N"], cwd=BUILD, check=True, capture_output=True, text=True
    ).stdout
    names = re.findall(r"Test +#\d+: (\S+)", listing)
    return {name.split(".", 1)[-1] for name in names}


@pytest.fixture(name="python", scope="module")
def fixture_python_tests():
    """The names of all Python tests, each with its parameters."""
    listing = subprocess.run(
        [sys.executable, "-m", "pytest", "--collect-only", "-q", "-m", "soak or not soak"],
        cwd=ROOT,
        check=True,
        capture_output=True,
        text=True,
    ).stdout
    return set(re.findall(r"^\S+::(\S+)", listing, re.MULTILINE))


def instances(name, native, python):
    """Of a test, what stands behind its name in each of its instances."""
    if name.startswith("test_"):
        return [re.sub(r"[\[\]]", "", known.removeprefix(name)) for known in python
                if known.split("[")[0] == name]
    pattern = re.compile(rf"(?:(?:\w+/)?\w*\.)?(?:\w+/)?{re.escape(name)}(?:/(.*))?")
    return [match[1] or "" for known in native if (match := pattern.fullmatch(known))]


def test_every_row_is_whole():
    assert len(ROWS) > 70
    for row in ROWS:
        assert len(row) == 6, row
        assert "@" not in row[5] and row[5], row


def test_every_test_is_there(native, python):
    missing = []
    for _, test, *_ in ROWS:
        name = test.strip("`")
        if not instances(name, native, python):
            missing.append(name)
    assert missing == []


def test_counts_of_both_forms_are_those_of_the_tests(native, python):
    for _, test, _, short, soak, _ in ROWS:
        if not soak:
            continue
        counts = " ".join(instances(test.strip("`"), native, python))
        for count in (short, soak):
            assert re.search(rf"(?<!\d){count.replace(',', '')}(?!\d)", counts), (test, count)


def test_every_long_form_is_in_the_table(native, python):
    del python
    named = {row[1].strip("`") for row in ROWS if row[4]}
    long = {re.sub(r"^Soak/|/\d+$", "", name) for name in native if name.startswith("Soak/")}
    assert long - named == set()


def test_the_shares_of_ci_are_made_of_its_output(tmp_path):
    log = tmp_path / "log"
    log.write_text(LOG, encoding="utf-8")
    done = subprocess.run(
        [sys.executable, ROOT / "tools/ci_shares.py", log],
        check=True,
        capture_output=True,
        text=True,
    )
    assert done.stdout.splitlines()[2:] == [
        "| setup | 5 | 25 % |",
        "| exports | 15 | 75 % |",
        "| all | 20 | 100 % |",
    ]
