// A profile as text.
#pragma once

#include <string>
#include <vector>

#include "zandor/performance/export.hpp"
#include "zandor/performance/profiler.hpp"

namespace instrument::detail {

/// A table 80 columns wide, the widest total first.
ZANDOR_PERFORMANCE_API std::string profileTable(std::vector<CallSummary> profile);

}  // namespace instrument::detail
