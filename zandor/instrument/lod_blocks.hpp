// The events of a trace file as a timeline needs them, block by block.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "lod_event.hpp"
#include "trace_block_events.hpp"
#include "trace_merge.hpp"

namespace instrument::detail {

struct LodEntry {
    using Item = LodEvent;
    static const Item& itemOf(const LodEvent& event) noexcept { return event; }
    static std::int64_t timeOf(const LodEvent& event) noexcept { return event.start; }
    static std::int64_t firstOf(const RecordBlock& block) noexcept {
        return std::min(block.firstStart, block.firstPoint);
    }
    static bool less(const LodEvent& a, const LodEvent& b) noexcept { return enclosesFirst(a, b); }
};

/// When a thread wrote, as far as blocks tell by where they begin.
struct LodActivity {
    std::string_view process;
    std::string_view thread;
    std::vector<std::int64_t> begins;  ///< of its blocks, in nanoseconds
};

/// For one thread at a time. Events are there once the file was surveyed.
class LodBlocks {
  public:
    /// Reads where the blocks are, and names. Throws as TraceReader does; what `progress` throws
    /// passes through, here and wherever blocks are read.
    LodBlocks(const std::filesystem::path& file, TraceBlocks::Progress progress)
        : blocks_(file, std::move(progress)) {}

    /// Of each track; needs no survey.
    std::vector<LodActivity> activity();
    /// Reads all records.
    void survey();
    const RecordingFacts& facts() const noexcept { return survey_->facts(); }
    /// The place in facts().sources, if it is there.
    std::optional<std::uint32_t> numberOf(SourceInfo* source) const {
        return survey_->findNumber(source);
    }
    TraceBlocks& blocks() noexcept { return blocks_; }
    std::uint64_t recordBytes() const noexcept { return blocks_.recordBytes(); }
    const TraceNames& names() const noexcept { return blocks_.names(); }

    /// In order (see enclosesFirst).
    std::vector<LodEvent> read(RecordBlock& block);
    /// Stops without a start, as instants, in order.
    std::vector<LodEvent> strays() const;

    /// Begins to go through the events of all blocks in order.
    void rewind();
    /// The next ones; none at the end. `load(block)` reads a block.
    template <class Load>
    std::span<const LodEvent> next(Load load) {
        return all_.next([&](RecordBlock& block) { return BlockItems<LodEvent>{load(block), {}}; });
    }

    /// An event's context, until the next call.
    ContextArgs contextOf(RecordBlock& block, const LodEvent& event);

  private:
    LodEvent eventOf(const RecordedEvent& event) const noexcept;
    static LodEvent eventOf(const RecordedPoint& point) noexcept;

    TraceBlocks blocks_;
    std::unique_ptr<TraceSurvey> survey_;
    std::unique_ptr<BlockEvents> reader_;
    TraceMerge<LodEvent, LodEntry> all_;
    ContextArena contexts_;  // of the event that was asked for last
};

}  // namespace instrument::detail
