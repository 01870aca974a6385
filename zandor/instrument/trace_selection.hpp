// Leaves out of a recording what nobody asked for, and cuts it into parts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>

#include "recording.hpp"
#include "zandor/instrument/trace_file.hpp"

namespace instrument::detail {

ZANDOR_INSTRUMENT_API void select(Recording& recording, const TraceSelection& selection);

/// Calls `write` with parts whose trace-event JSON takes at most `mostBytes`, by time; a part of
/// one event may take more.
ZANDOR_INSTRUMENT_API void forEachPart(const Recording& recording, std::uint64_t mostBytes,
                                       const std::function<void(const Recording&)>& write);

/// "name-2.json.gz" of "name.json.gz"; the name itself for 1.
std::filesystem::path numbered(const std::filesystem::path& file, std::size_t number);

}  // namespace instrument::detail
