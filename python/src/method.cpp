#include "method.hpp"

#include <structmember.h>

#include <array>
#include <new>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "errors.hpp"
#include "from_value.hpp"
#include "method_lock.hpp"
#include "text.hpp"
#include "thread_name.hpp"
#include "to_value.hpp"

namespace vantrace {

using zandor::MethodDescription;
using zandor::Value;

namespace {

struct MethodObject {
    PyObject_HEAD vectorcallfunc call;
    bool keepsLock;
    zandor::Method method;
};

// Immortal, as the module is.
PyObject* methodType = nullptr;

const MethodObject& methodOf(PyObject* self) {
    return *reinterpret_cast<MethodObject*>(self);
}

const MethodDescription& descriptionOf(PyObject* self) {
    return methodOf(self).method.description();
}

std::string joined(const std::vector<std::string>& texts, const char* separator) {
    std::string all;
    for (const std::string& text : texts)
        all += (all.empty() ? "" : separator) + text;
    return all;
}

/// "getEvents(char) -> any"
std::string signatureText(const MethodDescription& method) {
    return method.name + "(" + joined(method.inputs, ", ") + ") -> " + joined(method.outputs, ", ");
}

Value argumentValue(const MethodDescription& method, std::size_t position, PyObject* argument) {
    std::optional<Value> value = toValue(argument);
    if (!value) {
        raise(PyExc_TypeError, "%s: argument %zu (%s) cannot be made of %s",
              method.fullName.c_str(), position + 1, method.inputs[position].c_str(),
              Py_TYPE(argument)->tp_name);
    }
    return std::move(*value);
}

/// The host values of a call. Those of a wrong count are not made: the runtime refuses the count
/// before it looks at them.
class Arguments {
  public:
    Arguments(const MethodDescription& method, std::span<PyObject* const> given) {
        if (given.size() > few_.size())
            many_ = std::vector<Value>(given.size());
        values_ = {given.size() > few_.size() ? many_.data() : few_.data(), given.size()};
        if (given.size() != method.inputs.size())
            return;
        for (std::size_t i = given.size(); i-- > 0;)
            values_[i] = argumentValue(method, i, given[i]);
    }
    std::span<Value> values() noexcept { return values_; }

  private:
    std::array<Value, 4> few_;
    std::vector<Value> many_;
    std::span<Value> values_;
};

Value invoke(const MethodObject& self, std::span<Value> arguments) {
    if (self.keepsLock)
        return self.method.call(arguments);
    const GilRelease others;
    return self.method.call(arguments);
}

PyObject* call(PyObject* self, PyObject* const* arguments, std::size_t countAndFlag,
               PyObject* names) {
    return guarded([&] {
        const MethodObject& method = methodOf(self);
        const MethodDescription& description = method.method.description();
        if (names && PyTuple_GET_SIZE(names) > 0)
            raise(PyExc_TypeError, "%s takes no keyword arguments", description.fullName.c_str());
        nameThread();
        const auto count = static_cast<std::size_t>(PyVectorcall_NARGS(countAndFlag));
        if (count == 0)
            return fromValue(invoke(method, {})).release();
        Arguments values(description, {arguments, count});
        return fromValue(invoke(method, values.values())).release();
    });
}

void deallocate(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    reinterpret_cast<MethodObject*>(self)->method.~Method();
    type->tp_free(self);
    Py_DECREF(type);
}

PyObject* repr(PyObject* self) {
    const MethodDescription& method = descriptionOf(self);
    return PyUnicode_FromFormat("<method %s(%s) -> %s>", method.fullName.c_str(),
                                joined(method.inputs, ", ").c_str(),
                                joined(method.outputs, ", ").c_str());
}

/// A published method belongs to no instance: an attribute of a class gives the method itself.
PyObject* get(PyObject* self, PyObject*, PyObject*) {
    return Py_NewRef(self);
}

Ref listOf(const std::vector<std::string>& texts) {
    Ref list = Ref::take(PyList_New(0));
    for (const std::string& text : texts)
        check(PyList_Append(list.get(), strOf(std::string_view(text)).get()));
    return list;
}

PyObject* name(PyObject* self, void*) {
    return guarded([&] { return strOf(std::string_view(descriptionOf(self).name)).release(); });
}

PyObject* fullName(PyObject* self, void*) {
    return guarded([&] { return strOf(std::string_view(descriptionOf(self).fullName)).release(); });
}

PyObject* doc(PyObject* self, void*) {
    return guarded([&] { return strOf(signatureText(descriptionOf(self))).release(); });
}

PyObject* inputs(PyObject* self, void*) {
    return guarded([&] { return listOf(descriptionOf(self).inputs).release(); });
}

PyObject* outputs(PyObject* self, void*) {
    return guarded([&] { return listOf(descriptionOf(self).outputs).release(); });
}

/// In the order Static, Hidden, Private.
PyObject* attributes(PyObject* self, void*) {
    return guarded([&] {
        const MethodDescription& method = descriptionOf(self);
        std::vector<std::string> set;
        if (method.isStatic)
            set.emplace_back("Static");
        if (method.isHidden)
            set.emplace_back("Hidden");
        if (method.isPrivate)
            set.emplace_back("Private");
        return listOf(set).release();
    });
}

PyObject* signature(PyObject* self, void*) {
    return guarded([&] {
        const Ref module = Ref::take(PyImport_ImportModule("vantrace._signatures"));
        return Ref::take(PyObject_CallMethod(module.get(), "signature", "O", self)).release();
    });
}

PyObject* isLoaded(PyObject* self, void*) {
    return PyBool_FromLong(methodOf(self).method.isLoaded());
}

PyGetSetDef properties[] = {
    {"__name__", name, nullptr, nullptr, nullptr},
    {"__qualname__", fullName, nullptr, nullptr, nullptr},
    {"__doc__", doc, nullptr, nullptr, nullptr},
    {"__signature__", signature, nullptr, nullptr, nullptr},
    {"inputs", inputs, nullptr, "The data types of the arguments.", nullptr},
    {"outputs", outputs, nullptr, "The data types of the results.", nullptr},
    {"attributes", attributes, nullptr, "Of Static, Hidden, Private those that it has.", nullptr},
    {"is_loaded", isLoaded, nullptr, "False once its plug-in is being unloaded.", nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyMemberDef members[] = {
    {"__vectorcalloffset__", T_PYSSIZET, offsetof(MethodObject, call), READONLY, nullptr},
    {nullptr, 0, 0, 0, nullptr},
};

PyType_Slot slots[] = {
    {Py_tp_dealloc, asSlot(deallocate)},
    {Py_tp_repr, asSlot(repr)},
    {Py_tp_call, asSlot(PyVectorcall_Call)},
    {Py_tp_descr_get, asSlot(get)},
    {Py_tp_getset, properties},
    {Py_tp_members, members},
    {0, nullptr},
};

PyType_Spec spec = {
    "vantrace.Method", sizeof(MethodObject), 0,
    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_VECTORCALL | Py_TPFLAGS_DISALLOW_INSTANTIATION, slots};

}  // namespace

void addMethod(PyObject* module) {
    methodType = Ref::take(PyType_FromSpec(&spec)).release();
    check(PyModule_AddObjectRef(module, "Method", methodType));
}

Ref newMethod(zandor::Method method) {
    PyTypeObject* type = asType(methodType);
    Ref object = Ref::take(type->tp_alloc(type, 0));
    auto* self = reinterpret_cast<MethodObject*>(object.get());
    self->call = call;
    self->keepsLock = keepsInterpreterLock(method.description().fullName);
    new (&self->method) zandor::Method(std::move(method));
    return object;
}

}  // namespace vantrace
