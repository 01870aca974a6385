// The context of events that Python code produces.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <vector>

#include "python_api.hpp"
#include "zandor/instrument/event_context.hpp"
#include "zandor/instrument/instrument.hpp"

namespace vantrace {

/// bool, int of 64 bits, float: as they are. False for other objects.
bool asContextNumber(PyObject* object, instrument::ContextValue& value);

/// An int of a machine word, as most are, or a float: without a call. False for other objects.
inline bool asFrequentNumber(PyObject* object, instrument::ContextValue& value) noexcept {
    if (PyFloat_CheckExact(object)) {
        value = instrument::ContextValue(PyFloat_AS_DOUBLE(object));
        return true;
    }
#if PY_VERSION_HEX < 0x030c0000
    if (PyLong_CheckExact(object)) {
        // So many digits, and with the sign of the number.
        const Py_ssize_t size = Py_SIZE(object);
        if (size < -1 || size > 1)
            return false;
        const auto digit =
            size == 0
                ? 0
                : static_cast<long long>(reinterpret_cast<PyLongObject*>(object)->ob_digit[0]);
        value = instrument::ContextValue(size < 0 ? -digit : digit);
        return true;
    }
#endif
    return false;
}

/// Whether all of these values are immutable objects that context is made of without running code.
bool areAtoms(PyObject* const* values, std::size_t count) noexcept;

/// Context of such values whose texts belong to the objects themselves. False where one has none of
/// its own: an integer beyond 64 bits, a lone surrogate.
bool makeContext(PyObject* const* values, PyObject* names, instrument::ContextArg* args);

/// Asks the rules in force; no rule leaves the decision to the switch.
bool isOnByRules(const instrument::Opaque* instrument, instrument::ContextArgs context);

/// Whether an event of the instrument with this context is to be delivered, listeners being active.
inline bool isOn(const instrument::Opaque* instrument, instrument::ContextArgs context) {
    // Relaxed, as whoever emits an event reads them: nothing else is published by the flags.
    if (!context.empty() && instrument->hasContextRules.load(std::memory_order_relaxed))
        return isOnByRules(instrument, context);
    return instrument->enabled.load(std::memory_order_relaxed);
}

/// The keyword arguments of one call as context, for as long as the object lives. `values` has one
/// object for each name of the tuple; null is no names.
class CallContext {
  public:
    CallContext(PyObject* const* values, PyObject* names);
    instrument::ContextArgs args() const noexcept { return {args_, count_}; }

  private:
    static constexpr std::size_t few = 6;

    std::size_t count_;
    std::array<instrument::ContextArg, few> fewArgs_;
    std::unique_ptr<instrument::ContextArg[]> manyArgs_;
    instrument::ContextArg* args_ = fewArgs_.data();
    std::vector<Ref> owners_;  ///< of texts that had to be made
};

}  // namespace vantrace
