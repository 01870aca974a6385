"""`%%vantrace` in the kernel of a notebook."""

import re
import xml.etree.ElementTree as ElementTree

import pytest

from conftest import run_python
from documents import all_blocks
from notebook_kernel import Kernel

pytestmark = pytest.mark.unsanitized

IS_TRACING = """
import vantrace
def traced():
    pass
with vantrace.record() as probe:
    traced()
probe.events() != [] or vantrace.performance.instrument.controls.wereAllEnabled()
"""


@pytest.fixture(name="kernel", scope="module")
def fixture_kernel(tmp_path_factory):
    kernel = Kernel(tmp_path_factory.mktemp("notebook"))
    yield kernel
    kernel.end()


@pytest.fixture(name="run")
def fixture_run(kernel):
    """Runs a cell; tracing is off after the test."""
    yield kernel.run
    assert kernel.run(IS_TRACING).value == "False"


def number_of(run):
    """The number of the next cell."""
    return int(run("get_ipython().execution_count").value) + 1


def picture_of(page):
    """The flame graph's frames: {name: (row, width in percent)}."""
    svg = re.search(r"<svg .*</svg>", page, re.DOTALL)[0]
    frames = ElementTree.fromstring(svg).findall("{*}svg")
    return {
        frame.find("{*}g/{*}text").text: (int(frame.get("y")), float(frame.get("width")[:-1]))
        for frame in frames
    }


def test_a_cell_shows_table_and_flame_graph(run):
    shown = run(
        "%%vantrace\n"
        "def inner(n):\n    return sum(range(n))\n"
        "def outer():\n    return [inner(1000) for _ in range(10)]\n"
        "outer()\n"
        "outer();"
    )
    assert shown.error is None and shown.value is None
    table = shown.table
    assert (table["__main__.inner"][0], table["__main__.outer"][0]) == ("20", "2")
    text, page = shown.recording
    assert re.match(r"vantrace: [\d.]+ .s wall time, 1 thread, 25 events\n", text)
    frames = picture_of(page)
    rows = [frames[name][0] for name in ("MainThread", "__main__.<module>", "__main__.outer")]
    assert rows == [0, 20, 40]
    assert frames["MainThread"][1] == 100 >= frames["__main__.outer"][1] > 0
    assert re.findall("<td>([^<]*)</td><td>20</td>", page) == ["__main__.inner"]


def test_functions_of_cells_tell_cell_and_line(run):
    first = number_of(run)
    run("\n\ndef elsewhere():\n    pass")
    shown = run("%%vantrace --top 9\n  \n\n# below\ndef here():\n    pass\nhere(); elsewhere()")
    places = {name: cells[-1] for name, cells in shown.table.items()}
    assert places["__main__.elsewhere"] == f"Cell In[{first}]:1"  # as IPython counts
    assert places["__main__.here"] == f"Cell In[{first + 1}]:5"
    assert places["__main__.<module>"] == f"Cell In[{first + 1}]:1"
    assert "ipykernel" not in "".join(shown.recording)


def test_a_cell_that_is_run_again_has_its_new_number(run):
    first = number_of(run)
    for number in (first, first + 1):
        shown = run("%%vantrace\ndef again():\n    pass\nagain()")
        assert shown.table["__main__.again"][-1] == f"Cell In[{number}]:2"


def test_a_line_is_recorded(run):
    run("def half(n):\n    return n / 2")
    shown = run("before = 3\n%vantrace --sort name result = half(before + {1: 1}[1])\nresult")
    assert shown.value == "2.0"
    assert list(shown.table)[1:] == ["__main__.<module>", "__main__.half"]


def test_the_last_value_is_shown_as_without_recording(run):
    assert run("%%vantrace\n1 + 1\n'last'").value == "'last'"
    assert run("%vantrace 6 * 7").value == "42"
    assert run("%%vantrace\n'last';  # said to be silent").value is None
    assert run("%%vantrace\nvalue = 1").value is None
    assert run("[name for name in dir() if 'value_of' in name]").value == "[]"


def test_what_ipython_adds_to_the_language_is_understood(run):
    shown = run("%%vantrace\nfound = !echo shell\n%time found")
    assert shown.value == "['shell']"


def test_names_of_a_cell_stay(run):
    run("%%vantrace\nkept = [1]\ndef made(): return kept")
    assert run("made()").value == "[1]"


FAILING = "def fail(n):\n    return 1 / n\ntry:\n    fail(0)\nexcept ZeroDivisionError:\n    {}['key']"


def test_an_exception_shows_what_was_recorded_and_the_usual_traceback(run):
    shown = run(f"%%vantrace\n{FAILING}")
    assert (shown.status, shown.error) == ("error", "KeyError")
    assert shown.table["__main__.fail"][0] == "1"
    usual = run(f"#%%vantrace \n{FAILING}")
    assert without_numbers(shown.traceback) == without_numbers(usual.traceback)
    assert "run_cell_magic" not in shown.traceback + run("%tb").traceback


def without_numbers(text):
    return re.sub(r"In \[\d+\]", "In []", text)


@pytest.mark.parametrize(
    "code, error, said",
    [
        ("raise SystemExit(3)", "SystemExit", "SystemExit: 3"),
        ("x = = 1", "SyntaxError", "x = = 1"),
        ("raise type('Slots', (Exception,), {'__slots__': ()})", "Slots", "Slots"),
    ],
)
def test_other_ends_are_told_as_ever(run, code, error, said):
    shown = run(f"%%vantrace\n{code}")
    assert said in shown.traceback + shown.printed
    assert shown.error in (error, None)


def test_an_interrupted_cell_shows_what_was_recorded(run):
    shown = run(
        "%%vantrace\n"
        "def step():\n    pass\n"
        "step()\n"
        "print('begun', flush=True)\n"
        "while True:\n    step()",
        interrupt_at="begun",
    )
    assert shown.error == "KeyboardInterrupt"
    assert int(shown.table["__main__.step"][0].replace(",", "")) >= 1
    assert "_notebook.py" not in shown.traceback


def test_a_cell_that_handles_its_interrupt_goes_on(run):
    shown = run(
        "%%vantrace\n"
        "def after():\n    return 'went on'\n"
        "try:\n    print('begun', flush=True)\n    while True: pass\n"
        "except KeyboardInterrupt:\n    answer = after()\n"
        "answer",
        interrupt_at="begun",
    )
    assert (shown.error, shown.value) == (None, "'went on'")
    assert "__main__.after" in shown.table


def test_other_recordings_go_on(run):
    run(
        "import vantrace\n"
        "published = vantrace.performance.instrument.recorder\n"
        "published.start()\n"
        "own = vantrace.record()\n"
        "own.__enter__()\n"
        "vantrace.instant('before')"
    )
    shown = run("%%vantrace --events-only\nwith vantrace.event('during'): pass")
    assert list(shown.table)[1:] == ["during"]
    run(
        "vantrace.instant('after')\n"
        "still = own.is_active, published.isActive()\n"
        "own.__exit__(None, None, None)\n"
        "published.stop()\n"
        "points = published.getAllEventPoints()['name']\n"
        "published.clearAllEventData()"
    )
    assert run("still, [event.name for event in own.events()]").value == (
        "((True, True), ['before', 'during', 'after'])"
    )
    assert run("[str(name) for name in points]").value == "['before', 'during', 'during', 'after']"


def test_a_recording_in_the_cell_is_another_one(run):
    shown = run(
        "%%vantrace --events-only\nimport vantrace\n"
        "with vantrace.record() as inner:\n"
        "    with vantrace.event('one'): pass\n"
        "with vantrace.event('two'): pass\n"
        "[event.name for event in inner.events()]"
    )
    assert shown.value == "['one']"
    assert set(shown.table) >= {"one", "two"}


def test_options_say_what_is_recorded_and_shown(run):
    run("import gc, json, textwrap\ndef wide(): return json.dumps([1])\ndef narrow(): return 1")

    def names(options, code="wide(); narrow()"):
        return list(run(f"%%vantrace {options}\n{code}").table)[1:]

    assert names("--include '*.wide'") == ["__main__.wide"]
    assert "__main__.wide" not in names("--exclude=*.wide")
    assert names("--sort name") == ["__main__.<module>", "__main__.narrow", "__main__.wide"]
    assert len(names("--top 1")) == 1
    assert "json.dumps" in names("--all")
    assert "gc.collect" in names("--c-calls", "gc.collect()")
    assert "garbage collection" in names("--gc --events-only", "gc.collect()")


def test_short_frames_are_left_out_of_the_picture(run):
    shown = run(
        "%%vantrace --min-duration 1s\nimport vantrace\n"
        "def short(): pass\nshort()"
    )
    text, page = shown.recording
    assert "__main__.short" in shown.table
    assert picture_of(page).keys() == {"MainThread"}
    assert "the flame graph leaves out 2 stacks" in text


def test_a_trace_is_written_where_it_was_asked_for(run, tmp_path):
    for ending, begin in ((".vtrace", b"vtrace"), (".json", b'{"'), (".folded", b"MainThread")):
        shown = run(f"%%vantrace -o '{tmp_path}/two words{ending}'\ndef saved(): pass\nsaved()")
        text, _ = shown.recording
        assert text.endswith(f"vantrace: the trace is {tmp_path}/two words{ending}")
        assert (tmp_path / f"two words{ending}").read_bytes().startswith(begin)
    done = run_python("-m", "vantrace", "table", tmp_path / "two words.vtrace")
    assert "__main__.saved" in done.stdout


@pytest.mark.parametrize(
    "cell, complaint",
    [
        ("%%vantrace --odd\n1", "%vantrace has no option '--odd'"),
        ("%%vantrace --repeat 3\n1", "%vantrace has no option '--repeat'"),
        ("%%vantrace --top x\n1", "--top takes a number of rows, not 'x'"),
        ("%%vantrace --top\n1", "--top takes a value"),
        ("%%vantrace -o\n1", "-o takes a file"),
        ("%%vantrace -o a.pdf\n1", "a trace ends in .vtrace"),
        ("%%vantrace -o none/a.json\n1", "cannot write 'none/a.json': No such file"),
        ("%%vantrace 1 + 1\n1", "the code begins below %%vantrace, not with '1 + 1'"),
        ("%%vantrace --include 'a\n1", "a quotation does not end: 'a"),
        ("%vantrace", "%vantrace takes a statement"),
        ("%%vantrace\nimport asyncio\nawait asyncio.sleep(0)", "a cell that awaits is not recorded"),
    ],
)
def test_what_is_asked_wrongly_is_said(run, cell, complaint):
    shown = run(cell)
    assert f"UsageError: {complaint}" in shown.printed
    assert (shown.status, shown.data) == ("error", [])


def test_help_is_there(run):
    assert run("%vantrace --help").printed.startswith("%vantrace [OPTIONS] STATEMENT")


def test_unloading_takes_the_magic_away(kernel):
    kernel.run("%unload_ext vantrace")
    assert "UsageError: Cell magic `%%vantrace` not found" in kernel.run("%%vantrace\n1").printed
    kernel.run("%load_ext vantrace")
    assert kernel.run("%vantrace 1 + 1").value == "2"


def test_importing_vantrace_does_not_import_ipython():
    code = "import vantrace, sys; vantrace.record; print('IPython' in sys.modules)"
    assert run_python("-c", code).stdout == "False\n"


def test_the_cells_of_the_guide_run(run):
    shown = [run(block.code) for block in all_blocks() if block.language == "ipython"]
    assert [cell.status for cell in shown] == ["ok"] * 4
    assert [len(cell.data) for cell in shown] == [0, 1, 1, 1]
    assert shown[1].table["__main__.area"][0] == "100,000"
    assert list(shown[2].table)[1:] == ["__main__.area"]
    assert shown[3].recording[0].endswith("vantrace: the trace is cell.vtrace")
