"""Events that come of the standard library: records of logging, garbage collections."""

import gc
import io
import logging

import pytest

import vantrace
from trace_rules import events_of


@pytest.fixture(name="recorded")
def fixture_recorded(tmp_path):
    """Records a call; gives the trace's events without those that only name threads."""

    def run(body):
        path = tmp_path / "t.json"
        with vantrace.record(path):
            body()
        text = path.read_text(encoding="utf-8")
        return [event for event in events_of(text) if event["ph"] != "M"]

    return run


@pytest.fixture(name="logger")
def fixture_logger():
    logger = logging.getLogger("solver.inner")
    handler = vantrace.LoggingHandler()
    logger.addHandler(handler)
    logger.propagate = False
    yield logger
    logger.removeHandler(handler)
    logger.propagate = True


def test_records_of_logging_are_instants(recorded, logger):
    [event] = recorded(lambda: logger.error("residual %s after %d", 0.5, 3))
    assert (event["ph"], event["name"]) == ("i", "log")
    assert event["args"] == {
        "level": "ERROR",
        "logger": "solver.inner",
        "message": "residual 0.5 after 3",
    }


def test_levels_of_logging_hold(recorded, logger):
    logger.setLevel(logging.WARNING)
    assert recorded(lambda: logger.info("unheard")) == []


def test_a_record_that_cannot_be_formatted_is_logging_s_own_matter(recorded, logger, monkeypatch):
    errors = io.StringIO()
    monkeypatch.setattr("sys.stderr", errors)
    assert recorded(lambda: logger.error("%d", "text")) == []
    assert "--- Logging error ---" in errors.getvalue()


def test_a_record_is_not_formatted_while_nobody_listens(logger):
    class Never:
        def __str__(self):
            raise AssertionError

    logger.error(Never())


def make_garbage():
    first, second = [], []
    first.append(second)
    second.append(first)


def test_garbage_collections_are_events(recorded):
    gc.collect()
    gc.disable()
    try:
        with vantrace.trace_gc():
            make_garbage()
            events = recorded(lambda: (gc.collect(0), gc.collect()))
    finally:
        gc.enable()
    collections = [event for event in events if event["name"] == "garbage collection"]
    assert [event["args"]["generation"] for event in collections] == [0, 2]
    found = [event["args"] for event in events if event["name"] == "garbage found"]
    assert found[0]["collected"] >= 2
    assert found[0]["uncollectable"] == 0


def test_after_the_block_they_are_none(recorded):
    before = list(gc.callbacks)
    with vantrace.trace_gc() as tracing:
        assert len(gc.callbacks) == len(before) + 1
    tracing.stop()
    assert gc.callbacks == before
    assert recorded(gc.collect) == []


def test_an_end_in_the_middle_of_a_collection_ends_the_event(recorded):
    class Ends:
        def __del__(self):
            self.tracing.stop()

    def collect():
        loop = Ends()
        loop.itself, loop.tracing = loop, vantrace.trace_gc()
        del loop
        gc.collect()

    events = recorded(collect)
    assert [event["name"] for event in events if event["ph"] == "X"] == ["garbage collection"]
