"""The package, the plug-in and a user's library in one process see one registry."""

import ctypes

import pytest

import vantrace
from conftest import BUILD
from vantrace import performance

controls = performance.instrument.controls


@pytest.fixture(name="library")
def fixture_library():
    """tests/plugins/named_events.cpp."""
    library = ctypes.CDLL(BUILD / "tests/plugins/named_events.so")
    library.handleOf.restype = ctypes.c_void_p
    return library


def test_a_name_is_the_same_instrument_whoever_registers_it(library):
    vantrace.event("of the package")
    assert controls.has("of the package")
    assert not controls.has("of the library")
    handle = library.handleOf(b"of the library")
    assert controls.has("of the library")
    assert library.handleOf(b"of the library") == handle
    assert library.handleOf(b"of the package") != handle


def test_one_recorder_hears_both(library, recorder):
    with vantrace.event("of the package"):
        library.emitNamedEvents(3)
    names = list(recorder.getAllEvents()["name"])
    assert names == ["of the package", *(f"event of the library {i}" for i in range(3))]


def test_switches_hold_for_both(library, recorder):
    controls.disable("event of the library 1")
    library.emitNamedEvents(3)
    names = list(recorder.getAllEvents()["name"])
    assert names == ["event of the library 0", "event of the library 2"]
