"""Loading and unloading plug-ins; what is left of their objects."""

import os

import pytest

import vantrace
from conftest import EVENT_PRINTER
from vantrace import _core, host, performance

pytestmark = pytest.mark.usefixtures("no_leaks")


def works():
    assert performance.instrument.controls.has("nothing of that name") is False


def test_the_package_s_own_plugin_is_loaded():
    [plugin] = host.plugins()
    assert plugin.is_loaded
    assert os.path.samefile(plugin.path, host.default_plugin())
    assert repr(plugin) == f"<plug-in {plugin.path!r}>"
    assert [root.__name__ for root in host.roots()] == ["performance"]


def test_loading_it_again_changes_nothing():
    before = dir(performance)
    plugin = host.load()
    assert plugin.is_loaded
    assert len(host.plugins()) == 1
    assert dir(performance) == before


@pytest.mark.parametrize("path", ["/nowhere/libmissing.so", "libmissing.so", ""])
def test_an_absent_plugin(path):
    with pytest.raises(vantrace.PluginError) as caught:
        host.load(path)
    assert isinstance(caught.value, ImportError)
    assert "cannot open shared object file" in str(caught.value) or path == ""
    works()


def test_a_file_that_is_no_library(tmp_path):
    file = tmp_path / "libtext.so"
    file.write_text("text")
    with pytest.raises(vantrace.PluginError, match="libtext.so"):
        host.load(file)
    works()


def test_a_plugin_without_entry_point(compile_library):
    library = compile_library("doorless", "int unused;")
    with pytest.raises(vantrace.PluginError, match="no entry point ZDInitialize_doorless"):
        host.load(library)
    assert "libdoorless" not in open("/proc/self/maps", encoding="utf-8").read()
    works()


def test_a_plugin_that_publishes_nothing(compile_library):
    library = compile_library(
        "quiet", "void ZDInitialize_quiet(void) {} void ZDTerminate_quiet(void) {}"
    )
    plugin = host.load(library)
    assert plugin in host.plugins()
    host.unload(library)
    assert not plugin.is_loaded
    assert repr(plugin) == f"<plug-in {str(library)!r}, not loaded>"
    assert "libquiet" not in open("/proc/self/maps", encoding="utf-8").read()
    plugin.unload()
    works()


@pytest.mark.parametrize("path", [7, ["x"], object()])
def test_a_path_is_a_path(path):
    with pytest.raises(TypeError):
        host.load(path)


def test_a_path_with_a_nul():
    with pytest.raises(ValueError):
        host.load("a\0b")


UNLOADED = """
import gc
import vantrace
from vantrace import NotLoadedError, _core, host, performance

def raises(function, *arguments):
    try:
        function(*arguments)
    except NotLoadedError as error:
        assert isinstance(error, RuntimeError)
        assert "plug-in is not loaded" in str(error), error
        return True
    return False

has = performance.instrument.controls.has
recorder = performance.instrument.recorder
recorder.start()
with vantrace.event("x", n=1):
    pass
events = recorder.getAllEvents()
host.unload()
assert host.plugins() == []
assert "libvantrace" not in open("/proc/self/maps").read()
"""


def test_objects_of_an_unloaded_plugin_raise(python):
    out = python(
        UNLOADED
        + """
assert raises(has, "x")
assert raises(recorder.getAllEvents)
assert raises(lambda: performance.utils.getModuleList)
assert raises(lambda: performance.productStats.nothing)
assert raises(dir, performance)
assert raises(lambda: vantrace.performance)
assert raises(host.private, "performance.productStats.logEventTime")
assert not has.is_loaded
print(repr(has), has.__doc__, repr(performance))
"""
    )
    assert out == (
        "<method performance.instrument.controls.has(char) -> logical scalar> "
        "has(char) -> logical scalar <namespace performance>\n"
    )


def test_arrays_outlive_their_plugin(python):
    code = """
assert list(events["name"]) == ["x"] and events["context"][0][0] == {"n": "1"}
del events
gc.collect()
print(_core.live_array_count())
"""
    assert python(UNLOADED + code) == "0\n"


def test_events_after_unloading_go_nowhere(python):
    """The plug-in's recorder was registered when it went."""
    code = """
with vantrace.event("x"):
    vantrace.instant("y")
with vantrace.record() as recording:
    with vantrace.event("own"):
        pass
print([line.name for line in recording.summary()])
"""
    assert python(UNLOADED + code) == "['own']\n"


def test_a_plugin_can_be_loaded_again(python):
    code = """
for _ in range(5):
    host.load()
    from vantrace import performance as again
    assert again.instrument.controls.has("x") is True
    assert again.instrument.recorder.isActive() is False
    assert len(again.instrument.recorder.getAllEvents()) == 0
    assert raises(has, "x")
    host.unload()
    assert raises(again.instrument.controls.has, "x")
print("loaded again")
"""
    assert python(UNLOADED + code) == "loaded again\n"


def test_unloading_waits_for_running_calls(python):
    code = """
import threading
begun, results = threading.Event(), []
def work():
    begun.set()
    while True:
        try:
            results.append(len(performance.instrument.recorder.getAllEvents()))
        except NotLoadedError:
            return
threads = [threading.Thread(target=work) for _ in range(3)]
for thread in threads: thread.start()
begun.wait()
host.unload()
for thread in threads: thread.join()
print("ended")
"""
    head = "import vantrace\nfrom vantrace import NotLoadedError, host, performance\n"
    assert python(head + code) == "ended\n"


def test_unloading_from_inside_a_call_is_refused(python):
    code = f"""
import ctypes, sys
import vantrace
from vantrace import PluginError, host, performance
class Stream:
    def write(self, text):
        try:
            host.unload()
        except PluginError as error:
            said.append(str(error))
said, stdout = [], sys.stdout
ctypes.CDLL({str(EVENT_PRINTER)!r}).startPrinting()
performance.instrument.controls.enable("x")
sys.stdout = Stream()
performance.instrument.instruments.startEvent("x", [])
sys.stdout = stdout
print("from inside" in said[0], performance.instrument.areAnyListenersActive())
"""
    assert python(code) == "True True\n"


def test_a_missing_plugin_of_the_package_s_own_is_told(python, tmp_path):
    code = f"""
import vantrace
from vantrace import PluginError, host
host.default_plugin = lambda: {str(tmp_path / "libvantrace.so")!r}
for _ in range(2):
    try:
        from vantrace import performance
    except PluginError as error:
        print("libvantrace.so" in str(error))
"""
    assert python(code) == "True\nTrue\n"


def test_live_arrays_are_counted():
    before = _core.live_array_count()
    identity = performance.instrument.instruments.startEvent("x", [])
    assert _core.live_array_count() == before + 3
    del identity
    assert _core.live_array_count() == before
