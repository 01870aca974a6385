#include "c_function.hpp"

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "../src/text.hpp"
#include "tracing.hpp"
#include "zandor/instrument/controls.hpp"

namespace vantrace {

using instrument::Opaque;

namespace {

/// Where a C function is defined: its type, or the name of its module.
PyObject* ownerOf(const PyCFunctionObject* function) noexcept {
    PyObject* self = function->m_self;
    if (!self || PyModule_Check(self))
        return function->m_module;
    return PyType_Check(self) ? self : reinterpret_cast<PyObject*>(Py_TYPE(self));
}

/// "module.name" or "type.name".
std::string nameOf(const PyCFunctionObject* function, PyObject* owner) {
    std::string name;
    if (owner && PyType_Check(owner)) {
        name = asType(owner)->tp_name;
    } else if (owner && PyUnicode_Check(owner)) {
        Ref text;
        name = utf8Of(owner, text);
    }
    if (!name.empty())
        name += '.';
    return name + function->m_ml->ml_name;
}

const Opaque* lookUp(const PyCFunctionObject* function, PyObject* owner) {
    const std::string name = nameOf(function, owner);
    return tracing.selection->isRecorded(name, false) ? instrument::controls.getHandle(name)
                                                      : nullptr;
}

/// What was looked up in a session.
struct KnownCFunction {
    const PyMethodDef* definition;
    const PyObject* owner;
    std::uint32_t session;
    const Opaque* instrument;
};

// Guarded by the interpreter's lock.
constinit std::array<KnownCFunction, 1024> knownCFunctions{};

/// Whether another definition may come to stand at the address of this one, or of its owner.
bool mayGo(PyObject* owner) noexcept {
    return !owner || (PyType_Check(owner) && PyType_HasFeature(asType(owner), Py_TPFLAGS_HEAPTYPE));
}

}  // namespace

const Opaque* instrumentOf(const PyCFunctionObject* function) {
    PyObject* owner = ownerOf(function);
    if (mayGo(owner))
        return lookUp(function, owner);
    const auto address = reinterpret_cast<std::uintptr_t>(function->m_ml);
    KnownCFunction& known =
        knownCFunctions[(address / sizeof(PyMethodDef)) % knownCFunctions.size()];
    const bool isKnown =
        known.definition == function->m_ml && known.owner == owner &&
        known.session == tracing.session &&
        (!known.instrument ||
         std::string_view(known.instrument->name).ends_with(function->m_ml->ml_name));
    if (!isKnown)
        known = {function->m_ml, owner, tracing.session, lookUp(function, owner)};
    return known.instrument;
}

}  // namespace vantrace
