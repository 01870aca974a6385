// Puts together a recording from what a Matcher tells.
#pragma once

#include <algorithm>
#include <cstdint>
#include <tuple>
#include <utility>
#include <vector>

#include "recorder_context.hpp"
#include "recorder_matching.hpp"
#include "recorder_merge.hpp"
#include "recorder_sources.hpp"
#include "recording.hpp"

namespace instrument::detail {

/// Collects a recording. Points keep their order in the source until they are sorted.
class RecordingSink {
  public:
    using Open = std::size_t;

    explicit RecordingSink(const RecordNames& names = RecordNames::ofThisProcess())
        : names_(names), contexts_(names) {}

    Open onStart(const Point& start) {
        const std::uint32_t source = placeOf(start);
        events_.push_back({.start = start.time,
                           .stop = start.time,
                           .serial = start.id.serialId,
                           .instrument = names_.instrument(start.instrument),
                           .source = source,
                           .stopSource = source,
                           .context = contextOf(start),
                           .finished = false});
        return events_.size() - 1;
    }
    void onStop(Open open, const Point& stop) {
        RecordedEvent& event = events_[open];
        event.stop = stop.time;
        event.stopSource = placeOf(stop);
        event.finished = true;
    }
    void onInstant(const Point& instant) { addPoint(instant, EventPointType::instant); }
    void onStrayStop(const Point& stop) { addPoint(stop, EventPointType::stop); }

    Recording take() {
        Recording recording;
        auto [sources, places] = sources_.sorted();
        recording.sources = std::move(sources);
        for (RecordedEvent& event : events_) {
            event.source = places[event.source];
            event.stopSource = places[event.stopSource];
        }
        for (OrderedPoint& ordered : points_)
            ordered.point.source = places[ordered.point.source];
        sortRuns(events_, [](const RecordedEvent& a, const RecordedEvent& b) {
            return std::tie(a.start, a.source, a.serial) < std::tie(b.start, b.source, b.serial);
        });
        sortRuns(points_, [](const OrderedPoint& a, const OrderedPoint& b) {
            return std::tie(a.point.time, a.point.source, a.order) <
                   std::tie(b.point.time, b.point.source, b.order);
        });
        recording.events = std::move(events_);
        recording.strayPoints.reserve(points_.size());
        for (const OrderedPoint& ordered : points_)
            recording.strayPoints.push_back(ordered.point);
        recording.contextArgs = contexts_.takeArgs();
        recording.lastTime = lastTime_;
        return recording;
    }

  private:
    struct OrderedPoint {
        RecordedPoint point;
        std::uint64_t order;
    };

    /// Of each point, once.
    std::uint32_t placeOf(const Point& point) {
        lastTime_ = std::max(lastTime_, point.time);
        return sources_.placeOf(point.source);
    }
    ContextArgs contextOf(const Point& point) {
        return contexts_.argsOf(contexts_.placeOf(point.context));
    }
    void addPoint(const Point& point, EventPointType type) {
        points_.push_back({{.time = point.time,
                            .serial = point.id.serialId,
                            .instrument = names_.instrument(point.instrument),
                            .source = placeOf(point),
                            .context = contextOf(point),
                            .type = type},
                           point.order});
    }

    const RecordNames& names_;
    std::vector<RecordedEvent> events_;
    std::vector<OrderedPoint> points_;
    ContextTable contexts_;
    SourceList sources_;
    std::int64_t lastTime_ = 0;
};

}  // namespace instrument::detail
