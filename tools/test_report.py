#!/usr/bin/python3
"""Adds up the results that test runners left in JUnit's XML format.

usage: test_report.py ALLOWED_SKIPS REPORT.xml ...

Fails on a failed test, on a report that is missing or holds no test, and on a skipped test that
ALLOWED_SKIPS does not name. Each line there is the name of a test, a colon with a space, and the
reason; lines that begin with # are comments.
"""

import collections
import pathlib
import sys
import xml.etree.ElementTree as xml

NOT_RUN = {"notrun", "disabled"}


def allowed_skips(path):
    """The names that may be skipped, each with its reason."""
    lines = (line.strip() for line in pathlib.Path(path).read_text().splitlines())
    entries = (line.partition(": ") for line in lines if line and not line.startswith("#"))
    names = {}
    for name, _, reason in entries:
        if not reason:
            raise ValueError(f"{path}: {name} is given no reason")
        names[name] = reason
    return names


def name_of(case):
    """ctest repeats a test's name as its class name; pytest's class name is the module's."""
    name, group = case.get("name"), case.get("classname")
    return name if group in (None, "", name) else f"{group}.{name}"


def outcome_of(case):
    if case.find("failure") is not None or case.find("error") is not None:
        return "failed"
    if case.find("skipped") is not None or case.get("status") in NOT_RUN:
        return "skipped"
    return "passed"


def outcomes(report):
    """(name, outcome) of each test in a report."""
    if not pathlib.Path(report).exists():
        return []
    return [(name_of(case), outcome_of(case)) for case in xml.parse(report).iter("testcase")]


def main(allowed_path, reports):
    allowed = allowed_skips(allowed_path)
    total, bad = collections.Counter(), []
    for report in reports:
        title = pathlib.Path(report).stem
        results = outcomes(report)
        counts = collections.Counter(outcome for _, outcome in results)
        total += counts
        print(f"{title}: {len(results)} tests, {counts['failed']} failed, {counts['skipped']} skipped")
        bad += [] if results else [f"{title}: no test ran"]
        bad += [f"{title}: failed: {name}" for name, outcome in results if outcome == "failed"]
        bad += [
            f"{title}: skipped, and no reason is on record: {name}"
            for name, outcome in results
            if outcome == "skipped" and name not in allowed
        ]
    print("".join(line + "\n" for line in bad), end="")
    print(f"{total['passed']} passed, {total['failed']} failed, {total['skipped']} skipped")
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], sys.argv[2:]))
