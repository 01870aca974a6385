// How each event of a recording goes out in a trace, so that every viewer finds the right nesting.
//
// Viewers take complete events of a thread for a tree, and lose it where an event ends on its
// parent's end, starts on its sibling's, or lasts no time. So ends are drawn inward by one step
// where they meet another (each level of a stack that unwinds at once by one more). What then has
// no time left, or had none, goes out as an instant; what overlaps without nesting, or stops on
// another thread, as an asynchronous pair. Starts stay where they are.
//
// Two passes over the events, the first of which is left out where the stream tells what ends meet.
// Besides them this takes a bit an event then, and 40 bytes an event that is open at once.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "zandor/instrument/event_order.hpp"
#include "zandor/instrument/recording.hpp"
#include "zandor/instrument/source_stacks.hpp"
#include "zandor/instrument/trace_doubles.hpp"
#include "zandor/instrument/trace_time.hpp"

namespace instrument::detail {

enum class TraceShape : std::uint8_t { complete, asyncPair, instant };

/// Times in steps of the trace's time.
struct PlacedEvent {
    const RecordedEvent* event = nullptr;
    std::int64_t start = 0;
    std::int64_t end = 0;
    TraceShape shape = TraceShape::complete;
};

class ZANDOR_INSTRUMENT_API TraceLayout {
  public:
    /// Events shorter than `minimumDuration` are left out.
    TraceLayout(EventStream& stream, const TraceTime& time, std::int64_t minimumDuration);

    /// Calls `visit` with each placed event, by start, those that start together longer first.
    template <typename Visit>
    void forEach(Visit visit) {
        open_.clear();
        forEachRunOfStream([&](std::span<const std::size_t> run) {
            if (run.size() > 1) [[unlikely]] {
                for (const PlacedEvent& placed : placeTogether(run))
                    visit(placed);
            } else if (isKept(events_[run[0]])) {
                visit(place(run[0]));
            }
        });
    }

    std::uint64_t leftOutNegative() const noexcept { return leftOutNegative_; }
    std::uint64_t leftOutShort() const noexcept { return leftOutShort_; }

  private:
    struct TogetherIn {
        const TraceTime& time;
        bool operator()(std::int64_t a, std::int64_t b) const noexcept {
            return time.isSameStep(a, b);
        }
    };
    struct OpenEvent {
        std::int64_t outlives;  // nanoseconds
        TraceSpan shown;
        std::size_t index;
    };

    template <typename Visit>
    void forEachRunOfStream(Visit visit) {
        before_ = 0;
        forEachPiece(stream_, [&](std::span<const RecordedEvent> events) {
            events_ = events;
            forEachRun(events, TogetherIn{time_}, visit);
            before_ += events.size();
        });
    }
    bool isKept(const RecordedEvent& event) const noexcept {
        return saturatingSubtract(closingTime(facts_, event), event.start) >= shortest_;
    }
    void markMetEnds(std::size_t index);
    bool isMet(std::size_t index) const {
        if (!meetings_)
            return endIsMet_[before_ + index];
        return meetings_->has(events_[index].source, outlives(events_[index]));
    }
    PlacedEvent place(std::size_t index);
    std::span<const PlacedEvent> placeTogether(std::span<const std::size_t> run);
    std::int64_t slack() const noexcept { return doubles_ ? doubles_->slack() : 0; }
    std::int64_t fittingEnd(std::uint32_t source, TraceSpan span, bool isMet,
                            const TraceSpan* parent);

    EventStream& stream_;
    const RecordingFacts& facts_;
    std::span<const RecordedEvent> events_;  // the present piece
    std::size_t before_ = 0;                 // events of the pieces before it
    const TraceTime& time_;
    const std::int64_t shortest_;  // that is kept: a negative duration never is
    std::uint64_t leftOutNegative_ = 0;
    std::uint64_t leftOutShort_ = 0;
    /// As the stream tells; null where it does not, or more has to be known.
    const Meetings* meetings_ = nullptr;
    /// By event: another starts on its end, or so close behind that doubles may meet.
    std::vector<bool> endIsMet_;
    SourceStacks<OpenEvent> open_;
    /// Where a step is too fine for doubles to add without care.
    std::optional<TraceDoubles> doubles_;
    std::vector<PlacedEvent> placed_;
};

// In line: of each event once.
inline PlacedEvent TraceLayout::place(std::size_t index) {
    const RecordedEvent& event = events_[index];
    PlacedEvent placed{&event, time_.at(event.start), time_.at(closingTime(facts_, event)),
                       TraceShape::asyncPair};
    if (event.stopsElsewhere())
        return placed;
    placed.shape = TraceShape::instant;
    if (placed.end <= placed.start)
        return placed;
    auto open = open_.of(event.source);
    open.popWhile([&](const OpenEvent& before) { return before.outlives <= event.start; });
    const OpenEvent* const parent = open.empty() ? nullptr : &open.top();
    if (parent && parent->outlives < outlives(event)) {
        placed.shape = TraceShape::asyncPair;
        return placed;
    }
    const std::int64_t end = fittingEnd(event.source, {placed.start, placed.end}, isMet(index),
                                        parent ? &parent->shown : nullptr);
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
inline std::int64_t TraceLayout::fittingEnd(std::uint32_t source, TraceSpan span, bool isMet,
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
