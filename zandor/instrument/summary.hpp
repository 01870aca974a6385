// Where the time of a recording went, by name.
#pragma once

#include <vector>

#include "zandor/instrument/event_stream.hpp"
#include "zandor/instrument/exports.hpp"

namespace instrument::detail {

/// Of complete events that do not end before they start; widest self time first, then by name. The
/// self times of a thread add up to the time that its events cover.
ZANDOR_INSTRUMENT_API std::vector<EventSummary> summarize(EventStream& stream);
inline std::vector<EventSummary> summarize(const Recording& recording) {
    RecordingStream stream(recording);
    return summarize(stream);
}

}  // namespace instrument::detail
