#include "vantrace/instrument/events.hpp"

#include <atomic>
#include <utility>

#include "zandor/instrument/listeners.hpp"

namespace vantrace {

using instrument::ContextEntry;
using instrument::ContextSet;
using instrument::ControlElement;
using instrument::Enabled;
using instrument::EventId;
using instrument::listeners;
using instrument::Opaque;

namespace {

bool isEnabledFor(const Opaque* handle, const ContextSet& context) {
    // Relaxed: the two flags are switches, and publish nothing besides themselves.
    const bool enabled = handle->enabled.load(std::memory_order_relaxed);
    if (context.empty() || !handle->hasContextRules.load(std::memory_order_relaxed))
        return enabled;
    const Enabled verdict = ControlElement::of(handle).getContextEnabledImpl(context);
    return verdict == Enabled::noRule ? enabled : verdict == Enabled::enabled;
}

}  // namespace

EventId beginInstrumentEvent(const Opaque* handle, const std::vector<ContextEntry>& entries,
                             MachineTag tag) {
    if (!listeners.anyActive())
        return instrument::noListenerEventId;
    ContextSet context(entries.begin(), entries.end());
    if (!isEnabledFor(handle, context))
        return instrument::disabledEventId;
    return listeners.onEventStart(handle, std::move(context), tag);
}

void endInstrumentEvent(const Opaque* handle, const std::vector<ContextEntry>& entries, EventId id,
                        MachineTag tag) {
    if (!listeners.anyActive())
        return;
    ContextSet context;
    for (const ContextEntry& entry : entries)
        context.insert(entry);
    if (isEnabledFor(handle, context))
        listeners.onEventStop(handle, std::move(context), id, tag);
}

}  // namespace vantrace
