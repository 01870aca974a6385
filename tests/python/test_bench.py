"""The benchmarks' table of rows, what is made of figures, and the pages that show them."""

import json
import pathlib
import re
import sys

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
BENCH = ROOT / "bench"
sys.path.insert(0, str(BENCH))

import bench  # noqa: E402
import figures  # noqa: E402
import growth  # noqa: E402
import instructions  # noqa: E402
import pages  # noqa: E402
import programs  # noqa: E402
from rows import ROWS, SECTIONS, Above, AtMost, Row, Times  # noqa: E402

pytestmark = pytest.mark.unsanitized

NEEDED = sorted(
    {text for row in ROWS for text in (row.value, row.floor, *row.peers.values()) if text}
)


def native_benchmarks(folder):
    """Names that the sources register, with the numbers of threads."""
    text = "".join(path.read_text() for path in folder.glob("*.cpp"))
    plain = set(re.findall(r"^BENCHMARK\((\w+)\)", text, re.MULTILINE))
    return plain | set(re.findall(r'->Name\("(\w+)"\)', text))


def test_names_of_rows_are_distinct():
    assert len({row.name for row in ROWS}) == len(ROWS)


@pytest.mark.parametrize("program, folder", [("native", "native"), ("lttng", "peers")])
def test_rows_ask_for_the_native_measurements_that_there_are(program, folder):
    asked = {text.split(" ")[1] for text in NEEDED if text.startswith(program + " ")}
    names = {re.split("[#/]", name)[0] for name in asked}
    assert names == native_benchmarks(BENCH / folder)


def test_each_row_has_a_program():
    known = programs.programs(pathlib.Path("build"))
    assert {text.split(" ")[0] for text in NEEDED} == set(known)


def test_targets_hold_what_they_say():
    assert Times(1.5).is_met(15, 10) and not Times(1.5).is_met(15.1, 10)
    assert AtMost(5).is_met(5, None) and not AtMost(5).is_met(5.1, None)
    assert Above(5).is_met(15, 10) and not Above(5).is_met(15.1, 10)


class FakeProgram:
    """Gives the samples that it has by name, a round each; none is an absent program."""

    def __init__(self, rounds):
        self.rounds = rounds

    def samples(self, names, count):
        if self.rounds is None:
            raise programs.Absent
        return {name: [self.rounds[name].pop(0)] for name in names}


def runner_of(**rounds):
    runner = bench.Runner(pathlib.Path("build"))
    runner.programs = {name: FakeProgram(samples) for name, samples in rounds.items()}
    return runner


ROW = Row("row", "ours a", "ours b", "the least", Times(1.5), peers={"them": "theirs c"})


def test_a_figure_is_of_medians_and_tells_whether_its_target_is_met():
    runner = runner_of(ours={"a": [30, 10, 14], "b": [10, 90, 1]}, theirs={"c": [7, 8, 9]})
    assert runner.figure("section", ROW) == {
        "row": "row",
        "section": "section",
        "value": 14,
        "unit": "ns",
        "floor": 10,
        "floor_name": "the least",
        "ratio": 1.4,
        "target": "<= 1.5 x",
        "met": True,
        "peers": {"them": 8},
    }


def test_a_target_that_is_missed_is_not_met():
    runner = runner_of(ours={"a": [16] * 3, "b": [10] * 3}, theirs={"c": [1] * 3})
    assert runner.figure("section", ROW)["met"] is False


def test_an_absent_peer_is_named_as_absent():
    runner = runner_of(ours={"a": [10] * 3, "b": [10] * 3}, theirs=None)
    figure = runner.figure("section", ROW)
    assert figure["peers"] == {"them": None}
    assert "[them absent]" in figures.line(figure)


def test_figures_survive_a_file_and_forget_rows_that_are_gone(tmp_path):
    path = tmp_path / "new" / "bench.json"
    runner = runner_of(ours={"a": [1] * 3, "b": [1] * 3}, theirs=None)
    kept = {ROWS[1].name: runner.figure("s", ROW) | {"row": ROWS[1].name}}
    figures.save(path, kept)
    assert figures.load(path) == kept
    path.write_text(json.dumps([{"row": "of old"}]))
    assert figures.load(path) == {}


def test_an_interrupted_run_goes_on_with_what_is_missing():
    first, *others = SECTIONS["From Python"]
    options = bench.parse(["build", "--missing", "from python:"])
    kept = {row.name: {} for row in others}
    assert list(bench.selected(options, kept)) == [("From Python", first)]


def test_content_goes_between_its_marks_and_nowhere_else():
    text = "a\n<!-- x -->\nold\n<!-- end of x -->\nb\n"
    changed = pages.replaced(text, "x", "new \\1\n")
    assert changed == "a\n<!-- x -->\nnew \\1\n<!-- end of x -->\nb\n"
    with pytest.raises(ValueError, match="no place for y"):
        pages.replaced(text, "y", "new")


def tables(page):
    """The cells of each table's lines, without their heads."""
    text = (ROOT / page).read_text()
    for found in re.findall(r"(?:^\|.*\|\n)+", text, re.MULTILINE):
        yield [[cell.strip() for cell in line.strip("|").split("|")] for line in found.splitlines()]


def test_the_page_of_costs_has_every_row_with_a_figure():
    lines = [line for table in tables("docs/cost.md") if table[0][0] == "row" for line in table[2:]]
    assert [line[0] for line in lines] == [row.name for row in ROWS]
    for name, value, _, _, target, met in lines:
        assert re.fullmatch(r"-?[\d,.]+ (ns|us|ms|bytes|MB|%)", value), name
        assert bool(target) == bool(met), name


def test_the_page_of_costs_names_the_machine():
    machine = next(table for table in tables("docs/cost.md") if table[0][0] == "machine")
    assert {"processor", "clock source", "invariant TSC"} <= {line[0] for line in machine}


def test_the_readme_shows_the_foremost_rows_with_the_same_figures():
    assert set(pages.FOREMOST) <= {row.name for row in ROWS}
    values = {line[0]: line[1] for table in tables("docs/cost.md") for line in table}
    shown = next(table for table in tables("README.md") if table[0][1] == "figure")[2:]
    assert {line[0]: line[1] for line in shown} == {name: values[name] for name in pages.FOREMOST}


def test_more_instructions_than_were_kept_are_told_beyond_a_margin():
    assert instructions.verdict(110, 100) is None
    assert instructions.verdict(50, 100) is None
    assert "more than the 100" in instructions.verdict(112, 100)
    assert "not kept" in instructions.verdict(1, None)


def test_sizes_of_the_picture_grow_by_threes():
    assert list(growth.sizes(10, 1000)) == [10, 30, 100, 300, 1000]
