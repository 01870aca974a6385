// The event of one call. A listener's exception has nobody to go to: the program did not ask for
// the event.
#pragma once

#include <exception>

#include "../src/open_event.hpp"
#include "zandor/instrument/plain_events.hpp"

namespace vantrace {

[[gnu::always_inline]] inline instrument::EventId startCall(
    const instrument::Opaque* instrument) noexcept {
    nameThread();
    try {
        return instrument::startPlain(instrument);
    } catch (const std::exception&) {
        return instrument::suppressedEventId;
    }
}

[[gnu::always_inline]] inline void stopCall(const instrument::Opaque* instrument,
                                            instrument::EventId id) noexcept {
    try {
        instrument::stopPlain(instrument, id);
    } catch (const std::exception&) {
        return;
    }
}

inline instrument::EventId startCall(const instrument::Opaque* instrument,
                                     instrument::ContextArgs context) noexcept {
    if (!instrument::listeners.anyActive())
        return instrument::noListenerEventId;
    try {
        return startEvent(instrument, context);
    } catch (const std::exception&) {
        return instrument::suppressedEventId;
    }
}

inline void stopCall(const instrument::Opaque* instrument, instrument::EventId id,
                     instrument::ContextArgs context) noexcept {
    try {
        stopEvent(instrument, context, id);
    } catch (const std::exception&) {
        return;
    }
}

}  // namespace vantrace
