// The events and the points of one block of a trace file.
#pragma once

#include <cstdint>
#include <tuple>
#include <vector>

#include "recorder_context.hpp"
#include "recorder_matching.hpp"
#include "trace_survey.hpp"

namespace instrument::detail {

struct EventEntry {
    using Item = RecordedEvent;
    static const Item& itemOf(const RecordedEvent& event) noexcept { return event; }
    static std::int64_t timeOf(const RecordedEvent& event) noexcept { return event.start; }
    static std::int64_t firstOf(const auto& block) noexcept { return block.firstStart; }
    static bool less(const RecordedEvent& a, const RecordedEvent& b) noexcept {
        return std::tie(a.start, a.source, a.serial) < std::tie(b.start, b.source, b.serial);
    }
};

struct PointEntry {
    using Item = RecordedPoint;
    static const Item& itemOf(const OrderedPoint& entry) noexcept { return entry.point; }
    static std::int64_t timeOf(const OrderedPoint& entry) noexcept { return entry.point.time; }
    static std::int64_t firstOf(const auto& block) noexcept { return block.firstPoint; }
    static bool less(const OrderedPoint& a, const OrderedPoint& b) noexcept {
        return std::tie(a.point.time, a.point.source, a.order) <
               std::tie(b.point.time, b.point.source, b.order);
    }
};

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
    class Reader;

    TraceBlocks& blocks_;
    TraceSurvey& survey_;
    OpenRun<std::uint32_t> run_;
};

}  // namespace instrument::detail
