#include "event_function.hpp"

#include <structmember.h>

#include <cstddef>

#include "errors.hpp"
#include "event.hpp"
#include "kept_error.hpp"
#include "open_event.hpp"

namespace vantrace {

using instrument::ContextArgs;
using instrument::EventId;

namespace {

struct EventFunctionObject {
    PyObject_HEAD vectorcallfunc call;
    const instrument::Opaque* plain;  ///< the event's instrument; null where it has a context
    PyObject* event;
    PyObject* function;
    PyObject* attributes;  ///< __dict__
    PyObject* weakReferences;
};

// Immortal, as the module is.
PyObject* functionType = nullptr;
PyObject* wrappedType = nullptr;

EventFunctionObject& functionOf(PyObject* self) noexcept {
    return *reinterpret_cast<EventFunctionObject*>(self);
}

/// Ends the event of a function that raised an exception, which is the one to hear about.
[[gnu::noinline]] void stopFailed(const instrument::Opaque* instrument, ContextArgs context,
                                  EventId id) {
    const KeptError error;
    guardedStatus([&] { stopEvent(instrument, context, id); });
}

[[gnu::always_inline]] inline PyObject* callInside(PyObject* function, PyObject* const* arguments,
                                                   std::size_t countAndFlag, PyObject* names) {
    return intoPython(
        [&] { return PyObject_Vectorcall(function, arguments, countAndFlag, names); });
}

// Where these give null, the exception is set, as where something throws.

[[gnu::noinline]] PyObject* callWithContext(const EventFunctionObject& function,
                                            PyObject* const* arguments, std::size_t countAndFlag,
                                            PyObject* names) {
    const EventParts event = partsOf(function.event);
    const CallContext given(event.values, event.names);
    const EventId id = startEvent(event.instrument, given.args());
    Ref result = Ref::steal(callInside(function.function, arguments, countAndFlag, names));
    if (result)
        stopEvent(event.instrument, given.args(), id);
    else
        stopFailed(event.instrument, given.args(), id);
    return result.release();
}

PyObject* callPlainly(const EventFunctionObject& function, PyObject* const* arguments,
                      std::size_t countAndFlag, PyObject* names) {
    const EventId id = startEvent(function.plain);
    Ref result = Ref::steal(callInside(function.function, arguments, countAndFlag, names));
    if (!result) [[unlikely]]
        stopFailed(function.plain, {}, id);
    else if (id.sourceId != 0)
        instrument::stopPlain(function.plain, id);
    return result.release();
}

PyObject* call(PyObject* self, PyObject* const* arguments, std::size_t countAndFlag,
               PyObject* names) {
    const EventFunctionObject& function = functionOf(self);
    if (!instrument::listeners.anyActive())
        return PyObject_Vectorcall(function.function, arguments, countAndFlag, names);
    return guarded([&] {
        return function.plain ? callPlainly(function, arguments, countAndFlag, names)
                              : callWithContext(function, arguments, countAndFlag, names);
    });
}

PyObject* get(PyObject* self, PyObject* instance, PyObject*) {
    return instance ? PyMethod_New(self, instance) : Py_NewRef(self);
}

/// As a method where the function itself would become one: native functions do not.
PyObject* getWrapped(PyObject* self, PyObject* instance, PyObject* type) {
    const bool binds = Py_TYPE(functionOf(self).function)->tp_descr_get != nullptr;
    return binds ? get(self, instance, type) : Py_NewRef(self);
}

/// What the wrapper does not have is the function's: a ufunc's methods, for one.
PyObject* attributeOfWrapped(PyObject* self, PyObject* name) {
    PyObject* own = PyObject_GenericGetAttr(self, name);
    if (own || !PyErr_ExceptionMatches(PyExc_AttributeError))
        return own;
    PyErr_Clear();
    return PyObject_GetAttr(functionOf(self).function, name);
}

/// Whoever asks isinstance() sees the function's own type.
PyObject* classOfWrapped(PyObject* self, void*) {
    return Py_NewRef(reinterpret_cast<PyObject*>(Py_TYPE(functionOf(self).function)));
}

/// As its function compares: a table that has that as a key serves the wrapper, too.
PyObject* compareWrapped(PyObject* self, PyObject* other, int operation) {
    if (operation != Py_EQ && operation != Py_NE)
        return Py_NewRef(Py_NotImplemented);
    return PyObject_RichCompare(functionOf(self).function, other, operation);
}

Py_hash_t hashWrapped(PyObject* self) {
    return PyObject_Hash(functionOf(self).function);
}

PyObject* reduceWrapped(PyObject* self, PyObject*) {
    return guarded([&] {
        const Ref module = Ref::take(PyImport_ImportModule("vantrace._wrap"));
        return Ref::take(PyObject_CallMethod(module.get(), "reduced", "O", self)).release();
    });
}

int traverse(PyObject* self, visitproc visit, void* arg) {
    EventFunctionObject& function = functionOf(self);
    Py_VISIT(Py_TYPE(self));
    Py_VISIT(function.event);
    Py_VISIT(function.function);
    Py_VISIT(function.attributes);
    return 0;
}

int clear(PyObject* self) {
    EventFunctionObject& function = functionOf(self);
    Py_CLEAR(function.attributes);
    return 0;
}

void deallocate(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    EventFunctionObject& function = functionOf(self);
    PyObject_GC_UnTrack(self);
    if (function.weakReferences)
        PyObject_ClearWeakRefs(self);
    Py_XDECREF(function.event);
    Py_XDECREF(function.function);
    Py_XDECREF(function.attributes);
    type->tp_free(self);
    Py_DECREF(type);
}

PyObject* repr(PyObject* self) {
    return PyUnicode_FromFormat("<%R of %R>", functionOf(self).event, functionOf(self).function);
}

/// Pickled and copied by its name, as functions are.
PyObject* reduce(PyObject* self, PyObject*) {
    return PyObject_GetAttrString(self, "__qualname__");
}

PyMethodDef methods[] = {
    {"__reduce__", reduce, METH_NOARGS, nullptr},
    {nullptr, nullptr, 0, nullptr},
};

PyMemberDef members[] = {
    {"__vectorcalloffset__", T_PYSSIZET, offsetof(EventFunctionObject, call), READONLY, nullptr},
    {"__dictoffset__", T_PYSSIZET, offsetof(EventFunctionObject, attributes), READONLY, nullptr},
    {"__weaklistoffset__", T_PYSSIZET, offsetof(EventFunctionObject, weakReferences), READONLY,
     nullptr},
    {nullptr, 0, 0, 0, nullptr},
};

PyGetSetDef properties[] = {
    {"__dict__", PyObject_GenericGetDict, PyObject_GenericSetDict, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyType_Slot slots[] = {
    {Py_tp_dealloc, asSlot(deallocate)},
    {Py_tp_traverse, asSlot(traverse)},
    {Py_tp_clear, asSlot(clear)},
    {Py_tp_repr, asSlot(repr)},
    {Py_tp_call, asSlot(PyVectorcall_Call)},
    {Py_tp_descr_get, asSlot(get)},
    {Py_tp_methods, methods},
    {Py_tp_members, members},
    {Py_tp_getset, properties},
    {0, nullptr},
};

PyType_Spec spec = {"vantrace._core.EventFunction", sizeof(EventFunctionObject), 0,
                    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_HAVE_VECTORCALL |
                        Py_TPFLAGS_METHOD_DESCRIPTOR | Py_TPFLAGS_DISALLOW_INSTANTIATION,
                    slots};

PyMethodDef wrappedMethods[] = {
    {"__reduce__", reduceWrapped, METH_NOARGS, nullptr},
    {nullptr, nullptr, 0, nullptr},
};

PyGetSetDef wrappedProperties[] = {
    {"__dict__", PyObject_GenericGetDict, PyObject_GenericSetDict, nullptr, nullptr},
    {"__class__", classOfWrapped, nullptr, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyType_Slot wrappedSlots[] = {
    {Py_tp_dealloc, asSlot(deallocate)},
    {Py_tp_traverse, asSlot(traverse)},
    {Py_tp_clear, asSlot(clear)},
    {Py_tp_repr, asSlot(repr)},
    {Py_tp_call, asSlot(PyVectorcall_Call)},
    {Py_tp_descr_get, asSlot(getWrapped)},
    {Py_tp_getattro, asSlot(attributeOfWrapped)},
    {Py_tp_richcompare, asSlot(compareWrapped)},
    {Py_tp_hash, asSlot(hashWrapped)},
    {Py_tp_methods, wrappedMethods},
    {Py_tp_members, members},
    {Py_tp_getset, wrappedProperties},
    {0, nullptr},
};

PyType_Spec wrappedSpec = {"vantrace._core.WrappedFunction", sizeof(EventFunctionObject), 0,
                           Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_HAVE_VECTORCALL |
                               Py_TPFLAGS_DISALLOW_INSTANTIATION,
                           wrappedSlots};

PyObject* make(PyObject* type, PyObject* arguments, const char* format) {
    return guarded([&] {
        PyObject* event = nullptr;
        PyObject* function = nullptr;
        if (!PyArg_ParseTuple(arguments, format, &event, &function))
            throw PythonError();
        if (!isEvent(event) || !PyCallable_Check(function))
            raise(PyExc_TypeError, "expected an event and a callable");
        Ref object = Ref::take(asType(type)->tp_alloc(asType(type), 0));
        EventFunctionObject& self = functionOf(object.get());
        self.call = call;
        const EventParts parts = partsOf(event);
        self.plain = parts.names ? nullptr : parts.instrument;
        self.event = Py_NewRef(event);
        self.function = Py_NewRef(function);
        return object.release();
    });
}

}  // namespace

void addEventFunction(PyObject* module) {
    functionType = Ref::take(PyType_FromSpec(&spec)).release();
    wrappedType = Ref::take(PyType_FromSpec(&wrappedSpec)).release();
    check(PyModule_AddObjectRef(module, "EventFunction", functionType));
    check(PyModule_AddObjectRef(module, "WrappedFunction", wrappedType));
}

Ref decorate(PyObject* event, PyObject* function) {
    const Ref module = Ref::take(PyImport_ImportModule("vantrace._decorate"));
    return Ref::take(PyObject_CallMethod(module.get(), "decorate", "OO", event, function));
}

PyObject* newEventFunction(PyObject*, PyObject* arguments) {
    return make(functionType, arguments, "OO:event_function");
}

PyObject* newWrappedFunction(PyObject*, PyObject* arguments) {
    return make(wrappedType, arguments, "OO:wrapped_function");
}

}  // namespace vantrace
