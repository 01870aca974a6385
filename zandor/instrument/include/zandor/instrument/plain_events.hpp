// For bindings of other languages whose functions are events: calls, which end in the reverse order
// of their beginnings, on the thread where they began. Nobody asked for these events, so that
// listeners' exceptions end here.
#pragma once

#include "zandor/instrument/event_id.hpp"
#include "zandor/instrument/export.hpp"
#include "zandor/instrument/instrument.hpp"

namespace instrument {

/// Delivers a start without context where a listener is active and the instrument is on; else gives
/// a reserved identity.
ZANDOR_INSTRUMENT_API EventId enterCall(const Opaque* handle) noexcept;
/// Delivers the stop when the start was and a listener is active.
ZANDOR_INSTRUMENT_API void leaveCall(const Opaque* handle, EventId id) noexcept;

}  // namespace instrument
