// What a sealed chunk held before compaction rewrites it: for whoever reads a recording's file
// after its process was killed meanwhile.
#pragma once

#include <cstddef>
#include <cstdint>

#include "recorder_storage.hpp"

namespace instrument::detail {

/// In the recording's file. While Generation::rewriting has it, what it tells holds, and not what
/// the chunks do. The records follow it.
struct ChunkBackup {
    std::size_t capacity;  ///< bytes of records
    Track* track;
    Chunk* before;  ///< which the chunk follows; null: it is the track's oldest
    Word* beforeEnd;
    Chunk* chunk;
    Chunk* after;
    StreamState first;
    std::size_t words;
    std::uint64_t droppedShortest;  ///< of the generation

    Word* records() noexcept { return reinterpret_cast<Word*>(this + 1); }
};

/// Where a test may have the process end: while the backup holds, and when it does no more.
enum class CompactionPoint : std::uint8_t { backedUp, marked, moving, rewritten, linked, done };
ZANDOR_INSTRUMENT_API extern void (*compactionCameTo)(CompactionPoint point);

inline void comeTo(CompactionPoint point) noexcept {
    if (compactionCameTo)
        compactionCameTo(point);
}

/// Backs up a chunk for as long as it lives, where the recording has a file. Where the disk is full
/// it is rewritten without.
class BackedUp {
  public:
    BackedUp(Generation& generation, Track& track, Chunk* before, Chunk& chunk) noexcept;
    ~BackedUp();
    BackedUp(const BackedUp&) = delete;
    BackedUp& operator=(const BackedUp&) = delete;

  private:
    Generation& generation_;
};

}  // namespace instrument::detail
