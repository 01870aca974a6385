// A recording as trace-event JSON.
#pragma once

#include <cstdint>

#include "zandor/instrument/exports.hpp"
#include "zandor/instrument/recording.hpp"

namespace instrument::detail {

/// Streams: besides the recording it takes a buffer of 64 KiB, a bit an event, and 40 bytes an
/// event that is open at once. An exception of the sink passes through.
ZANDOR_INSTRUMENT_API void writeTraceEventJson(const Recording& recording, TimeSystem timeSystem,
                                               std::int64_t minimumDuration, TextSink& sink);

}  // namespace instrument::detail
