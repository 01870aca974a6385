"""`vantrace export` and `vantrace combine`."""

import gzip
import json
import re
import zlib

import pytest

import vantrace
from conftest import run_python
from trace_rules import check_trace, events_of


@pytest.fixture(name="trace")
def fixture_trace(tmp_path):
    """A trace file, and what the recorder itself wrote as JSON and as stacks."""
    with vantrace.record() as recording:
        for number in range(100):
            with vantrace.event("outer", number=number):
                with vantrace.event("inner"):
                    vantrace.instant("point")
    for name in ("own.vtrace", "direct.json", "direct.folded"):
        recording.save(tmp_path / name)
    return tmp_path / "own.vtrace"


@pytest.fixture(name="command")
def fixture_command(tmp_path):
    def run(*arguments):
        return run_python("-m", "vantrace", *arguments, cwd=tmp_path)

    return run


def exported(command, trace, name, *options):
    done = command("export", trace, "-o", name, *options)
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
    return trace.parent / name


def names(text):
    return sorted(event["name"] for event in events_of(text) if event["ph"] in "Xi")


def test_exports_are_those_of_the_recorder(command, trace):
    folder = trace.parent
    assert exported(command, trace, "a.json").read_text() == (folder / "direct.json").read_text()
    packed = exported(command, trace, "a.json.gz")
    assert gzip.decompress(packed.read_bytes()) == (folder / "direct.json").read_bytes()
    stacks = exported(command, trace, "a.folded").read_text()
    assert stacks == (folder / "direct.folded").read_text()


def test_a_compressed_export_is_one_member(command, trace):
    """Browsers decompress no more than the first."""
    packed = exported(command, trace, "a.json.gz").read_bytes()
    stream = zlib.decompressobj(zlib.MAX_WBITS | 16)
    assert stream.decompress(packed) == (trace.parent / "direct.json").read_bytes()
    assert stream.eof and stream.unused_data == b""


def test_speedscope_profiles_nest(command, trace):
    profile = json.loads(exported(command, trace, "a.speedscope.json").read_text())
    frames = [frame["name"] for frame in profile["shared"]["frames"]]
    (thread,) = profile["profiles"]
    stack, at = [], thread["startValue"]
    for edge in thread["events"]:
        assert edge["at"] >= at
        at = edge["at"]
        if edge["type"] == "O":
            stack.append(edge["frame"])
        else:
            assert stack.pop() == edge["frame"]
    assert stack == [] and at <= thread["endValue"]
    assert sorted(frames) == ["inner", "outer"]
    assert len(thread["events"]) == 400


def test_options_leave_out_the_rest(command, trace):
    everything = ["inner"] * 100 + ["outer"] * 100 + ["point"] * 100
    assert names(exported(command, trace, "all.json").read_text()) == everything
    text = exported(command, trace, "bare.json", "--no-args").read_text()
    assert check_trace(text) == []
    assert not any("number" in event.get("args", {}) for event in events_of(text))
    text = exported(command, trace, "few.json", "--most-per-thread", "7").read_text()
    assert len([name for name in names(text) if name != "point"]) == 7
    text = exported(command, trace, "none.json", "--since=1000s").read_text()
    assert names(text) == []
    text = exported(command, trace, "long.json", "--min-duration", "1000s").read_text()
    assert names(text) == []
    text = exported(command, trace, "early.json", "--until", "0ns").read_text()
    assert names(text) == ["outer"]


def test_a_large_trace_is_split(command, trace):
    exported(command, trace, "part.json", "--split", "8K")
    parts = sorted(trace.parent.glob("part*.json"))
    assert len(parts) > 3
    found = []
    for part in parts:
        assert part.stat().st_size <= 8 << 10
        assert check_trace(part.read_text()) == []
        found += names(part.read_text())
    assert sorted(found) == ["inner"] * 100 + ["outer"] * 100 + ["point"] * 100


def test_files_are_combined(command, trace):
    done = command("combine", trace, trace, "-o", "both.vtrace")
    assert (done.returncode, done.stderr) == (0, "")
    text = exported(command, trace.parent / "both.vtrace", "both.json").read_text()
    assert check_trace(text) == []
    assert names(text).count("outer") == 200


def test_a_truncated_file_is_exported_as_far_as_it_goes(command, trace):
    content = trace.read_bytes()
    trace.write_bytes(content[:-10])
    done = command("export", trace, "-o", "a.json")
    assert done.returncode == 0
    assert done.stderr == f"vantrace: the end of {str(trace)!r} is missing\n"
    assert names((trace.parent / "a.json").read_text()).count("outer") == 100


def test_what_the_recorder_dropped_is_said(command, tmp_path):
    with vantrace.record(max_bytes=1 << 20, keep="longest") as recording:
        for _ in range(100_000):
            with vantrace.event("n"):
                pass
    recording.save(tmp_path / "part.vtrace")
    done = command("export", "part.vtrace", "-o", "a.json")
    assert re.fullmatch(
        r"vantrace: for want of memory [\d,]+ events, the shortest, up to [\d.]+ [nmu]?s, "
        r"are not in the trace\n",
        done.stderr,
    )
    metadata = json.loads((tmp_path / "a.json").read_text())["metadata"]
    assert int(metadata["dropped_shortest"]) == recording.drops()["shortest"]
    assert int(metadata["dropped_shortest_below_ns"]) == recording.drops()["minimum_duration"] > 0


@pytest.mark.parametrize(
    "arguments, complaint",
    [
        (["export"], "export takes one file"),
        (["export", "own.vtrace"], "-o says which file"),
        (["export", "own.vtrace", "-o", "a.txt"], "an export ends in"),
        (["export", "missing", "-o", "a.json"], "cannot read 'missing': No such file"),
        (["export", "direct.json", "-o", "a.json"], "is no trace file"),
        (["export", "own.vtrace", "-o", "nowhere/a.json"], "No such file or directory"),
        (["export", "own.vtrace", "-o", "a.json", "--since", "soon"], "--since takes a time"),
        (["export", "own.vtrace", "-o", "a.json", "--split", "0K"], "--split takes a size"),
        (["export", "own.vtrace", "-o", "a.folded", "--split", "1M"], "only .json"),
        (["export", "own.vtrace", "-o", "a.json", "--most-per-thread", "x"], "takes a number"),
        (["export", "own.vtrace", "-o", "a.json", "--odd"], "export has no option '--odd'"),
        (["combine", "-o", "a.vtrace"], "combine takes files"),
        (["combine", "own.vtrace", "-o", "a.json"], "combine writes a .vtrace file"),
    ],
)
def test_what_is_asked_wrongly_is_said(command, trace, arguments, complaint):
    done = command(*arguments)
    assert (done.returncode, done.stdout) == (2, "")
    assert done.stderr.startswith("vantrace: ") and complaint in done.stderr
    assert done.stderr.count("\n") == 1
    assert not list(trace.parent.glob("a.*"))
