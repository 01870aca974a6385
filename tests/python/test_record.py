"""vantrace.record: recording a stretch of a program."""

import json
import os
import threading

import pytest

import vantrace
from stack_rules import check_collapsed
from trace_rules import check_trace, events_of
from vantrace import performance

pytestmark = pytest.mark.usefixtures("no_leaks")

controls = performance.instrument.controls
published = performance.instrument.recorder
listening = performance.instrument.areAnyListenersActive


def emit(name="x", **context):
    with vantrace.event(name, **context):
        pass


def recorded(recording):
    return {line.name: line.count for line in recording.summary()}


def lasting(text):
    return [event["name"] for event in events_of(text) if event["ph"] == "X"]


def test_a_block_writes_a_trace(tmp_path):
    path = tmp_path / "trace.json"
    with vantrace.record(path):
        emit("solve", n=3)
        assert not path.exists()
    text = path.read_text(encoding="utf-8")
    assert check_trace(text) == []
    assert lasting(text) == ["solve"]
    assert os.listdir(tmp_path) == ["trace.json"]


def test_a_block_writes_collapsed_stacks(tmp_path):
    path = tmp_path / "stacks.folded"
    with vantrace.record(str(path)):
        with vantrace.event("outer"):
            emit("inner")
    lines = path.read_text(encoding="utf-8").splitlines()
    assert check_collapsed(lines) == []
    assert [line.rsplit(" ", 1)[0] for line in lines] == [
        "MainThread;outer",
        "MainThread;outer;inner",
    ]


def test_an_empty_block_writes_an_empty_trace(tmp_path):
    with vantrace.record(tmp_path / "trace.json"):
        pass
    text = (tmp_path / "trace.json").read_text(encoding="utf-8")
    assert check_trace(text) == []
    assert lasting(text) == []


def test_a_trace_replaces_an_older_one(tmp_path):
    path = tmp_path / "trace.json"
    path.write_text("old")
    with vantrace.record(path):
        emit()
    assert json.loads(path.read_text(encoding="utf-8"))["traceEvents"]


def test_a_block_without_file(tmp_path):
    with vantrace.record() as recording:
        assert recording.is_active
        assert listening()
        emit()
    assert not recording.is_active
    assert not listening()
    assert recorded(recording) == {"x": 1}
    recording.save(tmp_path / "later.json")
    assert (tmp_path / "later.json").exists()


def test_only_what_happens_inside_is_recorded():
    emit("before")
    with vantrace.record() as recording:
        emit("inside")
    emit("after")
    assert recorded(recording) == {"inside": 1}


def test_the_summary_tells_total_and_self_time():
    with vantrace.record() as recording:
        with vantrace.event("outer"):
            for _ in range(3):
                emit("inner")
    summary = {line.name: line for line in recording.summary()}
    outer, inner = summary["outer"], summary["inner"]
    assert (outer.count, inner.count) == (1, 3)
    assert outer.total == outer.minimum == outer.maximum
    assert outer.self == outer.total - inner.total
    assert inner.minimum <= inner.total / 3 <= inner.maximum


def test_the_published_recorder_is_left_alone(recorder):
    emit("published")
    with vantrace.record() as recording:
        emit("both")
    emit("published too")
    assert recorded(recording) == {"both": 1}
    assert recorder.isActive()
    assert recorder.getAllEvents()["name"].tolist() == ["published", "both", "published too"]


def test_blocks_nest():
    with vantrace.record() as outer:
        emit("a")
        with vantrace.record() as inner:
            emit("b")
        emit("c")
    assert recorded(outer) == {"a": 1, "b": 1, "c": 1}
    assert recorded(inner) == {"b": 1}


def test_blocks_overlap():
    first, second = vantrace.record(), vantrace.record()
    first.__enter__()
    emit("a")
    second.__enter__()
    emit("b")
    first.__exit__(None, None, None)
    assert controls.wereAllEnabled()
    emit("c")
    second.__exit__(None, None, None)
    assert not controls.wereAllEnabled()
    assert recorded(first) == {"a": 1, "b": 1}
    assert recorded(second) == {"b": 1, "c": 1}


def test_blocks_of_several_threads_overlap():
    inside, recordings = threading.Barrier(3), {}

    def work(number):
        with vantrace.record() as recording:
            inside.wait()
            emit(f"thread {number}")
            inside.wait()
        recordings[number] = recording

    threads = [threading.Thread(target=work, args=(number,)) for number in range(3)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    everything = {f"thread {number}": 1 for number in range(3)}
    assert [recorded(recordings[number]) for number in range(3)] == [everything] * 3
    assert not controls.wereAllEnabled()


def test_the_switches_are_given_back():
    controls.enable("mine")
    with vantrace.record():
        assert controls.wereAllEnabled()
    assert not controls.wereAllEnabled()
    controls.enableAll()
    controls.disable("noisy")
    with vantrace.record() as recording:
        emit("noisy")
        emit("heard")
    assert controls.wereAllEnabled()
    assert recorded(recording) == {"heard": 1}
    controls.disableAll()


def test_all_threads_are_recorded(in_thread):
    with vantrace.record() as recording:
        in_thread(emit, name="worker 1")
        emit()
        in_thread(emit, name="worker 2")
    assert recording.threads() == ["MainThread", "worker 1", "worker 2"]


def test_a_block_entered_again_goes_on(tmp_path):
    recording = vantrace.record(tmp_path / "trace.json")
    for name in ("a", "b"):
        with recording:
            emit(name)
    assert recorded(recording) == {"a": 1, "b": 1}
    recording.clear()
    assert recorded(recording) == {}


def test_a_block_is_not_entered_twice_at_once():
    with vantrace.record() as recording:
        with pytest.raises(RuntimeError, match="active already"):
            recording.__enter__()
        emit()
    assert recorded(recording) == {"x": 1}
    assert not controls.wereAllEnabled()


def test_an_exception_of_the_block_goes_on_and_the_trace_is_written(tmp_path):
    path = tmp_path / "trace.json"
    with pytest.raises(KeyError, match="mine"):
        with vantrace.record(path):
            emit()
            raise KeyError("mine")
    assert path.exists()
    assert not listening()


@pytest.mark.parametrize("path", ["trace.txt", "trace", "", ".json", "json"])
def test_the_ending_says_how_to_write(path):
    with pytest.raises(ValueError, match=r"\.json or \.folded"):
        vantrace.record(path)


def test_a_path_is_a_path():
    with pytest.raises(TypeError):
        vantrace.record(7)


def test_unwritable_outputs_are_refused_on_entering(tmp_path):
    (tmp_path / "folder.json").mkdir()
    (tmp_path / "file").touch()
    for path, error in (
        ("folder.json", IsADirectoryError),
        ("nowhere/trace.json", FileNotFoundError),
        ("file/trace.json", NotADirectoryError),
    ):
        with pytest.raises(error) as caught:
            with vantrace.record(tmp_path / path):
                raise AssertionError("entered")
        assert caught.value.filename == str(tmp_path / path)
    assert not listening()
    with vantrace.record(tmp_path / "good.json"):
        emit()
    assert sorted(os.listdir(tmp_path)) == ["file", "folder.json", "good.json"]


def test_an_output_that_becomes_unwritable_inside(tmp_path):
    folder = tmp_path / "folder"
    folder.mkdir()
    with pytest.raises(FileNotFoundError) as caught:
        with vantrace.record(folder / "trace.json") as recording:
            emit()
            folder.rmdir()
    assert caught.value.filename == str(folder / "trace.json")
    assert not listening()
    assert recorded(recording) == {"x": 1}
    assert os.listdir(tmp_path) == []


def test_the_block_s_exception_comes_before_the_output_s(tmp_path):
    folder = tmp_path / "folder"
    folder.mkdir()
    with pytest.raises(KeyError) as caught:
        with vantrace.record(folder / "trace.json"):
            folder.rmdir()
            raise KeyError("mine")
    [note] = caught.value.__notes__
    assert "was not written" in note


def test_a_bound_on_memory_drops_and_counts():
    with vantrace.record(max_bytes=1 << 20) as recording:
        for _ in range(100_000):
            emit()
    drops = recording.drops()
    assert drops["refused"] > 0
    assert recorded(recording)["x"] + drops["refused"] == 100_000


@pytest.mark.parametrize("keep", ["last", "longest"])
def test_what_gives_way_can_be_chosen(keep):
    with vantrace.record(max_bytes=1 << 20, keep=keep) as recording:
        for _ in range(100_000):
            emit()
    drops = recording.drops()
    assert drops["refused"] == 0
    assert drops["oldest" if keep == "last" else "shortest"] > 0


@pytest.mark.parametrize("options", [{"keep": "best"}, {"max_bytes": -1}])
def test_bounds_that_make_no_sense(options):
    with pytest.raises(ValueError):
        vantrace.record(**options)


def test_traces_while_threads_go_on(tmp_path):
    """Saving reads a recording that grows."""
    stop = threading.Event()

    def work():
        while not stop.is_set():
            emit()

    thread = threading.Thread(target=work)
    with vantrace.record(max_bytes=2 << 20) as recording:
        thread.start()
        try:
            for number in range(5):
                recording.save(tmp_path / f"{number}.json")
        finally:
            stop.set()
            thread.join()
    for number in range(5):
        assert check_trace((tmp_path / f"{number}.json").read_text(encoding="utf-8")) == []
