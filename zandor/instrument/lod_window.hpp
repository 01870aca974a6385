// What of a trace file lies in a window of time, and where names are.
#pragma once

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <list>
#include <optional>
#include <utility>
#include <vector>

#include "lod_blocks.hpp"
#include "lod_pyramid.hpp"

namespace instrument::detail {

/// Reads the blocks that a question is about; those that were read last stay in memory. For one
/// thread at a time.
class LodWindow {
  public:
    /// Of a file that was surveyed.
    explicit LodWindow(LodBlocks& blocks)
        : blocks_(blocks), strays_(blocks.strays()), notes_(blocks.blocks().records().size()) {}

    /// Reads a block, and takes note of what is in it.
    std::vector<LodEvent> read(RecordBlock& block);

    /// What touches [begin, end) of these threads, in order; nothing where more bytes would be read
    /// for it.
    std::optional<std::vector<LodEvent>> within(std::int64_t begin, std::int64_t end,
                                                LodSources sources, std::uint64_t mostBytes);

    /// The first event behind one in order, or the last before it, that has one of the names; when
    /// all blocks were read.
    std::optional<LodEvent> nearest(const LodEvent& from, bool isForward,
                                    const std::vector<bool>& names);

    struct Found {
        LodEvent event;
        ContextArgs context;  ///< until the next question
    };
    /// The event of this start, source and serial.
    std::optional<Found> find(const LodEvent& event);

  private:
    /// What is known of a block that was read.
    struct Notes {
        bool areTaken = false;
        std::int64_t lastStart = 0;
        std::bitset<256> names;  ///< by number; several share a bit
    };
    using Events = std::vector<LodEvent>;

    const Events& keep(RecordBlock& block);
    bool touches(const RecordBlock& block, std::int64_t begin, std::int64_t end,
                 LodSources sources) const noexcept;
    std::vector<RecordBlock*> candidates(const LodEvent& from, bool isForward,
                                         const std::vector<bool>& names);
    Notes& notesOf(const RecordBlock& block) {
        return notes_[static_cast<std::size_t>(&block - blocks_.blocks().records().data())];
    }

    LodBlocks& blocks_;
    Events strays_;
    std::vector<Notes> notes_;                               // by block
    std::list<std::pair<const RecordBlock*, Events>> kept_;  // what was asked for last first
    std::size_t keptEvents_ = 0;
};

}  // namespace instrument::detail
