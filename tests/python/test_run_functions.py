"""`vantrace run` on functions: which of them, and what the table says."""

import os
import pty
import re
import subprocess
import sys

import pytest

from conftest import run_python
from trace_rules import check_trace, events_of

SCRIPT = """
import json, time, vantrace
def fast(): pass
def busy():
    end = time.perf_counter() + 0.01
    while time.perf_counter() < end: pass
def work():
    for _ in range(5): fast()
    busy()
    json.dumps({"a": [1, 2, 3]}, indent=1)
    with vantrace.event("solve"): busy()
work()
"""


HEAD = ("calls", "total", "self", "self %", "p50", "p99", "place")


@pytest.fixture(name="run")
def fixture_run(tmp_path):
    """Runs the script with options; gives the lines on standard error."""
    script = tmp_path / "script.py"
    script.write_text(SCRIPT)

    def run(*options, columns=120):
        environment = os.environ | {"COLUMNS": str(columns)}
        command = ["-m", "vantrace", "run", "-o", "trace.json", *options, script]
        done = run_python(*command, cwd=tmp_path, env=environment)
        assert done.returncode == 0, done.stderr
        return done.stderr.splitlines()

    return run


def rows(lines):
    """{name: other cells} of the table, in its order."""
    table = [re.split(r"  +", line) for line in lines if not line.startswith(("vantrace:", "..."))]
    return {cells[0]: cells[1:] for cells in table[1:]}


def test_each_function_and_event_has_a_row(run):
    found = rows(run())
    assert set(found) == {f"__main__.{n}" for n in ("<module>", "work", "fast", "busy")} | {
        "import",
        "solve",
    }
    assert found["__main__.fast"][0] == "5"
    assert found["__main__.busy"][0] == "2"


def test_functions_have_file_and_line_events_have_none(run):
    found = rows(run())
    assert found["__main__.busy"][-1] == "script.py:4"
    assert not found["solve"][-1].startswith("script")


def test_the_trace_tells_file_and_line_of_functions(run, tmp_path):
    run()
    events = [e for e in events_of((tmp_path / "trace.json").read_text()) if e["ph"] == "X"]
    places = {event["name"]: event.get("args", {}).get("src") for event in events}
    assert places["__main__.busy"] == f"{tmp_path / 'script.py'}:4"
    assert places["solve"] is None


def test_self_times_add_up_to_the_script_s_time(run, tmp_path):
    run()
    events = [e for e in events_of((tmp_path / "trace.json").read_text()) if e["ph"] == "X"]
    assert check_trace((tmp_path / "trace.json").read_text()) == []
    [whole] = [event["dur"] for event in events if event["name"] == "__main__.<module>"]
    [work] = [event["dur"] for event in events if event["name"] == "__main__.work"]
    assert 0 < float(work) <= float(whole)


def test_calls_of_libraries_are_counted(run):
    [notice] = [line for line in run() if "library" in line]
    assert re.fullmatch(
        r"vantrace: [\d,]+ calls of library functions are part of the callers; "
        r"--all tells them apart",
        notice,
    )


def test_the_head_tells_the_share_of_the_widest_names(run):
    [line] = [line for line in run() if "widest" in line]
    match = re.fullmatch(r"vantrace: (\d+) % of it is in the widest 3 of 6 names", line)
    shares = sorted((float(cells[3]) for cells in rows(run()).values()), reverse=True)
    assert abs(int(match[1]) - 100 * sum(shares[:3]) / sum(shares)) < 5


def test_the_head_tells_cpu_time_and_what_tracing_cost(run):
    pattern = r"vantrace: [\d.]+ [mu]?s CPU time, of that about [\d.]+ [mu]?n?s for tracing"
    for options in ([], ["--events-only"]):
        assert re.fullmatch(pattern, run(*options)[1])


def test_libraries_have_their_own_rows_where_asked_for(run):
    lines = run("--all", "--top", "0")
    assert rows(lines)["json.dumps"][0] == "1"
    assert not any("library" in line for line in lines)


def test_only_events(run):
    lines = run("--events-only")
    assert list(rows(lines)) == ["solve"]
    assert "1 thread, 1 event" in lines[0]


@pytest.mark.parametrize(
    ("options", "names"),
    [
        (["--include", "*.busy"], {"__main__.busy", "import", "solve"}),
        (["--include=*.busy", "--exclude=__main__.b*"], {"import", "solve"}),
        (["--include=*.busy", "--include=json.*"], {"__main__.busy", "json.dumps"}),
        (["--exclude", "*"], {"import", "solve"}),
    ],
)
def test_patterns_choose_functions(run, options, names):
    found = rows(run(*options))
    assert names <= set(found)
    assert "__main__.work" not in found


def test_short_events_can_be_left_out_of_the_trace(run, tmp_path):
    lines = run("--min-duration", "5ms")
    names = {e["name"] for e in events_of((tmp_path / "trace.json").read_text()) if e["ph"] == "X"}
    assert names - {"import"} == {"__main__.<module>", "__main__.work", "__main__.busy", "solve"}
    assert rows(lines)["__main__.fast"][0] == "5"


@pytest.mark.parametrize(
    ("key", "first"),
    [("self", "__main__.busy"), ("total", "__main__.<module>"), ("name", "__main__.<module>")],
)
def test_the_table_is_sorted_as_asked(run, key, first):
    # What the script imports takes as long as the disk does.
    assert next(name for name in rows(run("--sort", key)) if name != "import") == first


def test_the_table_sorted_by_calls(run):
    counts = [int(cells[0]) for cells in rows(run("--sort=calls")).values()]
    assert counts == sorted(counts, reverse=True)


def test_the_table_is_as_long_as_asked(run):
    lines = run("--top", "2")
    assert len(rows(lines)) == 2
    assert "... and 4 more names" in lines


@pytest.mark.parametrize(
    ("columns", "last"), [(60, "self %"), (80, "p99"), (100, "place"), (200, "place")]
)
def test_the_table_keeps_to_the_width(run, columns, last):
    table = [line for line in run(columns=columns) if not line.startswith("vantrace:")]
    assert max(map(len, table)) <= columns
    assert table[0].endswith(last)


def test_the_table_tells_typical_durations(run):
    cells = dict(zip(HEAD, rows(run())["__main__.busy"]))
    assert re.fullmatch(r"\d+\.\d ms", cells["p50"])
    assert 9 < float(cells["p50"].split()[0])


def test_little_memory_shortens_the_trace_and_not_the_table(run, tmp_path):
    (tmp_path / "script.py").write_text(
        "def fast(): pass\nfor _ in range(100_000): fast()\nprint('done')"
    )
    lines = run("--max-memory", "1M")
    assert rows(lines)["__main__.fast"][0] == "100,000"
    [notice] = [line for line in lines if "for want of memory" in line]
    assert re.fullmatch(
        r"vantrace: for want of memory [\d,]+ events, the shortest, up to [\d.]+ [nmu]?s, "
        r"are not in the trace; the table counts all",
        notice,
    )


@pytest.mark.parametrize(
    ("arguments", "message"),
    [
        (["--include", "*", "--sort"], "--sort takes a value"),
        (["--min-duration", "5"], "--min-duration takes a time such as 10us or 1.5ms, not '5'"),
        (["--sort", "size"], "--sort takes one of self, total, calls, name, not 'size'"),
        (["--max-memory", "64"], "--max-memory takes a size such as 64M or 2G, not '64'"),
        (["--keep", "all"], "--keep takes one of longest, first, last, not 'all'"),
        (["--top", "-1"], "--top takes a number of rows, not '-1'"),
        (["--alll"], "run has no option '--alll'"),
    ],
)
def test_wrong_options_are_told(tmp_path, arguments, message):
    done = run_python("-m", "vantrace", "run", *arguments, cwd=tmp_path)
    assert (done.returncode, done.stdout) == (2, "")
    assert done.stderr.startswith(f"vantrace: {message}")


def on_terminal(command, environment, folder):
    """What a command writes to standard error when that is a terminal."""
    ours, theirs = pty.openpty()
    with subprocess.Popen(
        command, stderr=theirs, stdout=subprocess.DEVNULL, env=environment, cwd=folder
    ) as process:
        os.close(theirs)
        text = b""
        try:
            while piece := os.read(ours, 65536):
                text += piece
        except OSError:
            pass  # the other end is closed
        os.close(ours)
    assert process.returncode == 0
    return text


@pytest.mark.parametrize(
    ("settings", "coloured"),
    [({"TERM": "xterm"}, True), ({"TERM": "xterm", "NO_COLOR": "1"}, False), ({"TERM": "dumb"}, False)],
)
def test_colours_are_for_terminals(run, tmp_path, settings, coloured):
    assert not any("\x1b" in line for line in run())
    environment = {key: value for key, value in os.environ.items() if key != "NO_COLOR"} | settings
    command = [sys.executable, "-m", "vantrace", "run", "-o", "t.json", tmp_path / "script.py"]
    text = on_terminal(command, environment, tmp_path)
    assert b"__main__.busy" in text
    assert (b"\x1b[1m" in text) == coloured


def test_what_calls_the_command_is_no_part_of_the_script(tmp_path):
    (tmp_path / "command.py").write_text(
        "import sys\nfrom vantrace._cli import console\n"
        "if __name__ == '__main__':\n    sys.exit(console())\n"
    )
    (tmp_path / "script.py").write_text("def f(): pass\nf()\n")
    wide = os.environ | {"COLUMNS": "200"}
    done = run_python("command.py", "run", "-o", "t.json", "script.py", cwd=tmp_path, env=wide)
    assert done.returncode == 0, done.stderr
    [line] = [line for line in done.stderr.splitlines() if line.startswith("__main__.<module>")]
    assert line.split()[1] == "1"
    assert line.split()[2] != "0"
    assert line.split()[-1] == "script.py:1"
