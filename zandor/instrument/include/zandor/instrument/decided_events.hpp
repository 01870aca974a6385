// For bindings of other languages: edges of the calling thread's events that were decided already,
// with their contexts as they were given. The caller has looked at the flags and asked the rules.
#pragma once

#include "zandor/instrument/event_id.hpp"
#include "zandor/instrument/export.hpp"
#include "zandor/instrument/instrument.hpp"

namespace instrument {

/// Texts of the context need not outlive the call. Listeners' exceptions come out of all three.
ZANDOR_INSTRUMENT_API EventId tellStart(const Opaque* handle, ContextArgs context);
/// The context must be equal to the start's.
ZANDOR_INSTRUMENT_API void tellStop(const Opaque* handle, ContextArgs context, EventId id);
ZANDOR_INSTRUMENT_API EventId tellInstant(const Opaque* handle, ContextArgs context);

}  // namespace instrument
