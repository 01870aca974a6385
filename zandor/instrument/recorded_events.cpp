#include "zandor/instrument/recorded_events.hpp"

#include "recording.hpp"

namespace instrument {

namespace {

using Kind = RecordedItem::Kind;

std::string_view nameOf(const Opaque* instrument) noexcept {
    return {instrument->name, instrument->nameLength};
}

class Reader {
  public:
    Reader(const detail::Recording& recording, RecordedItemSink& sink)
        : recording_(recording), sink_(sink) {}

    void read() {
        for (const detail::RecordedEvent& event : recording_.events) {
            takePointsBefore(event.start);
            take(event, event.finished ? Kind::event : Kind::unfinished, event.start, event.stop);
        }
        takePointsBefore(INT64_MAX);
    }

  private:
    void takePointsBefore(std::int64_t time) {
        const auto& points = recording_.strayPoints;
        for (; nextPoint_ < points.size() && points[nextPoint_].time < time; ++nextPoint_) {
            const detail::RecordedPoint& point = points[nextPoint_];
            const bool isStop = point.type == EventPointType::stop;
            take(point, isStop ? Kind::stop : Kind::instant, point.time, point.time);
        }
    }

    template <typename Recorded>
    void take(const Recorded& recorded, Kind kind, std::int64_t start, std::int64_t stop) {
        const detail::RecordedSource& source = recording_.sources[recorded.source];
        sink_.take({nameOf(recorded.instrument), source.name, source.id, kind, start, stop,
                    recorded.context});
    }

    const detail::Recording& recording_;
    RecordedItemSink& sink_;
    std::size_t nextPoint_ = 0;
};

}  // namespace

RecordedItemSink::~RecordedItemSink() = default;

void readRecording(const InstrumentRecorder& recorder, RecordedItemSink& sink) {
    Reader(detail::takeRecording(recorder), sink).read();
}

}  // namespace instrument
