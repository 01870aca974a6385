#include "context.hpp"

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

/// Asks the rules in force; no rule leaves the decision to the switch.
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

}  // namespace

bool asContextNumber(PyObject* object, ContextValue& value) {
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

ContextArg contextArg(PyObject* name, PyObject* value, Ref& nameOwner, Ref& valueOwner) {
    ContextArg arg{utf8Of(name, nameOwner), {}};
    if (PyUnicode_CheckExact(value)) {
        arg.value = utf8Of(value, valueOwner);
    } else if (!asContextNumber(value, arg.value)) {
        valueOwner = Ref::take(intoPython([&] { return PyObject_Str(value); }));
        arg.value = utf8Of(valueOwner.get(), valueOwner);
    }
    return arg;
}

bool isOn(const instrument::Opaque* instrument, ContextArgs context) {
    // Relaxed, as whoever emits an event reads them: nothing else is published by the flags.
    if (!context.empty() && instrument->hasContextRules.load(std::memory_order_relaxed))
        return isOnByRules(instrument, context);
    return instrument->enabled.load(std::memory_order_relaxed);
}

CallContext::CallContext(PyObject* const* values, PyObject* names)
    : count_(names ? static_cast<std::size_t>(PyTuple_GET_SIZE(names)) : 0) {
    Ref* owners = fewOwners_.data();
    if (count_ > few) {
        manyArgs_ = std::make_unique<ContextArg[]>(count_);
        manyOwners_ = std::make_unique<Ref[]>(2 * count_);
        args_ = manyArgs_.get();
        owners = manyOwners_.get();
    }
    for (std::size_t i = 0; i < count_; ++i) {
        PyObject* name = PyTuple_GET_ITEM(names, static_cast<Py_ssize_t>(i));
        args_[i] = contextArg(name, values[i], owners[2 * i], owners[2 * i + 1]);
    }
}

}  // namespace vantrace
