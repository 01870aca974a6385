// The compiled module vantrace._core.
//
//   vantrace/*.py -> _core: methods, namespaces and plug-ins   (zandor::runtime, calls by name)
//                           event, instant, counter,   (zandor::instrument, its C++
//                           Recorder                   interface)
//
// There is one for the life of the process: what it makes at import is never taken down.
#include "console.hpp"
#include "counter.hpp"
#include "die_with_parent.hpp"
#include "errors.hpp"
#include "event.hpp"
#include "event_function.hpp"
#include "gil.hpp"
#include "line_lists.hpp"
#include "method.hpp"
#include "plugin.hpp"
#include "python_api.hpp"
#include "recorder.hpp"
#include "struct_array.hpp"
#include "trace.hpp"
#include "trace_view.hpp"
#include "zandor/instrument/listeners.hpp"
#include "zandor/runtime/array.hpp"

namespace vantrace {

namespace {

PyObject* liveArrayCount(PyObject*, PyObject*) {
    return PyLong_FromSize_t(matrix::liveArrayCount());
}

PyObject* suppressedEvents(PyObject*, PyObject*) {
    return PyLong_FromUnsignedLongLong(instrument::listeners.suppressedEvents());
}

PyMethodDef functions[] = {
    {"instant", asCFunction(emitInstant), METH_FASTCALL | METH_KEYWORDS,
     "instant(name, /, **context)\n--\n\nAn event without duration."},
    {"counter", asCFunction(emitCounter), METH_FASTCALL,
     "counter(name, value, /)\n--\n\nHow large a quantity is from now on: a curve in the trace."},
    {"event_function", newEventFunction, METH_VARARGS, "A function whose calls are events."},
    {"wrapped_function", newWrappedFunction, METH_VARARGS,
     "A function that stands in for a callable, each call of which is an event."},
    {"load", loadPlugin, METH_O, "Loads a plug-in."},
    {"roots", listRoots, METH_NOARGS, "The published root namespaces."},
    {"find_root", findRootNamespace, METH_O, "The root namespace of a name."},
    {"resolve", resolveMethod, METH_O, "The method of a full name, private ones too."},
    {"library_folder", libraryFolder, METH_NOARGS, "Where the host's libraries stand."},
    {"finish_run_folder", finishRunFolder, METH_VARARGS,
     "finish_run_folder(folder, path): makes a trace file of what processes recorded there."},
    {"combine_traces", combineTraces, METH_VARARGS,
     "combine_traces(files, path): joins trace files."},
    {"line_samples", lineSamples, METH_O,
     "What a stream of samples tells: (threads, lines, periods, times)."},
    {"die_with_parent", dieWithParent, METH_O,
     "Has this process be killed when its parent, of that id, ends."},
    {"set_struct_array", setStructArray, METH_O, "Names the class of struct arrays."},
    {"direct_console_to_errors", directConsoleToErrors, METH_NOARGS,
     "Has the host's console written to sys.stderr instead of sys.stdout."},
    {"live_array_count", liveArrayCount, METH_NOARGS, "How many host arrays live now."},
    {"suppressed_events", suppressedEvents, METH_NOARGS,
     "How many events were produced inside listeners, where they are not delivered."},
    {nullptr, nullptr, 0, nullptr},
};

PyModuleDef definition = {
    PyModuleDef_HEAD_INIT, "_core", nullptr, -1, functions, nullptr, nullptr, nullptr, nullptr};

PyObject* makeModule() {
    Ref module = Ref::take(PyModule_Create(&definition));
    addErrors(module.get());
    addMethod(module.get());
    addPlugins(module.get());
    addStructArray(module.get());
    addEvents(module.get());
    addRecorder(module.get());
    addTrace(module.get());
    addTraceView(module.get());
    check(PyModule_AddStringConstant(module.get(), "version", VANTRACE_VERSION));
    awaitSectionsAtExit(module.get());
    installConsoleSink();
    return module.release();
}

}  // namespace

}  // namespace vantrace

PyMODINIT_FUNC PyInit__core() {
    return vantrace::guarded(vantrace::makeModule);
}
