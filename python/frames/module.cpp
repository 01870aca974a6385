// The compiled module vantrace._frames: tracing of Python functions.
//
//   vantrace/_functions.py -> _frames: tracing -> hook, profile -> function
//
// The hook knows one version of the interpreter; there the profile hook takes its place only where
// it has to. There is one module for the life of the process.
#include <string>
#include <vector>

#include "../src/errors.hpp"
#include "../src/python_api.hpp"
#include "../src/text.hpp"
#include "function.hpp"
#include "profile.hpp"
#include "tracing.hpp"

namespace vantrace {

namespace {

std::string textOf(PyObject* str) {
    if (!PyUnicode_Check(str))
        raise(PyExc_TypeError, "a text must be str, not %s", Py_TYPE(str)->tp_name);
    Ref owner;
    return std::string(utf8Of(str, owner));
}

std::vector<std::string> textsOf(PyObject* sequence) {
    const Ref items = Ref::take(PySequence_Tuple(sequence));
    std::vector<std::string> texts;
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(items.get()); ++i)
        texts.push_back(textOf(PyTuple_GET_ITEM(items.get(), i)));
    return texts;
}

PyObject* start(PyObject*, PyObject* arguments, PyObject* named) {
    return guarded([&] {
        static const char* names[] = {
            "own", "libraries", "include", "exclude", "with_libraries", "c_calls", nullptr};
        PyObject* own = nullptr;
        PyObject* libraries = nullptr;
        PyObject* include = nullptr;
        PyObject* exclude = nullptr;
        int withLibraries = 0;
        int withCCalls = 0;
        if (!PyArg_ParseTupleAndKeywords(arguments, named, "UOOOpp:start",
                                         const_cast<char**>(names), &own, &libraries, &include,
                                         &exclude, &withLibraries, &withCCalls))
            throw PythonError();
        startTracing({.include = textsOf(include),
                      .exclude = textsOf(exclude),
                      .libraries = textsOf(libraries),
                      .own = textOf(own),
                      .withLibraries = withLibraries != 0},
                     withCCalls != 0);
        return Py_NewRef(Py_None);
    });
}

PyObject* setBase(PyObject*, PyObject* code) {
    return guarded([&] {
        if (!PyCode_Check(code))
            raise(PyExc_TypeError, "set_base takes a code object, not %s", Py_TYPE(code)->tp_name);
        tracing.base = reinterpret_cast<const PyCodeObject*>(Py_NewRef(code));
        return Py_NewRef(Py_None);
    });
}

PyObject* stop(PyObject*, PyObject*) {
    return guarded([&] {
        stopTracing();
        return Py_NewRef(Py_None);
    });
}

PyObject* report(PyObject*, PyObject*) {
    return Py_BuildValue("{sKsKsKsLsOsOsz}", "collapsed_calls",
                         static_cast<unsigned long long>(tracing.collapsedCalls), "failed_calls",
                         static_cast<unsigned long long>(tracing.failedCalls), "deep_stretches",
                         static_cast<unsigned long long>(tracing.deepStretches), "deep_time",
                         static_cast<long long>(tracing.deepTime), "was_taken_out",
                         tracing.wasTakenOut ? Py_True : Py_False, "had_other_profile",
                         tracing.hadOtherProfile ? Py_True : Py_False, "without_hook",
                         tracing.withoutHook);
}

PyObject* places(PyObject*, PyObject*) {
    return guarded([&] {
        Ref dict = Ref::take(PyDict_New());
        for (const auto& [instrument, place] : sourcePlaces()) {
            const Ref value = Ref::take(
                Py_BuildValue("(Ni)", strOf(std::string_view(place.file)).release(), place.line));
            const Ref name = strOf(std::string_view(instrument->name, instrument->nameLength));
            check(PyDict_SetItem(dict.get(), name.get(), value.get()));
        }
        return dict.release();
    });
}

#if PY_VERSION_HEX < 0x030c0000
constexpr auto recursionLimit = &PyThreadState::recursion_limit;
constexpr auto recursionRemaining = &PyThreadState::recursion_remaining;
#else
constexpr auto recursionLimit = &PyThreadState::py_recursion_limit;
constexpr auto recursionRemaining = &PyThreadState::py_recursion_remaining;
#endif

/// The interpreter counts down from the limit; the frames that are there already were counted.
PyObject* addRecursions(PyObject*, PyObject* number) {
    const int count = _PyLong_AsInt(number);
    if (count == -1 && PyErr_Occurred())
        return nullptr;
    PyThreadState_Get()->*recursionRemaining += count;
    return Py_NewRef(Py_None);
}

PyObject* recursions(PyObject*, PyObject*) {
    const PyThreadState* thread = PyThreadState_Get();
    return PyLong_FromLong(thread->*recursionLimit - thread->*recursionRemaining);
}

PyMethodDef functions[] = {
    {"recursions", recursions, METH_NOARGS, "How deep the calling thread is in calls."},
    {"add_recursions", addRecursions, METH_O,
     "Has the calling thread go so many calls deeper than its limit would let it."},
    {"start", asCFunction(start), METH_VARARGS | METH_KEYWORDS, "Begins to trace functions."},
    {"set_base", setBase, METH_O, "Has the program begin above the frames of this code."},
    {"stop", stop, METH_NOARGS, "Ends it."},
    {"report", report, METH_NOARGS, "What was collapsed or not seen since the latest start."},
    {"places", places, METH_NOARGS, "{name: (file, line)} of the functions recorded so far."},
    {nullptr, nullptr, 0, nullptr},
};

PyModuleDef definition = {
    PyModuleDef_HEAD_INIT, "_frames", nullptr, -1, functions, nullptr, nullptr, nullptr, nullptr};

PyObject* makeModule() {
    Ref module = Ref::take(PyModule_Create(&definition));
    shareSections();
    addProfile(module.get());
    return module.release();
}

}  // namespace

}  // namespace vantrace

PyMODINIT_FUNC PyInit__frames() {
    return vantrace::guarded(vantrace::makeModule);
}
