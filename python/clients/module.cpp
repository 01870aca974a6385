// The compiled module vantrace._clients: collects the events of other processes.
//
// Apart from vantrace._core, since it brings the performance library and what that needs.
#include <chrono>
#include <memory>

#include "../src/errors.hpp"
#include "../src/gil.hpp"
#include "../src/handle_object.hpp"
#include "../src/python_api.hpp"
#include "../src/text.hpp"
#include "zandor/instrument/external_accounts.hpp"
#include "zandor/performance/aggregator.hpp"

namespace vantrace {

using instrument::ExternalAccount;
using instrument::ExternalEventsAggregator;

namespace {

using AggregatorObject = HandleObject<std::unique_ptr<ExternalEventsAggregator>>;

PyObject* create(PyTypeObject* type, PyObject* arguments, PyObject* named) {
    return guarded([&] {
        static const char* names[] = {nullptr};
        if (!PyArg_ParseTupleAndKeywords(arguments, named, ":Aggregator",
                                         const_cast<char**>(names)))
            throw PythonError();
        return AggregatorObject::make(reinterpret_cast<PyObject*>(type),
                                      std::make_unique<ExternalEventsAggregator>())
            .release();
    });
}

PyObject* start(PyObject* self, PyObject* milliseconds) {
    return guarded([&] {
        const long period = PyLong_AsLong(milliseconds);
        if (period == -1 && PyErr_Occurred())
            throw PythonError();
        withoutLock([&] {
            AggregatorObject::of(self)->startCollecting(std::chrono::milliseconds(period));
        });
        return Py_NewRef(Py_None);
    });
}

PyObject* stop(PyObject* self, PyObject*) {
    return guarded([&] {
        withoutLock([&] { AggregatorObject::of(self)->stop(); });
        return Py_NewRef(Py_None);
    });
}

PyMethodDef methods[] = {
    {"start", start, METH_O, "start(milliseconds): lets clients in, and collects that often."},
    {"stop", stop, METH_NOARGS, "Takes in what was published, and lets clients go."},
    {nullptr, nullptr, 0, nullptr},
};

void deallocate(PyObject* self) {
    auto aggregator = std::move(AggregatorObject::of(self));
    withoutLock([&] { aggregator.reset(); });
    AggregatorObject::deallocate(self);
}

PyType_Slot slots[] = {
    {Py_tp_doc, const_cast<char*>("Aggregator()\n--\n\nCollects the events of other processes.")},
    {Py_tp_new, asSlot(create)},
    {Py_tp_dealloc, asSlot(deallocate)},
    {Py_tp_methods, methods},
    {0, nullptr},
};

PyType_Spec spec = {"vantrace._clients.Aggregator", sizeof(AggregatorObject), 0, Py_TPFLAGS_DEFAULT,
                    slots};

Ref dropsOf(const ExternalAccount& account) {
    Ref drops = Ref::take(PyDict_New());
    for (const auto& [cause, count] : account.drops)
        check(PyDict_SetItem(drops.get(), strOf(std::string_view(cause)).get(),
                             Ref::take(PyLong_FromUnsignedLongLong(count)).get()));
    return drops;
}

PyObject* accounts(PyObject*, PyObject*) {
    return guarded([] {
        const auto all = withoutLock([] { return instrument::externalAccounts(); });
        Ref list = Ref::take(PyList_New(0));
        for (const ExternalAccount& account : all)
            check(PyList_Append(
                list.get(),
                Ref::take(Py_BuildValue("(NKKKN)", strOf(std::string_view(account.name)).release(),
                                        static_cast<unsigned long long>(account.processId),
                                        static_cast<unsigned long long>(account.published),
                                        static_cast<unsigned long long>(account.delivered),
                                        dropsOf(account).release()))
                    .get()));
        return list.release();
    });
}

PyMethodDef functions[] = {
    {"accounts", accounts, METH_NOARGS,
     "(name, process id, published, delivered, drops by cause) of each client of this process."},
    {nullptr, nullptr, 0, nullptr},
};

PyModuleDef definition = {
    PyModuleDef_HEAD_INIT, "_clients", nullptr, -1, functions, nullptr, nullptr, nullptr, nullptr};

PyObject* makeModule() {
    shareSections();
    Ref module = Ref::take(PyModule_Create(&definition));
    const Ref type = Ref::take(PyType_FromSpec(&spec));
    check(PyModule_AddObjectRef(module.get(), "Aggregator", type.get()));
    return module.release();
}

}  // namespace

}  // namespace vantrace

PyMODINIT_FUNC PyInit__clients() {
    return vantrace::guarded(vantrace::makeModule);
}
