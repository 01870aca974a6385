#include "new_threads.hpp"

#include "../src/errors.hpp"
#include "profile.hpp"
#include "tracing.hpp"

namespace vantrace {

namespace {

/// The profile function that a new thread begins with: ours takes its place at the first event.
PyObject* watchThisThread(PyObject*, PyObject* const* arguments, Py_ssize_t count) {
    return guarded([&] {
        if (count != 3 || !PyFrame_Check(arguments[0]) || !PyUnicode_Check(arguments[1]))
            raise(PyExc_TypeError, "a profile function takes a frame, an event and a value");
        const bool isCall = PyUnicode_CompareWithASCIIString(arguments[1], "call") == 0;
        auto* const frame = reinterpret_cast<PyFrameObject*>(arguments[0]);
        watchCallsFrom(PyThreadState_Get(), isCall ? frame : nullptr);
        return Py_NewRef(Py_None);
    });
}

PyMethodDef definition = {"watch_new_thread", asCFunction(watchThisThread), METH_FASTCALL, nullptr};

PyObject* watcher() {
    static PyObject* const function = Ref::take(PyCFunction_New(&definition, nullptr)).release();
    return function;
}

Ref threading() {
    return Ref::take(PyImport_ImportModule("threading"));
}

PyObject* profileOf(const Ref& module) {
    // Threading keeps it for as long as we look.
    return Ref::take(PyObject_CallMethod(module.get(), "getprofile", nullptr)).get();
}

void setProfile(const Ref& module, PyObject* function) {
    Ref::take(PyObject_CallMethod(module.get(), "setprofile", "O", function));
}

}  // namespace

void watchNewThreads() {
    const Ref module = threading();
    if (profileOf(module) == Py_None)
        setProfile(module, watcher());
}

void leaveNewThreads() {
    const Ref module = threading();
    if (profileOf(module) == watcher())
        setProfile(module, Py_None);
}

}  // namespace vantrace
