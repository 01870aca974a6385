// The event of one call. A listener's exception has nobody to go to: the program did not ask for
// the event.
#pragma once

#include <exception>

#include "../src/open_event.hpp"

namespace vantrace {

[[gnu::always_inline]] inline instrument::EventId startCall(
    const instrument::Opaque* instrument, instrument::ContextArgs context = {}) noexcept {
    if (!instrument::listeners.anyActive())
        return instrument::noListenerEventId;
    try {
        return context.empty() ? startEvent(instrument) : startEvent(instrument, context);
    } catch (const std::exception&) {
        return instrument::suppressedEventId;
    }
}

[[gnu::always_inline]] inline void stopCall(const instrument::Opaque* instrument,
                                            instrument::EventId id,
                                            instrument::ContextArgs context = {}) noexcept {
    try {
        stopEvent(instrument, context, id);
    } catch (const std::exception&) {
        return;
    }
}

}  // namespace vantrace
