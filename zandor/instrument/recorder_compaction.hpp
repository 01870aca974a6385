// Keeping the longest: sealed chunks are rewritten without the shortest events, under a minimum
// duration that rises as room is needed. An instant has no duration. An event goes when its start
// and stop stand in one chunk; what is open, or spans chunks or threads, stays until a rewrite
// brings both together. Under the recorder's lock, while nobody reads.
#pragma once

#include "recorder_storage.hpp"

namespace instrument::detail {

/// Counts the durations of what a chunk that was just sealed holds.
void addDurations(Generation& generation, Chunk& chunk) noexcept;
/// Frees a chunk, or tells that nothing more can go.
bool compactSome(Generation& generation) noexcept;

}  // namespace instrument::detail
