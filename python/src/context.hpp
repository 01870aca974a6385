// The context of events that Python code produces.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <span>

#include "python_api.hpp"
#include "zandor/instrument/event_context.hpp"
#include "zandor/instrument/instrument.hpp"

namespace vantrace {

/// bool, int of 64 bits, float: as they are. False for other objects.
bool asContextNumber(PyObject* object, instrument::ContextValue& value);

/// What an argument of the context is made of: its text's owner, where there is one.
instrument::ContextArg contextArg(PyObject* name, PyObject* value, Ref& nameOwner, Ref& valueOwner);

/// Whether an event of the instrument with this context is to be delivered, listeners being active.
bool isOn(const instrument::Opaque* instrument, instrument::ContextArgs context);

/// The keyword arguments of one call as context, for as long as the call lasts.
class CallContext {
  public:
    /// `values` has one object for each name of the tuple; null is no names.
    CallContext(PyObject* const* values, PyObject* names);
    instrument::ContextArgs args() const noexcept { return {args_, count_}; }

  private:
    static constexpr std::size_t few = 6;

    std::size_t count_;
    std::array<instrument::ContextArg, few> fewArgs_;
    instrument::ContextArg* args_ = fewArgs_.data();
    std::array<Ref, 2 * few> fewOwners_;
    std::unique_ptr<instrument::ContextArg[]> manyArgs_;
    std::unique_ptr<Ref[]> manyOwners_;
};

}  // namespace vantrace
