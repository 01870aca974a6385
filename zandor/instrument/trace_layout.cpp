#include "zandor/instrument/trace_layout.hpp"

namespace instrument::detail {

namespace {

bool stopsElsewhere(const RecordedEvent& event) noexcept {
    return event.finished && event.stopSource != event.source;
}

}  // namespace

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
    if (stopsElsewhere(event) || end <= start)
        return;
    const std::int64_t reach = start - slack();
    auto open = open_.of(event.source);
    while (!open.empty() && open.top().outlives <= event.start) {
        if (open.top().shown.end >= reach)
            endIsMet_[open.top().index] = true;
        open.pop();
    }
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

PlacedEvent TraceLayout::place(std::size_t index) {
    const RecordedEvent& event = events_[index];
    PlacedEvent placed{&event, time_.at(event.start), time_.at(closingTime(facts_, event)),
                       TraceShape::asyncPair};
    if (stopsElsewhere(event))
        return placed;
    placed.shape = TraceShape::instant;
    if (placed.end <= placed.start)
        return placed;
    auto open = open_.of(event.source);
    while (!open.empty() && open.top().outlives <= event.start)
        open.pop();
    if (!open.empty() && open.top().outlives < outlives(event)) {
        placed.shape = TraceShape::asyncPair;
        return placed;
    }
    const TraceSpan* parent = open.empty() ? nullptr : &open.top().shown;
    const std::int64_t end =
        fittingEnd(event.source, {placed.start, placed.end}, isMet(index), parent);
    // Without room it is still what encloses others, which have no room either.
    OpenEvent& opened = open.push();
    opened.outlives = outlives(event);
    opened.shown.start = placed.start;
    opened.shown.end = end;
    if (end > placed.start) {
        placed.shape = TraceShape::complete;
        placed.end = end;
    }
    return placed;
}

/// The end with which an event is inside its parent and before what meets it; its start for none.
std::int64_t TraceLayout::fittingEnd(std::uint32_t source, TraceSpan span, bool isMet,
                                     const TraceSpan* parent) {
    const std::int64_t meets = span.end;
    span.end -= isMet;
    if (parent)
        span.end = std::min(span.end, parent->end - 1);
    if (doubles_) [[unlikely]]
        return doubles_->fittingEnd(source, span, isMet ? std::optional(meets) : std::nullopt,
                                    parent);
    return std::max(span.end, span.start);
}

}  // namespace instrument::detail
