#include "counter.hpp"

#include "errors.hpp"
#include "instrument_cache.hpp"
#include "open_event.hpp"
#include "zandor/instrument/counter_point.hpp"

namespace vantrace {

using instrument::ContextArg;
using instrument::ContextValue;

namespace {

/// Integers beyond 64 bits, and what has only __float__ or __index__, as reals. A value is put
/// where it is read: one that was stored in parts and copied at once would wait for its parts.
void putValue(PyObject* number, ContextValue& value) {
    if (asFrequentNumber(number, value)) [[likely]]
        return;
    if (!PyBool_Check(number) && asContextNumber(number, value))
        return;
    const double real = intoPython([&] { return PyFloat_AsDouble(number); });
    if (real == -1 && PyErr_Occurred())
        throw PythonError();
    value = real;
}

}  // namespace

PyObject* emitCounter(PyObject*, PyObject* const* arguments, Py_ssize_t count) {
    return guarded([&] {
        if (count != 2) [[unlikely]]
            raise(PyExc_TypeError, "counter takes 2 arguments, a name and a value, got %zd", count);
        const instrument::Opaque* instrument = instrumentOf(arguments[0]);
        if (!instrument::listeners.anyActive())
            return Py_NewRef(Py_None);
        static const std::string_view name = instrument::lastingName(instrument::counterValueName);
        ContextArg point{name, {}};
        putValue(arguments[1], point.value);
        if (isOn(instrument, {&point, 1})) {
            nameThread();
            instrument::instantNumbers(instrument, {&point, 1});
        }
        return Py_NewRef(Py_None);
    });
}

}  // namespace vantrace
