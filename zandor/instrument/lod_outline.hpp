// What a trace file tells of itself without its records being read.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "lod_pyramid.hpp"
#include "trace_blocks.hpp"

namespace instrument::detail {

/// The outlines of all processes. Where some have none, those are small, and are read for one.
class LodOutline {
  public:
    /// What makes no sense in outlines is left out.
    explicit LodOutline(TraceBlocks& blocks);

    /// No process has one, or large ones have none.
    bool isEmpty() const noexcept { return rows_.empty(); }
    /// The threads in it, by number.
    std::span<SourceInfo* const> threads() const noexcept { return threads_; }
    /// Has threads be known by other numbers, in the same order. Those without one are left out.
    void renumber(std::span<const std::optional<std::uint32_t>> numbers);

    std::int64_t end() const noexcept { return end_; }
    /// How many rows of nested events, or of instants, a thread has.
    std::uint32_t rowsOf(std::uint32_t thread, LodRow::Kind kind) const;
    /// What touches [begin, end) of these threads, in cells at least that wide.
    std::vector<LodRowSlices> window(std::int64_t begin, std::int64_t end, int shift,
                                     LodSources threads) const;

  private:
    struct Row {
        std::uint32_t thread;
        LodRow row;
        LodLane lane;
    };
    void addMissing(TraceBlocks& blocks, const std::vector<bool>& isThere);
    void add(LoadedProcess& process, std::span<const Word> untrusted);
    void addRow(LoadedProcess& process, const OutlineRow& untrusted,
                std::span<const Word> untrustedSlices);
    std::uint32_t numberOf(SourceInfo* thread);

    std::vector<SourceInfo*> threads_;
    std::vector<Row> rows_;
    std::int64_t end_ = 0;
};

}  // namespace instrument::detail
