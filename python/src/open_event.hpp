// An event between its start and its stop.
#pragma once

#include <optional>

#include "context.hpp"
#include "gil.hpp"
#include "thread_name.hpp"
#include "zandor/instrument/decided_events.hpp"
#include "zandor/instrument/event_id.hpp"
#include "zandor/instrument/listeners.hpp"
#include "zandor/instrument/number_events.hpp"
#include "zandor/instrument/plain_events.hpp"

namespace vantrace {

/// Delivers the start where a listener is active and the instrument is on; the caller has looked at
/// the first. Listeners' exceptions come out.
inline instrument::EventId startEvent(const instrument::Opaque* instrument,
                                      instrument::ContextArgs context) {
    if (!isOn(instrument, context))
        return instrument::disabledEventId;
    nameThread();
    return instrument::tellStart(instrument, context);
}

/// The same for numbers, under names that instrument::lastingName gave.
inline instrument::EventId startNumberEvent(const instrument::Opaque* instrument,
                                            instrument::ContextArgs numbers) {
    if (!isOn(instrument, numbers))
        return instrument::disabledEventId;
    nameThread();
    return instrument::startNumbers(instrument, numbers);
}

/// The same without context.
inline instrument::EventId startEvent(const instrument::Opaque* instrument) {
    nameThread();
    return instrument::startPlain(instrument);
}

/// Delivers the stop when the start was and a listener is active; the context is the start's.
inline void stopEvent(const instrument::Opaque* instrument, instrument::ContextArgs context,
                      instrument::EventId id) {
    if (id.sourceId == 0 || !instrument::listeners.anyActive())
        return;
    if (context.empty())
        instrument::stopPlain(instrument, id);
    else
        instrument::tellStop(instrument, context, id);
}

}  // namespace vantrace
