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
        Edges& edges = edgesOf(start.source);
        noteTime(edges, start.time);
        const bool meets = start.time == edges.latestStop;
        openMeetings_ += meets;
        window.firstStart = std::min(window.firstStart, start.time);
        return {&window, start.time, window.events++, meets};
    }
    void onStop(Open open, const Point& stop) {
        Edges& edges = edgesOf(stop.source);
        noteTime(edges, stop.time);
        edges.latestStop = stop.time;
        if (stop.time < open.start) [[unlikely]]
            isInOrder_ = false;
        if (open.meets) [[unlikely]]
            noteMeeting(open, stop);
        if (open.window != view_.current()) [[unlikely]]
            open.window->lateStops.push_back({open.event, latestPlace_, stop.time});
    }
    void onInstant(const Point& instant) {
        RecordWindow& window = *view_.current();
        noteBegin(window, instant);
        noteOther(instant);
        window.firstPoint = std::min(window.firstPoint, instant.time);
    }
    void onStrayStop(const Point& stop) {
        noteOther(stop);
        ContextTable& contexts = stream_.contexts_;
        stream_.strayStops_.push_back({{.time = stop.time,
                                        .serial = stop.id.serialId,
                                        .instrument = instrumentFromId(stop.instrument),
                                        .source = latestPlace_,
                                        .context = contexts.argsOf(contexts.placeOf(stop.context)),
                                        .type = EventPointType::stop},
                                       stop.order});
    }

    std::int64_t lastTime() const noexcept {
        return std::ranges::max(edges_, {}, &Edges::lastTime).lastTime;
    }
    /// Whether all meetings were found: times are in order, and meetings few.
    bool knowsMeetings() const noexcept {
        return isInOrder_ && openMeetings_ == 0 && meetings_.size() <= mostMeetings;
    }
    /// By the places of sources.
    std::vector<Meeting> takeMeetings() noexcept { return std::move(meetings_); }

  private:
    /// The last times of a source.
    struct Edges {
        std::int64_t latest = INT64_MIN;  ///< of starts and stops
        std::int64_t latestStop = INT64_MIN;
        std::int64_t lastTime = 0;  ///< of all
    };

    Edges& edgesOf(SourceInfo* source) {
        if (source != latestSource_) [[unlikely]]
            changeSource(source);
        return *latestEdges_;
    }
    void changeSource(SourceInfo* source) {
        latestSource_ = source;
        latestPlace_ = stream_.sources_.placeOf(source);
        if (latestPlace_ >= edges_.size())
            edges_.resize(latestPlace_ + 1);
        latestEdges_ = &edges_[latestPlace_];
    }
    void noteTime(Edges& edges, std::int64_t time) noexcept {
        if (time < edges.latest) [[unlikely]]
            isInOrder_ = false;
        edges.latest = time;
        edges.lastTime = std::max(edges.lastTime, time);
    }
    void noteOther(const Point& point) {
        Edges& edges = edgesOf(point.source);
        edges.lastTime = std::max(edges.lastTime, point.time);
    }
    void noteMeeting(const Open& open, const Point& stop) {
        --openMeetings_;
        const bool lasts = stop.time > open.start;
        if (lasts && stop.source->id == stop.id.sourceId && meetings_.size() <= mostMeetings)
            meetings_.emplace_back(latestPlace_, open.start);
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
    Edges* latestEdges_ = edges_.data();
    bool isInOrder_ = true;
    std::size_t openMeetings_ = 0;  // of events that were not seen to stop
    std::vector<Meeting> meetings_;
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
    facts_ = factsOf({snapshot_.drops(), snapshot_.origin()});
    facts_.lastTime = survey.lastTime();
    std::tie(facts_.sources, numbers_) = sources_.sorted();
    for (RecordWindow& window : windows_)
        for (LateStop& late : window.lateStops)
            late.source = numbers_[late.source];
    meetingsAreKnown_ = survey.knowsMeetings();
    std::vector<Meeting> meetings = survey.takeMeetings();
    for (auto& [source, time] : meetings)
        source = numbers_[source];
    meetings_ = Meetings(std::move(meetings));
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

/// Puts together the events of a window.
class RecorderStream::WindowEvents {
  public:
    WindowEvents(RecorderStream& stream, const RecordWindow& window)
        : times_(stream.times_),
          run_(stream.run_),
          stoppedElsewhere_(stream.snapshot_.foreignStops()),
          source_(stream),
          window_(window) {
        run_.clear();
        events_.reserve(window.events);
    }

    BlockItems<RecordedEvent> read() {
        RecordReader reader(window_.stretch.begin, window_.stretch.end, window_.stretch.state);
        for (Record record;;) {
            readShortEdges(reader);
            if (!reader.next(record))
                break;
            readOther(record);
        }
        addLateStops();
        if (!isInOrder_)
            sortRuns(events_, EventEntry::less);
        return {std::move(events_), contexts_.takeArgs()};
    }

  private:
    void readShortEdges(RecordReader& reader) {
        SourceInfo* const source = reader.state().info;
        const std::uint64_t sourceId = reader.state().source;
        reader.readShortEdges(
            [&](const ShortEdge& edge) {
                start({sourceId, edge.serial}, source, edge.instrument, times_.of(edge));
            },
            [&](const ShortEdge& edge) { stop(edge.serial, times_.of(edge)); });
    }
    void readOther(const Record& record) {
        if (record.kind == RecordKind::start) {
            start(record.id, record.sourceInfo, record.instrument, times_.of(record));
            if (!record.context.empty())
                events_.back().context = contexts_.argsOf(contexts_.placeOf(record.context));
        } else if (record.kind == RecordKind::stop) {
            stop(record.id.serialId, times_.of(record));
        } else if (record.kind == RecordKind::source && record.beginsRun) {
            run_.clear();
        }
    }

    void start(EventId id, SourceInfo* source, std::uint32_t instrument, std::int64_t time) {
        const auto place = static_cast<std::uint32_t>(events_.size());
        RecordedEvent& event = events_.emplace_back();
        event.start = event.stop = time;
        event.serial = id.serialId;
        event.instrument = instrumentFromId(instrument);
        event.source = event.stopSource = source_.of(source);
        if (place > 0 && EventEntry::less(event, events_[place - 1])) [[unlikely]]
            isInOrder_ = false;
        if (stoppedElsewhere_.empty() || stoppedElsewhere_.find(id) == EventIdSet::none)
            run_.push(id.serialId, place);
    }
    void stop(std::uint64_t serial, std::int64_t time) {
        if (const std::uint32_t* const open = run_.take(serial)) {
            events_[*open].stop = time;
            events_[*open].finished = true;
        }
    }
    void addLateStops() {
        for (const LateStop& late : window_.lateStops) {
            RecordedEvent& event = events_[late.event];
            event.stop = late.time;
            event.stopSource = late.source;
            event.finished = true;
        }
    }

    TimeReader& times_;
    OpenRun<std::uint32_t>& run_;
    const EventIdSet& stoppedElsewhere_;
    SourceNumber source_;
    const RecordWindow& window_;
    std::vector<RecordedEvent> events_;
    ContextTable contexts_;
    bool isInOrder_ = true;
};

BlockItems<RecordedEvent> RecorderStream::eventsOf(const RecordWindow& window) {
    return WindowEvents(*this, window).read();
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
