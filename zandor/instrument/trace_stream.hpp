// A trace file as a stream: of its events those blocks are in memory whose times overlap.
#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

#include "event_stream.hpp"
#include "longest_events.hpp"
#include "trace_blocks.hpp"
#include "trace_merge.hpp"
#include "trace_survey.hpp"
#include "zandor/instrument/trace_file.hpp"

namespace instrument::detail {

/// Times are those of the first process's monotonic clock.
class ZANDOR_INSTRUMENT_API TraceStream : public EventStream {
  public:
    /// Throws as TraceReader does, and what `progress` throws.
    TraceStream(const std::filesystem::path& file, TraceBlocks::Progress progress);

    /// From the next rewind on.
    void select(const TraceSelection& selection);

    const RecordingFacts& facts() const noexcept override { return survey_.facts(); }
    void rewind(std::optional<std::uint32_t> onlySource = {}) override;
    std::span<const RecordedEvent> nextEvents() override;
    std::span<const RecordedPoint> nextPoints() override;
    bool hasArgs() const noexcept override { return withContexts_; }
    std::uint64_t leftOutShort() const noexcept override { return leftOutShort_; }

    TraceBlocks& blocks() noexcept { return blocks_; }

  private:
    bool mayHaveEvents(const RecordBlock& block, std::optional<std::uint32_t> source) const;
    BlockItems<RecordedEvent> selectedEvents(RecordBlock& block);
    bool isSelected(const RecordedEvent& event);
    bool isInTime(std::int64_t first, std::int64_t last) const noexcept {
        return first <= until_ && last >= since_;
    }

    TraceBlocks blocks_;
    TraceSurvey survey_;
    BlockEvents reader_;
    TraceMerge<RecordedEvent, EventEntry> events_;
    TraceMerge<OrderedPoint, PointEntry> points_;

    std::int64_t since_ = INT64_MIN;
    std::int64_t until_ = INT64_MAX;
    std::int64_t minimumDuration_ = -1;
    bool withContexts_ = true;
    LongestEvents longest_;
    std::uint64_t leftOutShort_ = 0;
};

}  // namespace instrument::detail
