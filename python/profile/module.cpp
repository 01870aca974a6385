// The compiled module vantrace._profile: totals by name that no bound on memory touches.
//
// Apart from vantrace._core, since it brings the performance library and what that needs.
#include <memory>

#include "../src/errors.hpp"
#include "../src/handle_object.hpp"
#include "../src/python_api.hpp"
#include "../src/text.hpp"
#include "zandor/instrument/listeners.hpp"
#include "zandor/performance/profiler.hpp"

namespace vantrace {

using instrument::CallSummary;
using instrument::InstrumentProfiler;

namespace {

struct Profile {
    std::unique_ptr<InstrumentProfiler> profiler;
    bool isActive = false;
};

using ProfilerObject = HandleObject<Profile>;

InstrumentProfiler& profilerOf(PyObject* self) {
    return *ProfilerObject::of(self).profiler;
}

PyObject* create(PyTypeObject* type, PyObject* arguments, PyObject* named) {
    return guarded([&] {
        static const char* names[] = {nullptr};
        if (!PyArg_ParseTupleAndKeywords(arguments, named, ":Profiler", const_cast<char**>(names)))
            throw PythonError();
        return ProfilerObject::make(reinterpret_cast<PyObject*>(type),
                                    {std::make_unique<InstrumentProfiler>()})
            .release();
    });
}

PyObject* start(PyObject* self, PyObject*) {
    return guarded([&] {
        Profile& profile = ProfilerObject::of(self);
        if (profile.isActive)
            return Py_NewRef(Py_None);
        instrument::listeners.add(*profile.profiler);
        profile.isActive = true;
        Py_INCREF(self);  // a profiler that listens is not to go
        return Py_NewRef(Py_None);
    });
}

PyObject* stop(PyObject* self, PyObject*) {
    return guarded([&] {
        Profile& profile = ProfilerObject::of(self);
        if (!profile.isActive)
            return Py_NewRef(Py_None);
        profile.isActive = false;
        withoutLock([&] { instrument::listeners.remove(*profile.profiler); });
        Py_DECREF(self);
        return Py_NewRef(Py_None);
    });
}

PyObject* clear(PyObject* self, PyObject*) {
    return guarded([&] {
        withoutLock([&] { profilerOf(self).clear(); });
        return Py_NewRef(Py_None);
    });
}

Ref rowOf(const CallSummary& stats) {
    return Ref::take(
        Py_BuildValue("(NKLLLLLL)", strOf(std::string_view(stats.name)).release(),
                      static_cast<unsigned long long>(stats.calls),
                      static_cast<long long>(stats.total), static_cast<long long>(stats.self),
                      static_cast<long long>(stats.min), static_cast<long long>(stats.max),
                      static_cast<long long>(stats.p50), static_cast<long long>(stats.p99)));
}

PyObject* summary(PyObject* self, PyObject*) {
    return guarded([&] {
        const auto stats = withoutLock([&] { return profilerOf(self).getSummary(); });
        Ref list = Ref::take(PyList_New(0));
        for (const CallSummary& line : stats)
            check(PyList_Append(list.get(), rowOf(line).get()));
        return list.release();
    });
}

PyObject* lostEvents(PyObject* self, void*) {
    return PyLong_FromUnsignedLongLong(profilerOf(self).lostEvents());
}

PyMethodDef methods[] = {
    {"start", start, METH_NOARGS, "Listens."},
    {"stop", stop, METH_NOARGS, "Listens no more."},
    {"clear", clear, METH_NOARGS, "Begins anew."},
    {"summary", summary, METH_NOARGS,
     "(name, count, total, self, minimum, maximum, median, 99th percentile), in nanoseconds."},
    {nullptr, nullptr, 0, nullptr},
};

PyGetSetDef properties[] = {
    {"lost_events", lostEvents, nullptr, "Events that the system gave no memory for.", nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

/// The profiler's destruction may wait for other threads.
void deallocate(PyObject* self) {
    std::unique_ptr<InstrumentProfiler> profiler = std::move(ProfilerObject::of(self).profiler);
    withoutLock([&] { profiler.reset(); });
    ProfilerObject::deallocate(self);
}

PyType_Slot slots[] = {
    {Py_tp_doc,
     const_cast<char*>("Profiler()\n--\n\nTotals of the events between start and stop.")},
    {Py_tp_new, asSlot(create)},
    {Py_tp_dealloc, asSlot(deallocate)},
    {Py_tp_methods, methods},
    {Py_tp_getset, properties},
    {0, nullptr},
};

PyType_Spec spec = {"vantrace._profile.Profiler", sizeof(ProfilerObject), 0, Py_TPFLAGS_DEFAULT,
                    slots};

PyModuleDef definition = {
    PyModuleDef_HEAD_INIT, "_profile", nullptr, -1, nullptr, nullptr, nullptr, nullptr, nullptr};

PyObject* makeModule() {
    shareSections();
    Ref module = Ref::take(PyModule_Create(&definition));
    const Ref type = Ref::take(PyType_FromSpec(&spec));
    check(PyModule_AddObjectRef(module.get(), "Profiler", type.get()));
    return module.release();
}

}  // namespace

}  // namespace vantrace

PyMODINIT_FUNC PyInit__profile() {
    return vantrace::guarded(vantrace::makeModule);
}
