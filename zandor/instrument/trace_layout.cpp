#include "zandor/instrument/trace_layout.hpp"

namespace instrument::detail {

TraceLayout::TraceLayout(EventStream& stream, const TraceTime& time, std::int64_t minimumDuration)
    : stream_(stream),
      facts_(stream.facts()),
      time_(time),
      shortest_(std::max<std::int64_t>(minimumDuration, 0)),
      open_(facts_.sources.size()) {
    const std::int64_t latest = time.at(facts_.lastTime);
    if (time.step() == 1 && latest >= TraceDoubles::careFrom)
        doubles_.emplace(facts_.sources.size(), latest);
    if (shortest_ == 0 && time.step() == 1 && !doubles_)
        meetings_ = stream.meetings();
    if (meetings_)
        return;
    forEachRunOfStream([this](std::span<const std::size_t> run) {
        endIsMet_.resize(before_ + events_.size());
        for (const std::size_t index : run)
            markMetEnds(index);
    });
}

/// Marks the events whose end the event's start meets. Only what can go out as a complete event
/// does.
void TraceLayout::markMetEnds(std::size_t index) {
    const RecordedEvent& event = events_[index];
    if (!isKept(event)) {
        ++(event.stop < event.start ? leftOutNegative_ : leftOutShort_);
        return;
    }
    const std::int64_t start = time_.at(event.start);
    const std::int64_t end = time_.at(closingTime(facts_, event));
    if (event.stopsElsewhere() || end <= start)
        return;
    const std::int64_t reach = start - slack();
    auto open = open_.of(event.source);
    open.popWhile([&](const OpenEvent& before) {
        const bool isOver = before.outlives <= event.start;
        if (isOver && before.shown.end >= reach)
            endIsMet_[before.index] = true;
        return isOver;
    });
    if (!open.empty() && open.top().outlives < outlives(event))
        return;
    OpenEvent& opened = open.push();
    opened.outlives = outlives(event);
    opened.shown.end = end;
    opened.index = before_ + index;
}

std::span<const PlacedEvent> TraceLayout::placeTogether(std::span<const std::size_t> run) {
    placed_.clear();
    for (const std::size_t index : run) {
        if (isKept(events_[index]))
            placed_.push_back(place(index));
    }
    std::stable_sort(placed_.begin(), placed_.end(),
                     [](const auto& a, const auto& b) { return a.end > b.end; });
    return placed_;
}

}  // namespace instrument::detail
