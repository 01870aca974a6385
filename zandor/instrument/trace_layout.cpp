#include "zandor/instrument/trace_layout.hpp"

namespace instrument::detail {

namespace {

bool stopsElsewhere(const RecordedEvent& event) noexcept {
    return event.finished && event.stopSource != event.source;
}

bool isNegative(const RecordedEvent& event) noexcept {
    return event.finished && event.stop < event.start;
}

}  // namespace

TraceLayout::TraceLayout(const Recording& recording, const TraceTime& time,
                         std::int64_t minimumDuration)
    : recording_(recording),
      time_(time),
      minimumDuration_(minimumDuration),
      endIsMet_(recording.events.size()),
      open_(recording.sources.size()) {
    const std::int64_t latest = time.at(recording.lastTime);
    if (time.step() == 1 && latest >= TraceDoubles::careFrom)
        doubles_.emplace(recording.sources.size(), latest);
    countLeftOut();
    markMetEnds();
}

void TraceLayout::countLeftOut() {
    for (const RecordedEvent& event : recording_.events) {
        if (isNegative(event))
            ++leftOutNegative_;
        else if (!isKept(event))
            ++leftOutShort_;
    }
}

bool TraceLayout::isKept(const RecordedEvent& event) const noexcept {
    return !isNegative(event) &&
           saturatingSubtract(closingTime(recording_, event), event.start) >= minimumDuration_;
}

TraceSpan TraceLayout::spanOf(const RecordedEvent& event) const noexcept {
    return {time_.at(event.start), time_.at(closingTime(recording_, event))};
}

void TraceLayout::markMetEnds() {
    forEachRun(
        recording_.events, [](const RecordedEvent& event) { return event.start; },
        [this](std::span<const std::size_t> run) {
            for (const std::size_t index : run)
                markMetEnds(index);
        });
}

/// Marks the events whose end the event's start meets. Only what can go out as a complete event
/// does.
void TraceLayout::markMetEnds(std::size_t index) {
    const RecordedEvent& event = recording_.events[index];
    const TraceSpan span = spanOf(event);
    if (!isKept(event) || stopsElsewhere(event) || span.end <= span.start)
        return;
    const std::int64_t slack = doubles_ ? doubles_->slack() : 0;
    while (!open_.empty(event.source) && open_.top(event.source).outlives <= event.start) {
        const OpenEvent& ended = open_.top(event.source);
        if (ended.shown.end + slack >= span.start)
            endIsMet_[ended.index] = true;
        open_.pop(event.source);
    }
    if (open_.empty(event.source) || open_.top(event.source).outlives >= outlives(event))
        open_.push(event.source, {outlives(event), span, index});
}

void TraceLayout::begin() {
    open_ = SourceStacks<OpenEvent>(recording_.sources.size());
}

std::span<const PlacedEvent> TraceLayout::place(std::span<const std::size_t> run) {
    placed_.clear();
    for (const std::size_t index : run) {
        if (isKept(recording_.events[index]))
            placed_.push_back(place(index));
    }
    if (placed_.size() > 1)
        std::stable_sort(placed_.begin(), placed_.end(),
                         [](const auto& a, const auto& b) { return a.end > b.end; });
    return placed_;
}

PlacedEvent TraceLayout::place(std::size_t index) {
    const RecordedEvent& event = recording_.events[index];
    const TraceSpan span = spanOf(event);
    PlacedEvent placed{&event, span.start, span.end, TraceShape::asyncPair};
    if (stopsElsewhere(event))
        return placed;
    placed.shape = TraceShape::instant;
    if (span.end <= span.start)
        return placed;
    while (!open_.empty(event.source) && open_.top(event.source).outlives <= event.start)
        open_.pop(event.source);
    if (!open_.empty(event.source) && open_.top(event.source).outlives < outlives(event)) {
        placed.shape = TraceShape::asyncPair;
        return placed;
    }
    const auto end = fittingEnd(event.source, span, endIsMet_[index]);
    // Without room it is still what encloses others, which have no room either.
    open_.push(event.source, {outlives(event), {span.start, end.value_or(span.start)}, index});
    if (end) {
        placed.shape = TraceShape::complete;
        placed.end = *end;
    }
    return placed;
}

/// The end with which an event is inside its parent and before what meets it, if there is one.
std::optional<std::int64_t> TraceLayout::fittingEnd(std::uint32_t source, TraceSpan span,
                                                    bool isMet) {
    const std::int64_t meets = span.end;
    const TraceSpan* parent = open_.empty(source) ? nullptr : &open_.top(source).shown;
    if (isMet)
        --span.end;
    if (parent)
        span.end = std::min(span.end, parent->end - 1);
    if (span.end <= span.start)
        return std::nullopt;
    if (!doubles_)
        return span.end;
    return doubles_->fittingEnd(source, span, isMet ? std::optional(meets) : std::nullopt, parent);
}

}  // namespace instrument::detail
