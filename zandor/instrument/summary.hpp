// Where the time of a recording went, by name.
#pragma once

#include <vector>

#include "zandor/instrument/exports.hpp"
#include "zandor/instrument/recording.hpp"

namespace instrument::detail {

/// Of complete events that do not end before they start; widest self time first, then by name. The
/// self times of a thread add up to the time that its events cover.
ZANDOR_INSTRUMENT_API std::vector<EventSummary> summarize(const Recording& recording);

}  // namespace instrument::detail
