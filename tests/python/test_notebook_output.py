"""What a cell shows: bounded, whatever was recorded, and alive in a browser."""

import json
import re
import xml.etree.ElementTree as ElementTree

import pytest

import vantrace
from driven_page import DrivenBrowser
from recording_texts import ODD_TEXTS
from vantrace._cell_output import bundle
from vantrace._flame_svg import Flame, tree_of
from vantrace._run_options import RunOptions

EVIL = "</script><img src=x onerror=alert(1)>"


def shown(recording, **options):
    """Text and HTML of a recording that lasted a second."""
    chosen = RunOptions()
    vars(chosen).update(options)
    recording.duration = 10**9
    forms = bundle(recording, chosen, None)
    assert sum(len(form.encode()) for form in forms.values()) < 500_000
    return forms["text/plain"], forms["text/html"]


def nested(names):
    """Events inside each other."""
    if names:
        with vantrace.event(names[0]):
            nested(names[1:])


def test_distinct_names_do_not_make_it_grow():
    with vantrace.record(exact=True) as recording:
        for number in range(5_000):
            with vantrace.event("outer"):
                with vantrace.event(f"{number}{'&' * 300}"):
                    pass
    text, page = shown(recording, top=0)
    rows = page.count("<tr>") - 1
    assert 100 < rows < 500
    assert f"<p>... and {5_001 - rows:,} more names</p>" in page
    assert "... and 4,501 more names" in text
    assert re.search(r"the flame graph leaves out [\d,]+ stacks", text)


def test_wide_characters_do_not_make_it_grow():
    with vantrace.record(exact=True) as recording:
        for number in range(2_000):
            with vantrace.event(f"{number}{chr(0x1F600) * 200}"):
                pass
    shown(recording, top=0)


def test_depth_is_bounded_and_said():
    with vantrace.record(exact=True) as recording:
        nested([f"level {number}" for number in range(400)])
    text, page = shown(recording)
    assert int(re.search(r'<svg xmlns="[^"]*" width="100%" height="(\d+)"', page)[1]) == 100 * 20
    assert "the flame graph leaves out 301 stacks, some deeper than 100 calls" in text


def test_what_was_dropped_is_said():
    with vantrace.record(max_bytes=1 << 20, exact=True) as recording:
        for _ in range(100_000):
            with vantrace.event("n"):
                pass
    text, page = shown(recording)
    assert re.search(r"<td>n</td><td>100,000</td>", page)
    assert re.search(r"want of memory [\d,]+ events are not in the trace; the table counts all", text)


def test_nothing_recorded_is_no_picture_and_no_table():
    with vantrace.record(exact=True) as recording:
        pass
    text, page = shown(recording)
    assert text == "vantrace: 1.000 s wall time, 0 threads, 0 events"
    assert "<svg" not in page and "<table" not in page


def tree(*nodes, names="abcdef", threads=("main",)):
    """The nodes of a report's tree, given as (parent, name, calls, self)."""
    roots = [[-1, -1] for _ in threads]
    data = {
        "threads": [["python3", name] for name in threads],
        "names": list(names),
        "tree": roots + [[parent, name, 0, calls, self] for parent, name, calls, self in nodes],
    }
    return tree_of(data)


def frames(flame):
    """[(name, row, left, width, what is told)], as they stand in the picture."""
    found = []
    for frame in ElementTree.fromstring(flame.svg).findall("{*}svg"):
        percents = (float(frame.get(key).removesuffix("%")) for key in ("x", "width"))
        told = frame.find("{*}g/{*}title").text.split("\n")[1]
        found.append((frame.find("{*}g/{*}text").text, int(frame.get("y")) // 20, *percents, told))
    return found


def test_the_widest_stand_on_the_left_below_their_callers():
    picture = frames(Flame(tree((0, 0, 1, 2_000), (0, 1, 4, 1_000), (2, 2, 3, 5_000))))
    assert picture == [
        ("main", 0, 0, 100, "8.000 us, 100.0 %"),
        ("b", 1, 0, 75, "6.000 us, 75.0 %; 1.000 us itself; 4 calls"),
        ("c", 2, 0, 62.5, "5.000 us, 62.5 %; 5.000 us itself; 3 calls"),
        ("a", 1, 75, 25, "2.000 us, 25.0 %; 2.000 us itself; 1 call"),
    ]


def test_stacks_of_several_threads_are_put_together():
    picture = frames(Flame(tree((0, 0, 1, 10), (1, 0, 2, 30), threads=("one", "two"))))
    assert [(name, width, told[-7:]) for name, _, _, width, told in picture] == [
        ("2 threads", 100, "100.0 %"),
        ("a", 100, "3 calls"),
    ]


def test_what_a_report_puts_together_is_one_frame():
    assert [name for name, *_ in frames(Flame(tree((0, -1, 7, 10))))] == ["main", "(others)"]


def test_slivers_are_left_out_and_counted():
    flame = Flame(tree((0, 0, 1, 10**9), (0, 1, 1, 50), (2, 2, 1, 50)))
    assert [name for name, *_ in frames(flame)] == ["main", "a"]
    assert flame.left_out == "the flame graph leaves out 2 stacks"


@pytest.fixture(name="browser", scope="module")
def fixture_browser():
    browser = DrivenBrowser()
    yield browser
    browser.close()


@pytest.fixture(name="page")
def fixture_page(browser, tmp_path):
    """A notebook's page with the outputs of two cells, as a browser has it."""

    def show(*outputs):
        path = tmp_path / "page.html"
        text = f'<!doctype html><html data-ready><meta charset="utf-8">{"".join(outputs)}'
        path.write_text(text, encoding="utf-8")
        browser.open(str(path))
        return browser

    return show


def widths(page):
    """{name: width in pixels} of the frames that can be seen."""
    return dict(
        page.ask(
            "[...document.querySelectorAll('svg svg')].filter((f) => f.style.display !== 'none')"
            ".map((f) => [f.querySelector('text').textContent, f.getBoundingClientRect().width])"
        )
    )


def marked(page):
    return page.ask("[...document.querySelectorAll('.found text')].map((text) => text.textContent)")


def click(page, name):
    page.ask(
        "[...document.querySelectorAll('svg svg text')].find((text) => "
        f"text.textContent === {json.dumps(name)})"
        ".dispatchEvent(new MouseEvent('click', {bubbles: true}))"
    )


@pytest.mark.unsanitized
def test_a_click_fills_the_width_with_a_frame(page):
    with vantrace.record(exact=True) as recording:
        for _ in range(50):
            nested(["left", "inside"])
            nested(["right"])
    seen = page(shown(recording)[1])
    before = widths(seen)
    assert before.keys() == {"MainThread", "left", "inside", "right"}
    click(seen, "inside")
    after = widths(seen)
    assert after.keys() == {"MainThread", "left", "inside"}
    assert set(after.values()) == {before["MainThread"]}
    click(seen, "MainThread")
    assert widths(seen) == before
    seen.fill("input", "IGH")
    assert marked(seen) == ["right"]
    assert seen.seen() == {"errors": [], "messages": [], "requests": []}


@pytest.mark.unsanitized
def test_names_are_never_markup(page):
    with vantrace.record(exact=True) as recording:
        for text in (EVIL, "<!--", "@ID@", *ODD_TEXTS):
            nested([text])
    output = shown(recording)[1]
    assert output.count("<script") == 1
    seen = page(output)
    assert EVIL in widths(seen)
    assert EVIL in seen.texts("td")
    assert seen.ask("document.querySelectorAll('img').length") == 0
    assert seen.seen() == {"errors": [], "messages": [], "requests": []}


@pytest.mark.unsanitized
def test_cells_of_a_page_answer_each_for_itself(page):
    outputs = []
    for name in ("first", "second"):
        with vantrace.record(exact=True) as recording:
            nested(["outer", name])
        outputs.append(shown(recording)[1])
    seen = page(*outputs)
    seen.fill(".vantrace:nth-of-type(2) input", "sec")
    assert marked(seen) == ["second"]
    seen.fill(".vantrace:nth-of-type(1) input", "outer")
    assert marked(seen) == ["outer", "second"]
