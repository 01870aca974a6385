// The recorder's queries of events and of single points.
#include <tuple>

#include "control_registry.hpp"
#include "name_index.hpp"
#include "recorder_context.hpp"
#include "recorder_core.hpp"
#include "recorder_matching.hpp"
#include "recorder_merge.hpp"
#include "recorder_selection.hpp"
#include "recorder_sources.hpp"
#include "recording.hpp"
#include "zandor/instrument/recorder.hpp"

namespace instrument {
namespace detail {
namespace {

std::string_view nameOf(const Opaque* instrument) noexcept {
    return {instrument->name, instrument->nameLength};
}

std::vector<std::string_view> labelsOf(const std::vector<RecordedSource>& sources) {
    std::vector<std::string_view> labels;
    labels.reserve(sources.size());
    for (const RecordedSource& source : sources)
        labels.push_back(labelOf(source));
    return labels;
}

std::vector<InstrumentRecorder::Event> selectEvents(const InstrumentRecorder& recorder,
                                                    const Selection& selection) {
    std::vector<InstrumentRecorder::Event> events;
    if (selection.isEmpty())
        return events;
    const Recording recording = takeRecording(recorder, selection.instrument());
    const std::vector<std::string_view> labels = labelsOf(recording.sources);
    for (const RecordedEvent& event : recording.events) {
        if (!event.finished || !selection.hasInstrument(event.instrument->id))
            continue;
        const ContextArgs context = event.context;
        if (!selection.hasContext(context))
            continue;
        const EventId id{recording.sources[event.source].id, event.serial};
        events.push_back({nameOf(event.instrument), makeContextSet(context), id, event.start,
                          event.stop, labels[event.source]});
    }
    return events;
}

/// Collects all points of a snapshot, stops with their own name and context.
class PointSink {
  public:
    struct Entry {
        std::int64_t time;
        std::uint64_t order;
        EventId id;
        std::uint32_t source;
        std::uint32_t instrument;
        std::uint32_t context;
        EventPointType type;
    };
    using Open = std::uint32_t;  // the start's context

    explicit PointSink(const Selection& selection) : selection_(selection) {}

    Open onStart(const Point& start) {
        const std::uint32_t context = contexts_.placeOf(start.context);
        add(start, EventPointType::start, context);
        return context;
    }
    void onStop(Open open, const Point& stop) {
        const auto context = stop.hasContextOfStart ? open : contexts_.placeOf(stop.context);
        add(stop, EventPointType::stop, context);
    }
    void onInstant(const Point& instant) {
        add(instant, EventPointType::instant, contexts_.placeOf(instant.context));
    }
    void onStrayStop(const Point& stop) {
        add(stop, EventPointType::stop, contexts_.placeOf(stop.context));
    }

    std::vector<InstrumentRecorder::EventPoint> take() {
        const auto [sources, places] = sources_.sorted();
        const std::vector<std::string_view> labels = labelsOf(sources);
        for (Entry& entry : entries_)
            entry.source = places[entry.source];
        sortRuns(entries_, [](const Entry& a, const Entry& b) {
            return std::tie(a.time, a.source, a.order) < std::tie(b.time, b.source, b.order);
        });
        std::vector<InstrumentRecorder::EventPoint> points;
        points.reserve(entries_.size());
        for (const Entry& entry : entries_)
            points.push_back({nameOf(instrumentFromId(entry.instrument)),
                              makeContextSet(contexts_.argsOf(entry.context)), entry.id, entry.type,
                              entry.time, labels[entry.source]});
        return points;
    }

  private:
    void add(const Point& point, EventPointType type, std::uint32_t context) {
        if (selection_.hasInstrument(point.instrument) &&
            selection_.hasContext(contexts_.argsOf(context)))
            entries_.push_back({point.time, point.order, point.id, sources_.placeOf(point.source),
                                point.instrument, context, type});
    }

    const Selection& selection_;
    ContextTable contexts_;
    SourceList sources_;
    std::vector<Entry> entries_;
};

std::vector<InstrumentRecorder::EventPoint> selectPoints(RecorderCore& core,
                                                         const Selection& selection) {
    if (selection.isEmpty())
        return {};
    PointSink sink(selection);
    readSelected(core, selection, sink);
    return sink.take();
}

}  // namespace
}  // namespace detail

using detail::Selection;

std::vector<InstrumentRecorder::Event> InstrumentRecorder::getAllEvents() const {
    return detail::selectEvents(*this, Selection());
}

std::vector<InstrumentRecorder::Event> InstrumentRecorder::getEvents(std::string_view name) const {
    return detail::selectEvents(*this, Selection(name));
}

std::vector<InstrumentRecorder::Event> InstrumentRecorder::getEventsForContext(
    std::string_view name, const std::vector<ContextEntry>& entries) const {
    return detail::selectEvents(*this, Selection(name, entries));
}

std::vector<InstrumentRecorder::EventPoint> InstrumentRecorder::getAllEventPoints() const {
    return detail::selectPoints(core(), Selection());
}

std::vector<InstrumentRecorder::EventPoint> InstrumentRecorder::getEventPoints(
    std::string_view name) const {
    return detail::selectPoints(core(), Selection(name));
}

std::vector<InstrumentRecorder::EventPoint> InstrumentRecorder::getEventPointsForContext(
    std::string_view name, const std::vector<ContextEntry>& entries) const {
    return detail::selectPoints(core(), Selection(name, entries));
}

}  // namespace instrument
