// What a recorder holds as a stream, read where it stands: window by window, so that the memory it
// takes does not grow with the events but for a hundred bytes a window and what is open across one.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <span>
#include <vector>

#include "event_stream.hpp"
#include "meetings.hpp"
#include "recorder_matching.hpp"
#include "recorder_sources.hpp"
#include "trace_merge.hpp"
#include "trace_survey.hpp"

namespace instrument::detail {

/// Some records that follow each other, and what the survey found of their events.
struct RecordWindow {
    Stretch stretch;
    std::uint32_t events = 0;
    std::int64_t firstStart = RecordBlock::never;
    std::int64_t firstPoint = RecordBlock::never;
    std::uint64_t order = 0;            ///< of its first start or instant, among all
    std::vector<LateStop> lateStops{};  ///< of its events
};

/// As long as it lives, a full recorder takes nothing new.
class ZANDOR_INSTRUMENT_API RecorderStream : public EventStream {
  public:
    explicit RecorderStream(const InstrumentRecorder& recorder);
    ~RecorderStream() override;

    const RecordingFacts& facts() const noexcept override { return facts_; }
    void rewind(std::optional<std::uint32_t> onlySource = {}) override;
    std::span<const RecordedEvent> nextEvents() override;
    std::span<const RecordedPoint> nextPoints() override;
    const Meetings* meetings() const noexcept override {
        return meetingsAreKnown_ ? &meetings_ : nullptr;
    }

  private:
    class View;
    class Survey;
    class SourceNumber;
    class WindowEvents;

    BlockItems<RecordedEvent> eventsOf(const RecordWindow& window);
    BlockItems<OrderedPoint> pointsOf(const RecordWindow& window);
    std::uint32_t numberOf(SourceInfo* source) { return numbers_[sources_.placeOf(source)]; }

    Snapshot snapshot_;
    RecordingFacts facts_;
    std::deque<RecordWindow> windows_;
    SourceList sources_;
    std::vector<std::uint32_t> numbers_;  ///< in facts_, by place in sources_
    ContextTable contexts_;               ///< of stray stops
    std::vector<OrderedPoint> strayStops_;
    bool meetingsAreKnown_ = false;  ///< times are in order, and meetings few
    Meetings meetings_;
    TimeReader times_;
    OpenRun<std::uint32_t> run_;
    TraceMerge<RecordedEvent, EventEntry, RecordWindow> events_;
    TraceMerge<OrderedPoint, PointEntry, RecordWindow> points_;
};

}  // namespace instrument::detail
