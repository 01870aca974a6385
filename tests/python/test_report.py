"""`vantrace report`: one page, used in a real browser as a person uses it."""

import json
import re
from decimal import ROUND_HALF_UP, Decimal
from pathlib import Path

import pytest

import vantrace
from conftest import run_python
from driven_page import DrivenBrowser
from recording_texts import ODD_TEXTS

pytestmark = pytest.mark.unsanitized

EVIL = "</script><img src=x onerror=alert(1)>"


def make_report(folder, name="own.vtrace"):
    done = run_python("-m", "vantrace", "report", name, "-o", "report.html", cwd=folder)
    assert (done.returncode, done.stderr) == (0, "vantrace: the report is report.html\n")
    return folder / "report.html"


def spin(rounds):
    for number in range(rounds):
        sum(range(number % 7 * 10))


def march(in_thread):
    """What the report is of: two halves of time, of different names."""
    for number in range(60):
        with vantrace.event("solve", n=number % 3, tol=1e-6):
            with vantrace.event("assemble"):
                spin(30)
            with vantrace.event("iterate"):
                spin(200)
        vantrace.instant("residual", value=1 / (1 + number))
    in_thread(lambda: [late(number) for number in range(60)], name="second worker")


@vantrace.event("late")
def late(number):
    vantrace.instant("tick")
    with vantrace.event("iterate"):
        spin(200)


@pytest.fixture(name="report", scope="module")
def fixture_report(tmp_path_factory):
    """A page, and the recording that it is of."""
    import threading

    def in_thread(work, name):
        thread = threading.Thread(target=work, name=name)
        thread.start()
        thread.join()

    folder = tmp_path_factory.mktemp("report")
    with vantrace.record(folder / "own.vtrace") as recording:
        march(in_thread)
    return make_report(folder), {row.name: row for row in recording.summary()}


@pytest.fixture(name="browser", scope="module")
def fixture_browser():
    browser = DrivenBrowser()
    yield browser
    browser.close()


@pytest.fixture(name="page")
def fixture_page(browser, report):
    """The page, newly opened; it must have met no error and asked for nothing in the end."""
    browser.open(str(report[0]))
    yield browser
    assert browser.seen() == {"errors": [], "messages": [], "requests": []}


def names(page):
    return page.texts("#names tbody .name")


def cell(page, name, column):
    return page.ask(
        f"[...document.querySelectorAll('#names tbody tr')].find((row) => "
        f"row.querySelector('.name')?.dataset.name === {json.dumps(name)})"
        f".querySelector('td.{column}').innerText"
    )


def test_time_by_name_is_that_of_the_recording(page, report):
    _, summary = report
    assert names(page) == sorted(summary, key=lambda name: -summary[name].self)
    for name, row in summary.items():
        assert cell(page, name, "calls") == str(row.count)
        assert cell(page, name, "total") == in_units(row.total)
        assert cell(page, name, "self").split("\n")[0] == in_units(row.self)
        assert cell(page, name, "max") == in_units(row.maximum, 3)


def in_units(nanoseconds, digits=4):
    """As the page rounds it: to the nearer, and upwards from the exact middle."""
    for unit, size in (("s", 1e9), ("ms", 1e6), ("µs", 1e3)):
        value = nanoseconds / size
        if value >= 0.9995:
            last = Decimal(1).scaleb(min(0, len(str(int(value))) - digits))
            return f"{Decimal(value).quantize(last, ROUND_HALF_UP)} {unit}"
    return f"{nanoseconds} ns"


def test_the_head_tells_what_was_recorded(page, report):
    facts = dict(zip(page.texts("#facts dt"), page.texts("#facts dd")))
    assert facts["events"] == "300" and facts["names"] == "4" and facts["instants"] == "120"
    assert facts["threads"] == "2" and "processes" not in facts
    assert page.texts("h1") == ["own.vtrace"]
    assert page.texts("#widest .link") == names(page)


def test_columns_sort(page):
    page.click("th.name button")
    assert names(page) == ["assemble", "iterate", "late", "solve"]
    page.click("th.calls button")
    assert names(page)[0] == "iterate"
    assert page.ask("document.querySelector('th.calls').ariaSort") == "descending"


def test_a_range_of_time_filters_all_but_the_threads(page, report):
    page.drag(".plot", 0.02, 0.35)
    assert "late" not in names(page) and "solve" in names(page)
    assert 0 < int(cell(page, "iterate", "calls")) < report[1]["iterate"].count
    assert "late" not in page.texts(".frame")
    assert [text.split("\n")[0] for text in page.texts(".counter figcaption")] == ["residual", "tick"]
    assert page.texts(".counter small")[1] == "0 times"
    assert re.fullmatch(r"[\d.]+ .s to [\d.]+ .s, [\d.]+ .s long", page.texts("#range")[0])
    page.click("#whole")
    assert cell(page, "iterate", "calls") == "120"


def test_what_is_shown_is_in_the_address(page, browser, report):
    page.drag(".plot", 0.1, 0.3)
    page.fill("#search", "e")
    page.click("th.p99 button")
    page.click('#names .name[data-name="solve"]')
    shown = page.ask("document.querySelector('main').innerText")
    address = page.ask("location.hash")
    browser.open(str(report[0]), {"hash": address})
    assert browser.ask("document.querySelector('main').innerText") == shown
    assert browser.ask("document.querySelector('#search').value") == "e"


@pytest.mark.parametrize(
    "address", ["#from=999&to=0", "#from=x&to=1e9", "#at=99999&sort=odd&by=%00", "#name=%3Cb%3E", "#%%%"]
)
def test_an_address_without_meaning_shows_all(page, browser, report, address):
    browser.open(str(report[0]), {"hash": address})
    assert len(names(page)) == 4
    assert "all " in page.texts("#range")[0]


def test_the_search_box_filters_names_and_marks_frames(page):
    page.press("/")
    page.type("ITER")
    assert names(page) == ["iterate"]
    assert set(page.texts(".frame.found")) == {"iterate"}
    assert page.texts("#found")[0].startswith("1 name with “ITER”, ")
    page.press("Escape")
    assert len(names(page)) == 4


def frames(page):
    return page.ask(
        "[...document.querySelectorAll('.frame')].map((frame) => "
        "[frame.ariaLabel.split(',')[0], Number(frame.ariaLevel), frame.offsetWidth])"
    )


def test_the_flame_graph_shows_who_called_whom(page, report):
    _, summary = report
    found = {(name, level): width for name, level, width in frames(page)}
    assert found.keys() == {
        ("all threads", 1),
        ("solve", 2),
        ("late", 2),
        ("assemble", 3),
        ("iterate", 3),
    }
    whole = sum(row.self for row in summary.values())
    width = found["all threads", 1]
    assert found["solve", 2] == pytest.approx(width * summary["solve"].total / whole, abs=3)
    page.click("#by button[value=thread]")
    assert {name for name, level, _ in frames(page) if level == 1} == {"MainThread", "second worker"}


def test_a_click_fills_the_width_with_a_frame(page):
    page.click(".frame[aria-label^=solve]")
    assert [name for name, *_ in frames(page)][:2] == ["all threads", "solve"]
    assert "late" not in [name for name, *_ in frames(page)]
    assert page.texts("#path .steps") == ["all threads › solve"]
    page.press("Escape")
    assert "late" in [name for name, *_ in frames(page)]


def test_keys_walk_the_flame_graph(page):
    focused = "document.activeElement.ariaLabel.split(',')[0]"
    page.ask("document.querySelector('.frame[tabindex=\"0\"]').focus()")
    page.press("ArrowDown")
    assert page.ask(focused) in ("solve", "late")
    page.press("ArrowDown")
    assert page.ask(focused) in ("assemble", "iterate")
    page.press("ArrowUp")
    before = page.ask(focused)
    page.press("ArrowLeft" if before == "late" else "ArrowRight")
    assert page.ask(focused) in ("solve", "late")
    page.press("Enter")
    assert page.ask("location.hash").startswith("#at=")
    page.press("Escape")
    assert page.ask("location.hash") == ""


def test_keys_move_the_range_of_time(page):
    page.ask("document.querySelector('#timeline').focus()")
    page.press("ArrowLeft")
    assert page.ask("location.hash") == "#to=120"
    page.press("ArrowRight")
    assert page.ask("location.hash") == "#from=5&to=125"
    page.press("Shift+ArrowLeft")
    assert page.ask("location.hash") == "#from=5&to=120"
    page.press("Escape")
    assert page.ask("location.hash") == ""


def test_everything_is_reached_by_the_tab_key(page):
    reached = set()
    for _ in range(40):
        page.press("Tab")
        reached.add(page.ask("document.activeElement.closest('section, header')?.id"))
    assert reached >= {"head", "timeline", "flame", "byname", "contexts"}


def test_a_chosen_name_tells_callers_callees_and_contexts(page):
    page.click('#names .name[data-name="iterate"]')
    assert [text.split("\n")[0] for text in page.texts(".detail .panel:nth-child(2) li")] in (
        ["solve", "late"],
        ["late", "solve"],
    )
    page.click(".detail .panel:nth-child(2) .link")
    assert page.ask("document.querySelector('tr.chosen .name').dataset.name") in ("solve", "late")
    page.click('#widest .link[title="solve"]')
    assert set(page.texts(".detail h3")) == {"durations", "called by", "calls", "by n", "by tol"}
    assert page.texts(".histogram figcaption")[0].count("p") >= 3


def test_time_breaks_down_by_context(page):
    offered = page.ask("[...document.querySelectorAll('#context option')].map((o) => o.value)")
    assert offered == ["solve by n", "solve by tol"]
    rows = page.texts("#breakdown tbody tr")
    assert {tuple(row.split("\t")[:2]) for row in rows} == {("0", "20"), ("1", "20"), ("2", "20")}
    page.select("#context", "solve by tol")
    assert [row.split("\t")[:2] for row in page.texts("#breakdown tbody tr")] == [["1e-06", "60"]]


def test_counters_tell_what_instants_measured_and_counted(page):
    assert page.texts(".counter") == [
        "residual\n60 values · last 0.01667 · 0.01667 to 1",
        "tick\n60 times",
    ]


@pytest.mark.parametrize("look", [{}, {"dark": True}, {"width": 400}])
def test_nothing_is_wider_than_the_window(page, browser, report, look):
    browser.open(str(report[0]), look)
    assert browser.ask("document.documentElement.scrollWidth <= innerWidth")


def test_light_and_dark_follow_the_system(page, browser, report):
    light = page.ask("getComputedStyle(document.body).backgroundColor")
    browser.open(str(report[0]), {"dark": True})
    dark = browser.ask("getComputedStyle(document.body).backgroundColor")
    assert brightness(light) > 200 and brightness(dark) < 60


def brightness(colour):
    return sum(map(int, re.findall(r"\d+", colour)[:3])) / 3


def test_counters_go_by_their_names(browser, tmp_path):
    with vantrace.record(tmp_path / "own.vtrace"):
        for value in (3, 1, 2):
            vantrace.counter("queue", value)
    browser.open(str(make_report(tmp_path)))
    assert browser.texts(".counter") == ["queue\n3 values · last 2 · 1 to 3"]


def test_names_are_never_markup(browser, tmp_path):
    with vantrace.record(tmp_path / "own.vtrace"):
        for text in (EVIL, "<!--", *ODD_TEXTS):
            with vantrace.event(text, **{"<b>": EVIL}):
                vantrace.instant(text, value=2)
    page = make_report(tmp_path)
    assert page.read_text(encoding="utf-8").count("<script") == 2
    browser.open(str(page), {"hash": "#q=" + EVIL})
    assert names(browser) == [EVIL]
    browser.click(f"#names .name[data-name='{EVIL}']")
    assert browser.ask("document.querySelectorAll('img').length") == 0
    assert browser.seen() == {"errors": [], "messages": [], "requests": []}


def test_nothing_runs_or_loads_but_the_page_s_own_script(browser, report):
    browser.open(str(report[0]))
    made = "Object.assign(document.createElement('script'), {text: 'window.x = 1'})"
    browser.ask(f"document.body.append({made})")
    browser.ask("document.body.append(Object.assign(new Image(), {src: 'https://localhost/x.png'}))")
    browser.ask("fetch('https://localhost/').catch(() => {})")
    assert browser.ask("typeof window.x") == "undefined"
    seen = browser.seen()
    assert (seen["requests"], seen["errors"]) == ([], [])
    assert len(seen["messages"]) >= 3
    assert all("Content Security Policy" in text for text in seen["messages"])


def test_a_trace_without_events_is_a_page(browser, tmp_path):
    with vantrace.record(tmp_path / "own.vtrace"):
        pass
    browser.open(str(make_report(tmp_path)))
    assert browser.texts(".frame") == []
    assert browser.texts("#found") == ["0 names"]
    assert browser.seen()["errors"] == []


def test_what_had_not_ended_or_did_not_fit_is_said(browser, tmp_path):
    with vantrace.record(max_bytes=1 << 20) as recording:
        with vantrace.event("open"):
            for _ in range(100_000):
                with vantrace.event("n"):
                    pass
            recording.save(tmp_path / "own.vtrace")
    browser.open(str(make_report(tmp_path)))
    notes = browser.texts("#notes p")
    assert re.match(r"[\d,]+ events did not fit", notes[0])
    assert notes[1].startswith("1 event had not ended")


def test_the_page_does_not_grow_with_the_events(tmp_path):
    sizes = []
    for rounds in (20_000, 200_000):
        with vantrace.record(tmp_path / "own.vtrace"):
            for number in range(rounds):
                with vantrace.event(f"n{number % 5}", i=number):
                    pass
        sizes.append(make_report(tmp_path).stat().st_size)
    assert sizes[1] < 2 * sizes[0]


@pytest.mark.parametrize(
    "arguments, complaint",
    [
        ([], "report takes one file, not 0"),
        (["a", "b"], "report takes one file, not 2"),
        (["missing.vtrace"], "cannot read 'missing.vtrace': No such file"),
        (["a.vtrace", "-o", "a.pdf"], "a report ends in .html, not 'a.pdf'"),
        (["a.vtrace", "-o", "none/a.html"], "cannot write 'none/a.html': No such file"),
        (["--odd", "a.vtrace"], "report has no option '--odd'"),
        (["a.vtrace", "-o"], "-o takes a value"),
    ],
)
def test_what_is_asked_wrongly_is_said(tmp_path, arguments, complaint):
    done = run_python("-m", "vantrace", "report", *arguments, cwd=tmp_path)
    assert (done.returncode, done.stdout) == (2, "")
    assert done.stderr.startswith("vantrace: ") and complaint in done.stderr
    assert list(tmp_path.iterdir()) == []


def test_the_page_lies_beside_the_trace_unless_told(tmp_path):
    with vantrace.record(tmp_path / "own.vtrace"):
        pass
    done = run_python("-m", "vantrace", "report", tmp_path / "own.vtrace")
    assert done.returncode == 0
    assert (tmp_path / "own.html").read_text(encoding="utf-8").startswith("<!doctype html>")


def test_the_page_s_modules_share_a_scope_without_clashes():
    folder = Path(vantrace.__file__).parent / "report"
    defined = []
    for module in folder.glob("*.js"):
        text = module.read_text(encoding="utf-8")
        defined += re.findall(r"^(?:export )?(?:const|let|function|class) (\w+)", text, re.MULTILINE)
    assert len(defined) > 40
    assert sorted(set(defined)) == sorted(defined)


def test_the_commands_of_the_page_about_it_run(tmp_path):
    """In their order; only --fail-if may find that something grew."""
    text = (Path(__file__).parents[2] / "docs/report.md").read_text(encoding="utf-8")
    commands = re.findall(r"^\$ vantrace (.*)$", text, re.MULTILINE)
    assert len(commands) == 10
    (tmp_path / "script.py").write_text("print(sum(map(abs, range(1000))))\n")
    for file in ("run.vtrace", "other.vtrace"):
        run_python("-m", "vantrace", "run", "-o", file, "script.py", cwd=tmp_path, check=True)
    for command in commands:
        done = run_python("-m", "vantrace", *command.split(), cwd=tmp_path)
        assert done.returncode in ((0, 1) if "--fail-if" in command else (0,)), done.stderr
    made = {path.name for path in tmp_path.iterdir()}
    assert made >= {"run.html", "report.html", "before-3.vtrace", "after-1.vtrace", "run.prof"}
