// The compiled module vantrace._client: a process whose events another one collects.
//
// Apart from vantrace._core, since most programs are no clients.
#include <memory>
#include <string>
#include <vector>

#include "../src/errors.hpp"
#include "../src/gil.hpp"
#include "../src/handle_object.hpp"
#include "../src/python_api.hpp"
#include "../src/text.hpp"
#include "forwarder.hpp"
#include "hosts.hpp"
#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/listeners.hpp"

namespace vantrace {

namespace {

struct OpenClient {
    zandor_client* client = nullptr;
    std::unique_ptr<Forwarder> forwarder;
    bool wereAllEnabled = false;  ///< before it forwarded
};

using ClientObject = HandleObject<OpenClient>;

zandor_client* clientOf(PyObject* self) {
    return ClientObject::of(self).client;
}

/// A name as the client's interface takes it; `owner` keeps it.
const char* nameFrom(PyObject* text, Ref& owner) {
    const std::string_view name = utf8Of(text, owner);
    if (name.find('\0') != std::string_view::npos)
        raise(PyExc_ValueError, "a text for a client has no NUL inside");
    return name.data();
}

/// A context as the client's interface takes it: the texts of a dictionary's items.
class Context {
  public:
    explicit Context(PyObject* items) {
        PyObject* key = nullptr;
        PyObject* value = nullptr;
        Py_ssize_t place = 0;
        while (items && PyDict_Next(items, &place, &key, &value)) {
            keys_.push_back(keep(key));
            values_.push_back(keep(value));
        }
    }
    const char* const* keys() const noexcept { return keys_.data(); }
    const char* const* values() const noexcept { return values_.data(); }
    std::size_t count() const noexcept { return keys_.size(); }

  private:
    const char* keep(PyObject* object) {
        Ref text = Ref::take(PyObject_Str(object));
        Ref owner;
        const char* characters = nameFrom(text.get(), owner);
        owners_.push_back(std::move(text));
        owners_.push_back(std::move(owner));
        return characters;
    }
    std::vector<Ref> owners_;
    std::vector<const char*> keys_;
    std::vector<const char*> values_;
};

PyObject* create(PyTypeObject* type, PyObject* arguments, PyObject* named) {
    return guarded([&] {
        static const char* names[] = {"name", nullptr};
        PyObject* text = nullptr;
        if (!PyArg_ParseTupleAndKeywords(arguments, named, "U:Client", const_cast<char**>(names),
                                         &text))
            throw PythonError();
        Ref owner;
        const char* const name = nameFrom(text, owner);
        OpenClient open;
        open.client = withoutLock([&] { return zandor_client_open(name); });
        return ClientObject::make(reinterpret_cast<PyObject*>(type), std::move(open)).release();
    });
}

/// What start and instant have in common: a name, and a dictionary as context.
template <class Produce>
PyObject* produce(PyObject* self, PyObject* arguments, Produce make) {
    return guarded([&] {
        PyObject* text = nullptr;
        PyObject* items = nullptr;
        if (!PyArg_ParseTuple(arguments, "U|O!", &text, &PyDict_Type, &items))
            throw PythonError();
        if (!zandor_client_is_wanted(clientOf(self)))
            return Py_NewRef(Py_None);
        Ref owner;
        const char* const name = nameFrom(text, owner);
        const Context context(items);
        return make(name, context);
    });
}

PyObject* start(PyObject* self, PyObject* arguments) {
    return produce(self, arguments, [&](const char* name, const Context& context) {
        const zandor_event event = zandor_client_start(clientOf(self), name, context.keys(),
                                                       context.values(), context.count());
        return event.serial == 0
                   ? Py_NewRef(Py_None)
                   : Ref::take(Py_BuildValue("(KK)", event.serial, event.origin)).release();
    });
}

PyObject* instant(PyObject* self, PyObject* arguments) {
    return produce(self, arguments, [&](const char* name, const Context& context) {
        zandor_client_instant(clientOf(self), name, context.keys(), context.values(),
                              context.count());
        return Py_NewRef(Py_None);
    });
}

PyObject* stop(PyObject* self, PyObject* event) {
    return guarded([&] {
        unsigned long long serial = 0, origin = 0;
        if (event == Py_None)
            return Py_NewRef(Py_None);
        if (!PyArg_ParseTuple(event, "KK:stop", &serial, &origin))
            throw PythonError();
        zandor_client_stop(clientOf(self), {serial, origin});
        return Py_NewRef(Py_None);
    });
}

void closeNow(OpenClient& open) {
    withoutLock([&] {
        if (open.forwarder && !open.wereAllEnabled)
            instrument::controls.enableAll(false);
        open.forwarder.reset();
        zandor_client_close(open.client);
    });
}

PyObject* close(PyObject* self, PyObject*) {
    return guarded([&] {
        closeNow(ClientObject::of(self));
        return Py_NewRef(Py_None);
    });
}

PyObject* forward(PyObject* self, PyObject*) {
    return guarded([&] {
        OpenClient& open = ClientObject::of(self);
        if (!open.forwarder) {
            open.forwarder = std::make_unique<Forwarder>(open.client);
            open.wereAllEnabled = instrument::controls.wereAllEnabled();
            if (!open.wereAllEnabled)
                instrument::controls.enableAll(true);
            instrument::listeners.add(*open.forwarder);
        }
        return Py_NewRef(Py_None);
    });
}

PyObject* isWanted(PyObject* self, void*) {
    return PyBool_FromLong(zandor_client_is_wanted(clientOf(self)));
}

PyObject* nameThread(PyObject*, PyObject* text) {
    return guarded([&] {
        Ref owner;
        zandor_client_name_thread(nameFrom(text, owner));
        return Py_NewRef(Py_None);
    });
}

PyMethodDef methods[] = {
    {"start", start, METH_VARARGS, "start(name, context={}): an event, or None."},
    {"stop", stop, METH_O, "stop(event): ends it; None does nothing."},
    {"instant", instant, METH_VARARGS, "instant(name, context={})"},
    {"forward", forward, METH_NOARGS, "Switches every instrument on, and sends what they produce."},
    {"close", close, METH_NOARGS, "Ends it; what was published stays for aggregators to collect."},
    {nullptr, nullptr, 0, nullptr},
};

PyGetSetDef properties[] = {
    {"is_wanted", isWanted, nullptr, "Whether an aggregator wants events now.", nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

void deallocate(PyObject* self) {
    closeNow(ClientObject::of(self));
    ClientObject::deallocate(self);
}

PyType_Slot slots[] = {
    {Py_tp_doc, const_cast<char*>("Client(name)\n--\n\nA client of that name.")},
    {Py_tp_new, asSlot(create)},
    {Py_tp_dealloc, asSlot(deallocate)},
    {Py_tp_methods, methods},
    {Py_tp_getset, properties},
    {0, nullptr},
};

PyType_Spec spec = {"vantrace._client.Client", sizeof(ClientObject), 0, Py_TPFLAGS_DEFAULT, slots};

PyObject* hosts(PyObject*, PyObject*) {
    return guarded([] {
        const auto reports = withoutLock([] { return askHosts(); });
        Ref list = Ref::take(PyList_New(0));
        for (const HostReport& host : reports)
            for (const auto& client : host.clients)
                check(PyList_Append(
                    list.get(),
                    Ref::take(Py_BuildValue("(KNKKKKK)", host.processId,
                                            strOf(std::string_view(client.name)).release(),
                                            client.processId, client.threads, client.published,
                                            client.delivered, client.dropped))
                        .get()));
        return list.release();
    });
}

PyMethodDef functions[] = {
    {"clients_of_hosts", hosts, METH_NOARGS,
     "(host's process id, name, process id, threads, published, delivered, dropped) of each client "
     "of this user's hosts."},
    {"name_thread", nameThread, METH_O,
     "name_thread(name): the calling thread's name in what it publishes from its first event on."},
    {nullptr, nullptr, 0, nullptr},
};

PyModuleDef definition = {
    PyModuleDef_HEAD_INIT, "_client", nullptr, -1, functions, nullptr, nullptr, nullptr, nullptr};

PyObject* makeModule() {
    shareSections();
    Ref module = Ref::take(PyModule_Create(&definition));
    const Ref type = Ref::take(PyType_FromSpec(&spec));
    check(PyModule_AddObjectRef(module.get(), "Client", type.get()));
    return module.release();
}

}  // namespace

}  // namespace vantrace

PyMODINIT_FUNC PyInit__client() {
    return vantrace::guarded(vantrace::makeModule);
}
