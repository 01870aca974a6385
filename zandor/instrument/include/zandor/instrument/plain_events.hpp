// For bindings of other languages: edges of the calling thread's events without context, told in as
// few steps as there can be. Listeners' exceptions come out of all three.
#pragma once

#include "zandor/instrument/event_id.hpp"
#include "zandor/instrument/export.hpp"
#include "zandor/instrument/instrument.hpp"

namespace instrument {

/// Delivers a start where a listener is active and the instrument is on; else gives a reserved
/// identity.
ZANDOR_INSTRUMENT_API EventId startPlain(const Opaque* handle);
/// Delivers the stop when the start was and a listener is active.
ZANDOR_INSTRUMENT_API void stopPlain(const Opaque* handle, EventId id);
/// Delivers an instant where a listener is active and the instrument is on.
ZANDOR_INSTRUMENT_API void instantPlain(const Opaque* handle);

}  // namespace instrument
