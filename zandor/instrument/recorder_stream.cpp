#include "recorder_stream.hpp"

#include <algorithm>
#include <tuple>
#include <utility>

#include "control_registry.hpp"
#include "recorder_core.hpp"
#include "recorder_merge.hpp"

namespace instrument::detail {
namespace {

constexpr std::ptrdiff_t windowWords = 8192;
constexpr std::size_t mostMeetings = 4096;

}  // namespace

/// The snapshot as a Matcher sees it, which is cut into windows at the first look.
class RecorderStream::View {
  public:
    explicit View(RecorderStream& stream)
        : snapshot_(stream.snapshot_), windows_(stream.windows_) {}

    const EventIdSet& foreignStops() const noexcept { return snapshot_.foreignStops(); }
    bool isLost(EventId id) const noexcept { return snapshot_.isLost(id); }
    static std::span<const Word> keep(std::span<const Word> words) noexcept { return words; }

    template <class Visit>
    void forEachStretch(Visit visit) {
        if (std::exchange(isCut_, true))
            return snapshot_.forEachStretch(visit);
        snapshot_.forEachStretch([&](const Stretch& stretch, bool beginsTrack) {
            for (Stretch rest = stretch; rest.begin != rest.end; beginsTrack = false) {
                current_ = &windows_.emplace_back(RecordWindow{rest});
                Stretch& window = current_->stretch;
                window.end = rest.begin + std::min(windowWords, rest.end - rest.begin);
                const RecordReader reader = visit(window, beginsTrack);
                window.end = rest.begin = reader.position();
                rest.state = reader.state();
            }
        });
        current_ = nullptr;
    }
    /// The window that is looked at; null behind the last.
    RecordWindow* current() const noexcept { return current_; }

  private:
    const Snapshot& snapshot_;
    std::deque<RecordWindow>& windows_;
    RecordWindow* current_ = nullptr;
    bool isCut_ = false;
};

/// Finds what has to be known before events are read in order.
class RecorderStream::Survey {
  public:
    struct Open {
        RecordWindow* window;
        std::int64_t start;
        std::uint32_t event;
        bool meets;  ///< another's stop, where it starts
    };

    Survey(RecorderStream& stream, const View& view) : stream_(stream), view_(view) {}

    Open onStart(const Point& start) {
        RecordWindow& window = *view_.current();
        noteBegin(window, start);
        Edges& edges = edgesOf(start);
        noteOrder(edges, start.time);
        const bool meets = start.time == edges.latestStop;
        openMeetings_ += meets;
        edges.latest = start.time;
        window.firstStart = std::min(window.firstStart, start.time);
        return {&window, start.time, window.events++, meets};
    }
    void onStop(Open open, const Point& stop) {
        Edges& edges = edgesOf(stop);
        noteOrder(edges, stop.time);
        stream_.meetingsAreKnown_ = stream_.meetingsAreKnown_ && stop.time >= open.start;
        if (open.meets && stream_.meetingsAreKnown_)
            noteMeeting(open, stop);
        edges.latest = edges.latestStop = stop.time;
        if (open.window != view_.current())
            open.window->lateStops.push_back({open.event, latestPlace_, stop.time});
    }
    void onInstant(const Point& instant) {
        RecordWindow& window = *view_.current();
        noteBegin(window, instant);
        edgesOf(instant);
        window.firstPoint = std::min(window.firstPoint, instant.time);
    }
    void onStrayStop(const Point& stop) {
        edgesOf(stop);
        ContextTable& contexts = stream_.contexts_;
        stream_.strayStops_.push_back({{.time = stop.time,
                                        .serial = stop.id.serialId,
                                        .instrument = instrumentFromId(stop.instrument),
                                        .source = latestPlace_,
                                        .context = contexts.argsOf(contexts.placeOf(stop.context)),
                                        .type = EventPointType::stop},
                                       stop.order});
    }

    bool hasOpenMeetings() const noexcept { return openMeetings_ > 0; }

  private:
    /// The last times of a source.
    struct Edges {
        std::int64_t latest = INT64_MIN;
        std::int64_t latestStop = INT64_MIN;
    };

    Edges& edgesOf(const Point& point) {
        stream_.facts_.lastTime = std::max(stream_.facts_.lastTime, point.time);
        if (point.source != latestSource_) [[unlikely]]
            changeSource(point.source);
        return edges_[latestPlace_];
    }
    void changeSource(SourceInfo* source) {
        latestSource_ = source;
        latestPlace_ = stream_.sources_.placeOf(source);
        if (latestPlace_ >= edges_.size())
            edges_.resize(latestPlace_ + 1);
    }
    void noteOrder(const Edges& edges, std::int64_t time) noexcept {
        stream_.meetingsAreKnown_ = stream_.meetingsAreKnown_ && time >= edges.latest;
    }
    void noteMeeting(const Open& open, const Point& stop) {
        --openMeetings_;
        if (stop.time > open.start && stop.source->id == stop.id.sourceId)
            stream_.meetings_.emplace_back(latestPlace_, open.start);
        if (stream_.meetings_.size() > mostMeetings)
            stream_.meetingsAreKnown_ = false;
    }
    static void noteBegin(RecordWindow& window, const Point& point) noexcept {
        if (window.events == 0 && window.firstPoint == RecordBlock::never)
            window.order = point.order;
    }

    RecorderStream& stream_;
    const View& view_;
    std::vector<Edges> edges_{1};  // by place of the source
    SourceInfo* latestSource_ = nullptr;
    std::uint32_t latestPlace_ = 0;
    std::size_t openMeetings_ = 0;  // of events that were not seen to stop
};

/// The number of the source that records are of, as long as it is the same.
class RecorderStream::SourceNumber {
  public:
    explicit SourceNumber(RecorderStream& stream) noexcept : stream_(stream) {}
    std::uint32_t of(SourceInfo* source) {
        if (source != source_) [[unlikely]] {
            source_ = source;
            number_ = stream_.numberOf(source);
        }
        return number_;
    }

  private:
    RecorderStream& stream_;
    SourceInfo* source_ = nullptr;
    std::uint32_t number_ = 0;
};

RecorderStream::RecorderStream(const InstrumentRecorder& recorder) : snapshot_(recorder.core()) {
    View view(*this);
    Survey survey(*this, view);
    Matcher<Survey, View>(view, survey).run();
    const std::int64_t lastTime = facts_.lastTime;
    facts_ = factsOf({snapshot_.drops(), snapshot_.origin()});
    facts_.lastTime = lastTime;
    std::tie(facts_.sources, numbers_) = sources_.sorted();
    for (RecordWindow& window : windows_)
        for (LateStop& late : window.lateStops)
            late.source = numbers_[late.source];
    meetingsAreKnown_ = meetingsAreKnown_ && !survey.hasOpenMeetings();
    for (auto& [source, time] : meetings_)
        source = numbers_[source];
    std::ranges::sort(meetings_);
    for (OrderedPoint& stop : strayStops_)
        stop.point.source = numbers_[stop.point.source];
    std::ranges::stable_sort(strayStops_, PointEntry::less);
    RecorderStream::rewind();
}

RecorderStream::~RecorderStream() = default;

void RecorderStream::rewind(std::optional<std::uint32_t>) {
    std::vector<RecordWindow*> withEvents;
    std::vector<RecordWindow*> withPoints;
    for (RecordWindow& window : windows_) {
        if (window.events > 0)
            withEvents.push_back(&window);
        if (window.firstPoint != RecordBlock::never)
            withPoints.push_back(&window);
    }
    events_.begin(std::move(withEvents));
    points_.begin(std::move(withPoints), {strayStops_, {}});
}

std::span<const RecordedEvent> RecorderStream::nextEvents() {
    return events_.next([this](const RecordWindow& window) { return eventsOf(window); });
}

std::span<const RecordedPoint> RecorderStream::nextPoints() {
    return points_.next([this](const RecordWindow& window) { return pointsOf(window); });
}

BlockItems<RecordedEvent> RecorderStream::eventsOf(const RecordWindow& window) {
    BlockItems<RecordedEvent> found;
    ContextTable contexts;
    const EventIdSet& stoppedElsewhere = snapshot_.foreignStops();
    std::vector<RecordedEvent>& events = found.items;
    std::int64_t latest = INT64_MIN;
    bool isInOrder = true;
    SourceNumber source(*this);
    run_.clear();
    events.reserve(window.events);
    RecordReader reader(window.stretch.begin, window.stretch.end, window.stretch.state);
    for (Record record; reader.next(record);) {
        if (record.kind == RecordKind::start) {
            const auto place = static_cast<std::uint32_t>(events.size());
            RecordedEvent& event = events.emplace_back();
            event.start = event.stop = times_.of(record);
            event.serial = record.id.serialId;
            event.instrument = instrumentFromId(record.instrument);
            event.source = event.stopSource = source.of(record.sourceInfo);
            if (!record.context.empty())
                event.context = contexts.argsOf(contexts.placeOf(record.context));
            isInOrder = isInOrder && latest < event.start;
            latest = event.start;
            if (stoppedElsewhere.empty() || stoppedElsewhere.find(record.id) == EventIdSet::none)
                run_.push(record.id.serialId, place);
        } else if (record.kind == RecordKind::stop) {
            if (const std::uint32_t* const open = run_.take(record.id.serialId)) {
                events[*open].stop = times_.of(record);
                events[*open].finished = true;
            }
        } else if (record.kind == RecordKind::source && record.beginsRun) {
            run_.clear();
        }
    }
    for (const LateStop& late : window.lateStops) {
        RecordedEvent& event = events[late.event];
        event.stop = late.time;
        event.stopSource = late.source;
        event.finished = true;
    }
    if (!isInOrder)
        sortRuns(events, EventEntry::less);
    found.contexts = contexts.takeArgs();
    return found;
}

BlockItems<OrderedPoint> RecorderStream::pointsOf(const RecordWindow& window) {
    BlockItems<OrderedPoint> found;
    ContextTable contexts;
    std::uint64_t order = window.order;
    bool counts = false;
    RecordReader reader(window.stretch.begin, window.stretch.end, window.stretch.state);
    for (Record record; reader.next(record);) {
        if (record.kind >= RecordKind::source)
            continue;
        counts = counts || record.kind == RecordKind::start || record.kind == RecordKind::instant;
        if (record.kind == RecordKind::instant)
            found.items.push_back({{.time = times_.of(record),
                                    .serial = record.id.serialId,
                                    .instrument = instrumentFromId(record.instrument),
                                    .source = numberOf(record.sourceInfo),
                                    .context = contexts.argsOf(contexts.placeOf(record.context)),
                                    .type = EventPointType::instant},
                                   order});
        order += counts;
    }
    sortRuns(found.items, PointEntry::less);
    found.contexts = contexts.takeArgs();
    return found;
}

}  // namespace instrument::detail
