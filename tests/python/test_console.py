"""What the host prints reaches sys.stdout as it stands at that moment."""

import ctypes
import io
import sys
import threading

import pytest

import vantrace
from conftest import EVENT_PRINTER
from vantrace import _core, performance

pytestmark = pytest.mark.usefixtures("no_leaks")


@pytest.fixture(name="printing")
def fixture_printing(event_printer):
    """A listener prints every event."""
    event_printer.startPrinting()
    return event_printer


class Stream(io.StringIO):
    """Keeps what is written, and does something at each writing."""

    def __init__(self, act=lambda text: None):
        super().__init__()
        self.act = act

    def write(self, text):
        self.act(text)
        return super().write(text)


@pytest.fixture(name="stdout")
def fixture_stdout(monkeypatch):
    """Replaces sys.stdout."""

    def replace(stream):
        monkeypatch.setattr(sys, "stdout", stream)
        return stream

    return replace


def test_a_replaced_stream_gets_the_host_s_lines(printing, stdout):
    first, second = Stream(), Stream()
    stdout(first)
    vantrace.instant("one")
    stdout(second)
    vantrace.instant("two")
    assert first.getvalue() == "INSTANT: one\n"
    assert second.getvalue() == "INSTANT: two\n"


@pytest.mark.parametrize("kind", [ctypes.CDLL, ctypes.PyDLL])
def test_with_and_without_the_interpreter_s_lock(stdout, kind):
    stream = stdout(Stream())
    text = "x" * 5000 + "\n"
    assert kind(EVENT_PRINTER).printText(text.encode()) == len(text)
    assert stream.getvalue() == text


def test_from_a_thread_that_python_does_not_know(stdout):
    """The sink takes the interpreter's lock itself."""
    stream = stdout(Stream())
    libc = ctypes.CDLL(None)
    library = ctypes.CDLL(EVENT_PRINTER)
    thread = ctypes.c_ulong()
    text = ctypes.c_char_p(b"from elsewhere")
    libc.pthread_create(ctypes.byref(thread), None, library.printText, text)
    libc.pthread_join(thread, None)
    assert stream.getvalue() == "from elsewhere"


def test_the_test_framework_captures_it(printing, capsys):
    vantrace.instant("captured")
    assert "INSTANT: captured" in capsys.readouterr().out


def test_text_of_any_characters(printing, stdout):
    stream = stdout(Stream())
    vantrace.instant("gr\xf6\xdfe %s %n \u4e2d \U0001f600")
    assert "gr\xf6\xdfe %s %n \u4e2d \U0001f600" in stream.getvalue()


def test_events_of_the_stream_are_not_delivered(recorder, printing, stdout):
    before = _core.suppressed_events()
    stream = stdout(Stream(lambda text: vantrace.instant("from the stream")))
    vantrace.instant("heard")
    assert recorder.getAllEventPoints()["name"].tolist() == ["heard"]
    assert "from the stream" not in stream.getvalue()
    assert _core.suppressed_events() > before


def test_events_of_the_stream_outside_listeners_are_not_delivered(recorder, event_printer, stdout):
    stdout(Stream(lambda text: vantrace.instant("from the stream")))
    event_printer.printText(b"text")
    vantrace.instant("after")
    assert recorder.getAllEventPoints()["name"].tolist() == ["after"]


def fail(error):
    def act(text):
        raise error

    return act


def test_errors_of_the_stream_are_swallowed(recorder, printing, stdout):
    stdout(Stream(fail(OSError("disk full"))))
    with vantrace.event("heard"):
        pass
    assert recorder.getAllEvents()["name"].tolist() == ["heard"]


@pytest.mark.parametrize("stream", [None, 7, io.TextIOWrapper(io.BytesIO())])
def test_streams_that_cannot_be_written_to(printing, stdout, stream):
    if isinstance(stream, io.TextIOWrapper):
        stream.close()
    stdout(stream)
    vantrace.instant("lost")


def test_a_missing_stream(printing, monkeypatch):
    monkeypatch.delattr(sys, "stdout")
    vantrace.instant("lost")


def test_an_exception_on_its_way_stays(printing, stdout):
    stdout(Stream(fail(OSError("disk full"))))
    with pytest.raises(KeyError, match="mine"):
        with vantrace.event("failing"):
            raise KeyError("mine")


def test_an_interrupt_is_kept_for_later(printing, stdout):
    steps = []
    stream = stdout(Stream(fail(KeyboardInterrupt("now"))))
    with pytest.raises(KeyboardInterrupt, match="now"):
        vantrace.instant("interrupted")
        steps.append("not reached, or just reached")
        for _ in range(10):
            len(steps)
    stream.act = lambda text: None
    vantrace.instant("next")
    assert "next" in stream.getvalue()


def test_a_listener_may_be_removed_while_threads_print(printing, stdout):
    """Neither waits for the other's lock: who removes lets go of the interpreter's."""
    printed, stop = threading.Event(), threading.Event()
    stdout(Stream(lambda text: printed.set()))

    def work():
        while not stop.is_set():
            vantrace.instant("busy")

    thread = threading.Thread(target=work)
    thread.start()
    printed.wait()
    for _ in range(50):
        printing.stopListening()
        printing.startPrinting()
    stop.set()
    thread.join()


def test_a_recorder_may_stop_while_threads_print(printing, stdout):
    printed, stop = threading.Event(), threading.Event()
    stdout(Stream(lambda text: printed.set()))

    def work():
        while not stop.is_set():
            vantrace.instant("busy")

    thread = threading.Thread(target=work)
    thread.start()
    printed.wait()
    for _ in range(50):
        with vantrace.record():
            performance.instrument.recorder.start()
            performance.instrument.recorder.stop()
    stop.set()
    thread.join()


def test_console_output_of_the_host_is_in_order_with_python_s(python):
    out = python(
        f"""
import ctypes, vantrace
library = ctypes.CDLL({str(EVENT_PRINTER)!r})
print("before")
library.printText(b"middle\\n")
print("after")
"""
    )
    assert out == "before\nmiddle\nafter\n"


def test_an_error_of_a_listener_comes_out(recorder, event_printer):
    event_printer.startThrowing()
    with pytest.raises(ValueError, match="no ear for this"):
        vantrace.instant("x")
    with pytest.raises(ValueError, match="no ear for this"):
        with vantrace.event("y"):
            raise AssertionError("entered")
    event_printer.stopListening()
    with pytest.raises(ValueError, match="no ear for this"):
        with vantrace.event("z"):
            event_printer.startThrowing()
    assert recorder.getAllEvents()["name"].tolist() == ["z"]


def test_a_block_s_exception_comes_before_a_listener_s(event_printer):
    with pytest.raises(KeyError, match="mine"):
        with vantrace.event("x"):
            event_printer.startThrowing()
            raise KeyError("mine")


def test_errors_of_a_listener_come_out_of_decorated_functions(recorder, event_printer):
    @vantrace.event("decorated")
    def function(error=None):
        event_printer.startThrowing()
        if error:
            raise error

    with pytest.raises(ValueError, match="no ear for this"):
        function()
    event_printer.stopListening()
    with pytest.raises(KeyError, match="mine"):
        function(KeyError("mine"))
    with pytest.raises(ValueError, match="no ear for this"):
        function()
