// Events that the host starts and stops itself.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "zandor/instrument/context.hpp"
#include "zandor/instrument/control_element.hpp"
#include "zandor/instrument/event_id.hpp"

namespace vantrace {

/// The host virtual machine that an event comes from; none is the main one.
using MachineTag = std::optional<std::uint64_t>;

/// Delivers a start if somebody listens and the instrument is on for the context; gives a reserved
/// identity when it did not. A listener's exception passes through.
instrument::EventId beginInstrumentEvent(const instrument::Opaque* handle,
                                         const std::vector<instrument::ContextEntry>& entries,
                                         MachineTag tag);

/// Delivers a stop by the same decision, taken again: whether the start was delivered is not asked.
void endInstrumentEvent(const instrument::Opaque* handle,
                        const std::vector<instrument::ContextEntry>& entries,
                        instrument::EventId id, MachineTag tag);

}  // namespace vantrace
