"""Exports of trace files that are larger than what is in memory at once."""

import json
import threading

import pytest

import vantrace
from conftest import BUILD, run_python
from trace_rules import check_trace, events_of


def record_events(path, count):
    """Two threads with nested events and, now and then, a long one around them."""

    def work():
        outer, inner = vantrace.event("outer"), vantrace.event("inner")
        for number in range(count // 4):
            if number % 1000 == 0:
                vantrace.instant("point", number=number)
            with outer:
                with inner:
                    pass

    with vantrace.record(max_bytes=1 << 30) as recording:
        with vantrace.event("whole"):
            threads = [threading.Thread(target=work) for _ in range(2)]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()
    recording.save(path)
    return recording


MEASURED = """
import sys
from vantrace._cli import main
status = main(sys.argv[1:])
with open("/proc/self/status", encoding="ascii") as facts:
    print(next(line.split()[1] for line in facts if line.startswith("VmHWM:")))
sys.exit(status)
"""


def peak_of(*arguments):
    """The most memory that a command had, in bytes; it must succeed."""
    done = run_python("-c", MEASURED, *arguments)
    assert (done.returncode, done.stderr) == (0, "")
    return int(done.stdout) * 1024


@pytest.fixture(name="recordings", scope="module")
def fixture_recordings(tmp_path_factory):
    """Both so long that the threads' blocks are as large as they become."""
    folder = tmp_path_factory.mktemp("recordings")
    files = folder / "small.vtrace", folder / "large.vtrace"
    for file, count in zip(files, (700_000, 2_400_000)):
        record_events(file, count)
    return files


@pytest.mark.unsanitized  # sanitizers keep what was freed
@pytest.mark.parametrize(
    "name, options",
    [
        ("a.json", []),
        ("a.json.gz", []),
        ("a.folded", []),
        ("a.speedscope.json", []),
        ("part.json", ["--split", "20M"]),
        ("few.json", ["--most-per-thread", "1000", "--no-args"]),
    ],
)
def test_memory_does_not_grow_with_the_events(recordings, tmp_path, name, options):
    small, large = recordings
    assert large.stat().st_size - small.stat().st_size > 48 << 20
    before, peak = (peak_of("export", f, "-o", tmp_path / name, *options) for f in recordings)
    assert peak - before < 12 << 20


@pytest.fixture(name="trace", scope="module")
def fixture_trace(tmp_path_factory):
    folder = tmp_path_factory.mktemp("trace")
    recording = record_events(folder / "own.vtrace", 100_000)
    recording.save(folder / "direct.json")
    return folder / "own.vtrace"


@pytest.fixture(name="everything", scope="module")
def fixture_everything(trace):
    return spans((trace.parent / "direct.json").read_text())


def spans(text):
    """(thread, name, start, end) of the complete events, in nanoseconds."""

    def nanoseconds(value):
        whole, _, part = value.partition(".")
        return int(whole) * 1000 + int(part)

    events = json.loads(text, parse_float=str)["traceEvents"]
    found = []
    for event in events:
        if event["ph"] == "X":
            start = nanoseconds(event["ts"])
            found.append((event["tid"], event["name"], start, start + nanoseconds(event["dur"])))
    return found


def exported(trace, *options):
    output = trace.parent / "out.json"
    peak_of("export", trace, "-o", output, *options)
    text = output.read_text()
    assert check_trace(text) == []
    return text


def test_many_blocks_give_what_the_recorder_gives(trace):
    assert exported(trace) == (trace.parent / "direct.json").read_text()


def test_a_stretch_of_time_has_what_overlaps_it(trace, everything):
    inner = sorted((start, end) for _, name, start, end in everything if name == "inner")
    since, until = inner[len(inner) // 3][0], inner[len(inner) // 2][1]
    found = spans(exported(trace, f"--since={since}ns", f"--until={until}ns"))
    # The origin is shown at a microsecond; an end may be shown a nanosecond early.
    expected = [s for s in everything if s[2] - 1000 <= until and s[3] - 1000 >= since]
    assert abs(len(found) - len(expected)) <= 4
    assert {name for _, name, *_ in found} == {"whole", "outer", "inner"}
    assert len(found) < len(everything) / 2


def test_short_events_are_left_out_and_counted(trace, everything):
    durations = sorted(end - start for *_, start, end in everything)
    middle = durations[len(durations) // 2]
    text = exported(trace, f"--min-duration={middle}ns")
    found = spans(text)
    assert all(end - start >= middle - 1 for *_, start, end in found)
    metadata = json.loads(text)["metadata"]
    assert len(found) + int(metadata["left_out_shorter_than_asked"]) == len(everything)
    assert not any(event["ph"] == "i" for event in events_of(text))


def test_the_longest_of_each_thread_are_kept(trace, everything):
    found = spans(exported(trace, "--most-per-thread=50"))
    for thread in {thread for thread, *_ in everything}:
        of_thread = [s for s in everything if s[0] == thread]
        kept = [s for s in found if s[0] == thread]
        assert len(kept) == min(50, len(of_thread))
        shortest = min(end - start for *_, start, end in kept)
        # An end may be shown a nanosecond early, where another event starts on it.
        longer = {s[:3] for s in of_thread if s[3] - s[2] > shortest + 1}
        assert longer <= {s[:3] for s in kept}


def test_parts_are_valid_and_have_everything(trace, everything):
    output = trace.parent / "part.json"
    peak_of("export", trace, "-o", output, "--split", "1M")
    found = []
    for part in sorted(trace.parent.glob("part*.json")):
        assert part.stat().st_size <= 1 << 20
        text = part.read_text()
        assert check_trace(text) == []
        found += spans(text)
    assert sorted(found) == sorted(everything)
