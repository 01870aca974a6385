// What is known of a trace file before its events are read in order: everything but the events.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

#include "recorder_context.hpp"
#include "recorder_sources.hpp"
#include "recording.hpp"
#include "trace_blocks.hpp"

namespace instrument::detail {

/// A point, and its place among those of its process.
struct OrderedPoint {
    RecordedPoint point;
    std::uint64_t order;
};

/// Reads all records once; twice those of a process where an event had stops of different threads.
/// Stays small: of the events it keeps those stops that came in another block than the start.
class TraceSurvey {
  public:
    explicit TraceSurvey(TraceBlocks& blocks);

    const RecordingFacts& facts() const noexcept { return facts_; }
    /// Stops without a start, by time.
    const std::vector<OrderedPoint>& strayStops() const noexcept { return strayStops_; }
    /// The place in facts().sources of a source that some block had. Throws std::runtime_error for
    /// another: the file is not what it was.
    std::uint32_t numberOf(SourceInfo* source);
    /// The same; none for another.
    std::optional<std::uint32_t> findNumber(SourceInfo* source) const {
        const std::optional<std::uint32_t> place = sources_.find(source);
        return place ? std::optional(numbers_.at(*place)) : std::nullopt;
    }

  private:
    class View;
    class Sink;
    void survey(std::size_t process);
    void numberSources();
    void addFacts();

    TraceBlocks& blocks_;
    std::deque<std::vector<Word>> keptWords_;  // that contexts_ looks at
    ContextTable contexts_;
    SourceList sources_;
    std::vector<std::uint32_t> numbers_;
    RecordingFacts facts_;
    std::vector<OrderedPoint> strayStops_;
};

}  // namespace instrument::detail
