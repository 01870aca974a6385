// Reads a snapshot's records as events: every start with its first stop, from whatever thread that
// came.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <span>
#include <tuple>
#include <utility>
#include <vector>

#include "recorder_snapshot.hpp"
#include "recorder_times.hpp"
#include "source_info.hpp"

namespace instrument::detail {

/// One start, stop or instant, in nanoseconds.
struct Point {
    std::int64_t time = 0;
    std::uint64_t order = 0;       ///< ascending in each source
    SourceInfo* source = nullptr;  ///< who produced it
    EventId id;                    ///< of a stop: its start's
    std::uint32_t instrument = 0;
    bool hasContextOfStart = false;
    std::span<const Word> context;
};

/// The events of one run of a stream that are open, by ascending serial. The youngest is found at
/// once.
template <class Open>
class OpenRun {
  public:
    OpenRun() = default;
    OpenRun(const OpenRun&) = delete;
    OpenRun& operator=(const OpenRun&) = delete;

    void clear() noexcept {
        top_ = entries_.data();
        closed_ = 0;
    }
    void push(std::uint64_t serial, Open open) {
        if (top_ == limit_) [[unlikely]]
            grow();
        top_->serial = serial;
        top_->open = std::move(open);
        top_->closed = false;
        ++top_;
    }
    /// Calls `visit(serial, open)` with each that is open.
    template <class Visit>
    void forEach(Visit visit) {
        for (const Entry& entry : inUse())
            if (!entry.closed)
                visit(entry.serial, entry.open);
    }

    /// Takes the event out, if it is open; else gives null. It stays where it is until the next
    /// call.
    Open* take(std::uint64_t serial) noexcept {
        if (top_ == entries_.data()) [[unlikely]]
            return nullptr;
        Entry* const last = top_ - 1;
        if (last->serial != serial) [[unlikely]]
            return takeInside(serial);
        --top_;
        while (closed_ > 0 && top_[-1].closed) {
            --top_;
            --closed_;
        }
        return &last->open;
    }

  private:
    struct Entry {
        std::uint64_t serial;
        Open open;
        bool closed;
    };

    std::span<Entry> inUse() noexcept { return {entries_.data(), top_}; }

    void grow() {
        const std::size_t size = entries_.size();
        entries_.resize(std::max<std::size_t>(2 * size, 16));
        top_ = entries_.data() + size;
        limit_ = entries_.data() + entries_.size();
    }

    Open* takeInside(std::uint64_t serial) noexcept {
        dropClosed();
        const std::span<Entry> entries = inUse();
        const auto found = std::ranges::lower_bound(entries, serial, {}, &Entry::serial);
        if (found == entries.end() || found->serial != serial || found->closed)
            return nullptr;
        found->closed = true;
        ++closed_;
        return &found->open;
    }

    /// Keeps events that end in the order of their starts from piling up.
    void dropClosed() noexcept {
        const std::span<Entry> entries = inUse();
        if (closed_ < 32 || closed_ * 2 < entries.size())
            return;
        const auto isClosed = [](const Entry& entry) { return entry.closed; };
        const auto end = std::remove_if(entries.begin(), entries.end(), isClosed);
        top_ = entries.data() + (end - entries.begin());
        closed_ = 0;
    }

    std::vector<Entry> entries_;
    Entry* top_ = nullptr;    // behind those in use, the last of which is open
    Entry* limit_ = nullptr;  // behind all
    std::size_t closed_ = 0;  // of those in use
};

/// Tells `Sink` of everything in a snapshot. A sink has
///   using Open = ...;                        what it wants to know of a start at its stop
///   Open onStart(const Point&);
///   void onStop(Open, const Point& stop);    the first stop of a start
///   void onInstant(const Point&);
///   void onStrayStop(const Point&);          a second stop, or one of an unknown event
/// Points of one source come in order, but for stray stops. A stray stop has its own context.
///
/// A view tells of stretches as Snapshot does. Their words need not stay when the next stretch
/// comes, but for what it was asked to keep. Each visit returns where it ended, for views that cut
/// stretches. One that finds foreign stops only as it shows
/// stretches has findForeignStops(), to be said behind the last; before, it has none.
template <class Sink, class View = const Snapshot>
class Matcher {
  public:
    Matcher(View& snapshot, Sink& sink)
        : snapshot_(snapshot), sink_(sink), foreignlyStopped_(snapshot.foreignStops().size()) {}

    /// False where all has to be told anew, by another Matcher: a foreign stop that was only found
    /// ends what its own thread had ended as well, and the first in time counts.
    bool run() {
        snapshot_.forEachStretch([this](const Stretch& stretch, bool beginsTrack) {
            if (beginsTrack)
                endRun();
            return readStretch(stretch);
        });
        endRun();
        if constexpr (findsForeignStops)
            if (foreignlyStopped_.empty() && !takeLeftOpen())
                return false;
        matchPending();
        return true;
    }

  private:
    using Open = typename Sink::Open;
    static constexpr bool findsForeignStops = requires(View view) { view.findForeignStops(); };
    static constexpr bool isOfOneName = requires(View view) { view.whole(); };

    RecordReader readStretch(const Stretch& stretch) {
        countRead(stretch);
        RecordReader reader(stretch.begin, stretch.end, stretch.state);
        for (Record record;;) {
            readShortEdges(reader);
            if (!reader.next(record))
                return reader;
            if (record.kind == RecordKind::start)
                readStart(pointOf(record));
            else if (record.kind == RecordKind::stop)
                readStop(pointOf(record));
            else
                readOther(record);
        }
    }

    void readShortEdges(RecordReader& reader) {
        const std::uint64_t source = reader.state().source;
        SourceInfo* const info = reader.state().info;
        const auto pointOf = [&](const ShortEdge& edge) -> Point {
            return {times_.of(edge), order_++, info, {source, edge.serial},
                    edge.instrument, false,    {}};
        };
        reader.readShortEdges([&](const ShortEdge& edge) { readStart(pointOf(edge)); },
                              [&](const ShortEdge& edge) { readStop(pointOf(edge)); });
    }

    void readOther(const Record& record) {
        switch (record.kind) {
            case RecordKind::instant:
                sink_.onInstant(pointOf(record));
                break;
            case RecordKind::foreignStop:
                addPending(pointOf(record));
                break;
            case RecordKind::source:
                if (record.beginsRun)
                    endRun();
                break;
            default:
                break;  // dead
        }
    }

    /// Stops of what is open come as foreign ones from now on.
    void endRun() {
        if constexpr (findsForeignStops)
            if (foreignlyStopped_.empty())
                run_.forEach([this](std::uint64_t serial, const Open& open) {
                    leftOpen_.push_back({{runSource_, serial}, open});
                });
        run_.clear();
    }

    /// Foreign stops end what runs left open. Whether there is one for each.
    bool takeLeftOpen() {
        snapshot_.findForeignStops();
        const EventIdSet& stops = snapshot_.foreignStops();
        foreignlyStopped_.resize(stops.size());
        for (auto& [id, open] : leftOpen_)
            if (const std::size_t place = stops.find(id); place != EventIdSet::none)
                foreignlyStopped_[place] = std::move(open);
        return std::ranges::all_of(pending_, [&](const Point& stop) {
            const std::size_t place = stops.find(stop.id);
            return place == EventIdSet::none || foreignlyStopped_[place] ||
                   snapshot_.isLost(stop.id);
        });
    }

    Point pointOf(const Record& record) {
        return {times_.of(record), order_++,          record.sourceInfo,
                record.id,         record.instrument, record.hasContextOfStart,
                record.context};
    }

    void readStart(const Point& start) {
        const std::size_t place = snapshot_.foreignStops().empty()
                                      ? EventIdSet::none
                                      : snapshot_.foreignStops().find(start.id);
        runSource_ = start.id.sourceId;
        if (place == EventIdSet::none)
            run_.push(start.id.serialId, sink_.onStart(start));
        else
            foreignlyStopped_[place] = sink_.onStart(start);
    }

    void readStop(const Point& stop) {
        if (Open* const open = run_.take(stop.id.serialId)) [[likely]]
            sink_.onStop(std::move(*open), stop);
        else
            addPending(stop);
    }

    bool isWanted(const Point& stray) const {
        if constexpr (isOfOneName)
            return snapshot_.wants(stray.instrument);
        return true;
    }

    void addPending(Point stop) {
        stop.context = snapshot_.keep(stop.context);
        pending_.push_back(stop);
    }

    /// Of several stops of an event the first in time counts, whatever thread it came from.
    void matchPending() {
        std::sort(pending_.begin(), pending_.end(), [](const Point& a, const Point& b) {
            return std::tie(a.id.sourceId, a.id.serialId, a.time, a.source->id, a.order) <
                   std::tie(b.id.sourceId, b.id.serialId, b.time, b.source->id, b.order);
        });
        std::vector<Point> strays;
        for (const Point& stop : pending_) {
            const std::size_t place = snapshot_.foreignStops().find(stop.id);
            if (place != EventIdSet::none && foreignlyStopped_[place])
                sink_.onStop(*std::exchange(foreignlyStopped_[place], std::nullopt), stop);
            else if (!snapshot_.isLost(stop.id) && isWanted(stop))
                strays.push_back(stop);
        }
        giveContexts(strays);
        for (const Point& stop : strays)
            sink_.onStrayStop(stop);
    }

    /// A second stop that shares its start's context gets it from there.
    void giveContexts(std::vector<Point>& strays) {
        EventIdSet ids;
        for (const Point& stop : strays)
            if (stop.hasContextOfStart)
                ids.add(stop.id);
        if (ids.empty())
            return;
        ids.sort();
        std::vector<std::span<const Word>> contexts(ids.size());
        const auto find = [&](const Stretch& stretch, bool) {
            return findContexts(stretch, ids, contexts);
        };
        if constexpr (isOfOneName)
            snapshot_.whole().forEachStretch(find);
        else
            snapshot_.forEachStretch(find);
        for (Point& stop : strays)
            if (stop.hasContextOfStart)
                stop.context = contexts[ids.find(stop.id)];
    }

    RecordReader findContexts(const Stretch& stretch, const EventIdSet& ids,
                              std::vector<std::span<const Word>>& contexts) {
        countRead(stretch);
        RecordReader reader(stretch.begin, stretch.end, stretch.state);
        for (Record record; reader.next(record);) {
            if (record.kind != RecordKind::start)
                continue;
            if (const std::size_t place = ids.find(record.id); place != EventIdSet::none)
                contexts[place] = snapshot_.keep(record.context);
        }
        return reader;
    }

    View& snapshot_;
    Sink& sink_;
    TimeReader times_;
    OpenRun<Open> run_;
    std::uint64_t runSource_ = 0;
    std::vector<std::pair<EventId, Open>> leftOpen_;     // while foreign stops are not known
    std::vector<std::optional<Open>> foreignlyStopped_;  // open starts, by place in foreignStops()
    std::vector<Point> pending_;
    std::uint64_t order_ = 0;
};

/// What a snapshot tells besides its events.
struct SnapshotFacts {
    RecorderDrops drops;
    Origin origin;
};

/// Tells `sink` of everything that the recorder holds now. The snapshot is gone when it returns,
/// since a full recorder takes nothing new while it is looked at.
template <class Sink>
SnapshotFacts readEvents(RecorderCore& core, Sink& sink) {
    const Snapshot snapshot(core);
    Matcher<Sink>(snapshot, sink).run();
    return {snapshot.drops(), snapshot.origin()};
}

}  // namespace instrument::detail
