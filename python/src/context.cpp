#include "context.hpp"

#include <algorithm>
#include <string_view>

#include "errors.hpp"
#include "text.hpp"

namespace vantrace {

using instrument::ContextArg;
using instrument::ContextArgs;
using instrument::ContextValue;

namespace {

bool asContextInteger(PyObject* integer, ContextValue& value) {
    int overflow = 0;
    const long long number = PyLong_AsLongLongAndOverflow(integer, &overflow);
    if (overflow == 0) {
        value = ContextValue(number);
        return true;
    }
    if (overflow < 0)
        return false;
    const unsigned long long large = PyLong_AsUnsignedLongLong(integer);
    if (PyErr_Occurred()) {
        PyErr_Clear();
        return false;
    }
    value = ContextValue(large);
    return true;
}

}  // namespace

bool asContextNumber(PyObject* object, ContextValue& value) {
    if (asFrequentNumber(object, value)) [[likely]]
        return true;
    if (PyFloat_Check(object)) {
        value = ContextValue(PyFloat_AS_DOUBLE(object));
        return true;
    }
    if (PyBool_Check(object)) {
        value = ContextValue(object == Py_True);
        return true;
    }
    return PyLong_Check(object) && asContextInteger(object, value);
}

bool areAtoms(PyObject* const* values, std::size_t count) noexcept {
    return std::all_of(values, values + count, [](PyObject* value) {
        return PyUnicode_CheckExact(value) || PyLong_Check(value) || PyFloat_CheckExact(value);
    });
}

bool makeContext(PyObject* const* values, PyObject* names, ContextArg* args) {
    const auto count = static_cast<std::size_t>(PyTuple_GET_SIZE(names));
    Ref owner;
    for (std::size_t i = 0; i < count && !owner; ++i) {
        PyObject* value = values[i];
        args[i].name = utf8Of(PyTuple_GET_ITEM(names, static_cast<Py_ssize_t>(i)), owner);
        if (PyUnicode_CheckExact(value))
            args[i].value = utf8Of(value, owner);
        else if (!asContextNumber(value, args[i].value))
            return false;
    }
    return !owner;
}

bool isOnByRules(const instrument::Opaque* instrument, ContextArgs context) {
    instrument::ContextSet set;
    for (const ContextArg& arg : context)
        set.insert({arg.name, instrument::toText(arg.value)});
    switch (instrument::ControlElement::of(instrument).getContextEnabledImpl(set)) {
        case instrument::Enabled::noRule:
            return instrument->enabled.load(std::memory_order_relaxed);
        case instrument::Enabled::enabled:
            return true;
        default:
            return false;
    }
}

namespace {

/// UTF-8 of a str that outlives the owners.
std::string_view keptUtf8(PyObject* str, std::vector<Ref>& owners) {
    Ref owner;
    const std::string_view text = utf8Of(str, owner);
    if (owner)
        owners.push_back(std::move(owner));
    return text;
}

ContextArg contextArg(PyObject* name, PyObject* value, std::vector<Ref>& owners) {
    ContextArg arg{keptUtf8(name, owners), {}};
    if (PyUnicode_CheckExact(value)) {
        arg.value = keptUtf8(value, owners);
    } else if (!asContextNumber(value, arg.value)) {
        owners.push_back(Ref::take(intoPython([&] { return PyObject_Str(value); })));
        arg.value = keptUtf8(owners.back().get(), owners);
    }
    return arg;
}

}  // namespace

CallContext::CallContext(PyObject* const* values, PyObject* names)
    : count_(names ? static_cast<std::size_t>(PyTuple_GET_SIZE(names)) : 0) {
    if (count_ > few) {
        manyArgs_ = std::make_unique<ContextArg[]>(count_);
        args_ = manyArgs_.get();
    }
    for (std::size_t i = 0; i < count_; ++i) {
        PyObject* name = PyTuple_GET_ITEM(names, static_cast<Py_ssize_t>(i));
        args_[i] = contextArg(name, values[i], owners_);
    }
}

}  // namespace vantrace
