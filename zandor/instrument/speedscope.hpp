// A recording as speedscope's evented profiles.
#pragma once

#include "event_stream.hpp"
#include "zandor/instrument/exports.hpp"

namespace instrument::detail {

/// One profile a thread that has events, times in nanoseconds from the recording's origin. Profiles
/// must nest: an event that outlives the one in which it started ends with it.
ZANDOR_INSTRUMENT_API void writeSpeedscope(EventStream& stream, TextSink& sink);

}  // namespace instrument::detail
