// A recording in the order of time, piece by piece: so that what reads it does not need it whole.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "meetings.hpp"
#include "recording.hpp"

namespace instrument::detail {

class ZANDOR_INSTRUMENT_API EventStream {
  public:
    virtual ~EventStream();

    virtual const RecordingFacts& facts() const noexcept = 0;

    /// Begins again. With a source, events of others may be left out.
    virtual void rewind(std::optional<std::uint32_t> onlySource = {}) = 0;

    /// The next events by start, source, serial; those that start at once come together. None at
    /// the end. They and their contexts stay until the next call.
    virtual std::span<const RecordedEvent> nextEvents() = 0;
    /// The same of points, by time, source, order in the source.
    virtual std::span<const RecordedPoint> nextPoints() = 0;

    /// Where events that last, and stop on their own thread, start just where another of their
    /// source stopped. Null where that is not known, or some duration is negative.
    virtual const Meetings* meetings() const noexcept { return nullptr; }

    /// Whether exports tell more of an event than its name and times.
    virtual bool hasArgs() const noexcept { return true; }
    /// Events that were left out since it began because they are shorter than was asked for.
    virtual std::uint64_t leftOutShort() const noexcept { return 0; }
};

/// Of a recording in memory, which outlives it: all at once.
class ZANDOR_INSTRUMENT_API RecordingStream : public EventStream {
  public:
    explicit RecordingStream(const Recording& recording) : recording_(recording) { rewind({}); }

    const RecordingFacts& facts() const noexcept override { return recording_; }
    void rewind(std::optional<std::uint32_t> onlySource) override;
    std::span<const RecordedEvent> nextEvents() override;
    std::span<const RecordedPoint> nextPoints() override;

  private:
    const Recording& recording_;
    std::span<const RecordedEvent> events_;
    std::span<const RecordedPoint> points_;
};

/// Calls `visit` with each piece of the events from the beginning on.
template <class Visit>
void forEachPiece(EventStream& stream, Visit visit, std::optional<std::uint32_t> source = {}) {
    stream.rewind(source);
    for (auto events = stream.nextEvents(); !events.empty(); events = stream.nextEvents())
        visit(events);
}

}  // namespace instrument::detail
