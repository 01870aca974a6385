// For bindings of other languages: edges of the calling thread's events without context, told in as
// few steps as there can be.
#pragma once

#include "zandor/instrument/event_id.hpp"
#include "zandor/instrument/export.hpp"
#include "zandor/instrument/instrument.hpp"

namespace instrument {

// Listeners' exceptions come out of these three.

/// Delivers a start where a listener is active and the instrument is on; else gives a reserved
/// identity.
ZANDOR_INSTRUMENT_API EventId startPlain(const Opaque* handle);
/// Delivers the stop when the start was and a listener is active.
ZANDOR_INSTRUMENT_API void stopPlain(const Opaque* handle, EventId id);
/// Delivers an instant where a listener is active and the instrument is on.
ZANDOR_INSTRUMENT_API void instantPlain(const Opaque* handle);

/// What is called as an event. No exception leaves it; where the system unwinds the thread's stack
/// to end it, that comes to `unwound`, which does not return.
struct PlainCallee {
    void* (*function)(void* first, void* second, int third);
    void (*unwound)();
};
/// Gives what the function gives. Its call is an event where a listener is active and the
/// instrument is on. What listeners throw goes no further.
ZANDOR_INSTRUMENT_DIRECT void* callPlain(void* first, void* second, int third,
                                         const PlainCallee& callee, const Opaque* handle) noexcept;

}  // namespace instrument
