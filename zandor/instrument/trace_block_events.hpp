// The events and the points of one block of a trace file.
#pragma once

#include <cstdint>
#include <vector>

#include "recorder_context.hpp"
#include "recorder_matching.hpp"
#include "trace_survey.hpp"

namespace instrument::detail {

/// What a block has of one kind, in order; contexts stay as long as it does.
template <class Item>
struct BlockItems {
    std::vector<Item> items;
    ContextArena contexts;
};

/// Reads blocks of a file that was surveyed.
class BlockEvents {
  public:
    BlockEvents(TraceBlocks& blocks, TraceSurvey& survey) : blocks_(blocks), survey_(survey) {}

    /// By start, source, serial.
    BlockItems<RecordedEvent> events(RecordBlock& block, bool withContexts);
    /// Instants, by time, source, order.
    BlockItems<OrderedPoint> points(RecordBlock& block, bool withContexts);

  private:
    TraceBlocks& blocks_;
    TraceSurvey& survey_;
    OpenRun<std::uint32_t> run_;
};

}  // namespace instrument::detail
