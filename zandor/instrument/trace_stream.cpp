#include "trace_stream.hpp"

#include <utility>

#include "event_order.hpp"
#include "zandor/instrument/saturating.hpp"

namespace instrument::detail {

TraceStream::TraceStream(const std::filesystem::path& file, TraceBlocks::Progress progress)
    : blocks_(file, std::move(progress)), survey_(blocks_), reader_(blocks_, survey_) {
    rewind();
}

void TraceStream::select(const TraceSelection& selection) {
    const auto at = [&](const std::optional<std::int64_t>& time, std::int64_t otherwise) {
        return time ? saturatingAdd(facts().originMonotonic, *time) : otherwise;
    };
    since_ = at(selection.since, INT64_MIN);
    until_ = at(selection.until, INT64_MAX);
    minimumDuration_ = selection.minimumDuration;
    withContexts_ = false;
    longest_ = LongestEvents(selection.mostPerThread == 0 ? 0 : facts().sources.size(),
                             selection.mostPerThread);
    if (selection.mostPerThread > 0) {
        forEachPiece(*this, [](std::span<const RecordedEvent>) {});
        longest_.settle();
    }
    withContexts_ = selection.contexts;
    rewind();
}

void TraceStream::rewind(std::optional<std::uint32_t> onlySource) {
    std::vector<RecordBlock*> withEvents;
    std::vector<RecordBlock*> withPoints;
    for (RecordBlock& block : blocks_.records()) {
        if (mayHaveEvents(block, onlySource))
            withEvents.push_back(&block);
        if (minimumDuration_ < 0 && block.firstPoint != RecordBlock::never &&
            isInTime(block.firstPoint, block.lastPoint))
            withPoints.push_back(&block);
    }
    BlockItems<OrderedPoint> strays;
    if (minimumDuration_ < 0)
        for (const OrderedPoint& stop : survey_.strayStops())
            if (isInTime(stop.point.time, stop.point.time))
                strays.items.push_back(stop);
    if (!withContexts_)
        for (OrderedPoint& stop : strays.items)
            stop.point.context = {};
    events_.begin(std::move(withEvents));
    points_.begin(std::move(withPoints), std::move(strays));
    longest_.beginAgain();
    leftOutShort_ = 0;
}

bool TraceStream::mayHaveEvents(const RecordBlock& block,
                                std::optional<std::uint32_t> source) const {
    return block.events > 0 && isInTime(block.firstStart, block.lastEnd) &&
           (!source || block.source == *source || block.source == RecordBlock::severalSources);
}

std::span<const RecordedEvent> TraceStream::nextEvents() {
    return events_.next([this](RecordBlock& block) { return selectedEvents(block); });
}

std::span<const RecordedPoint> TraceStream::nextPoints() {
    return points_.next([this](RecordBlock& block) {
        BlockItems<OrderedPoint> points = reader_.points(block, withContexts_);
        std::erase_if(points.items, [this](const OrderedPoint& entry) {
            return !isInTime(entry.point.time, entry.point.time);
        });
        return points;
    });
}

BlockItems<RecordedEvent> TraceStream::selectedEvents(RecordBlock& block) {
    BlockItems<RecordedEvent> events = reader_.events(block, withContexts_);
    std::erase_if(events.items, [this](const RecordedEvent& event) { return !isSelected(event); });
    return events;
}

/// What ends before it starts is no matter of durations: whoever writes an export counts it.
bool TraceStream::isSelected(const RecordedEvent& event) {
    const std::int64_t end = closingTime(facts(), event);
    if (!isInTime(event.start, std::max(event.start, end)))
        return false;
    const std::int64_t duration = saturatingSubtract(end, event.start);
    if (minimumDuration_ >= 0 && duration >= 0 && duration < minimumDuration_) {
        ++leftOutShort_;
        return false;
    }
    return longest_.takes(event.source, duration);
}

}  // namespace instrument::detail
