#include "recorder_snapshot.hpp"

#include <algorithm>
#include <tuple>
#include <utility>

#include "recorder_core.hpp"

namespace instrument::detail {
namespace {

bool less(EventId a, EventId b) noexcept {
    return std::tie(a.sourceId, a.serialId) < std::tie(b.sourceId, b.serialId);
}

/// Where what `track` committed to `chunk` ends; `next` is null when it is the newest.
const Word* committedEnd(const Track& track, Chunk& chunk, Chunk*& next) noexcept {
    for (;;) {
        // Pairs with the release in sealing: with the newer chunk comes where this one ended.
        next = chunk.next.load(std::memory_order_acquire);
        if (next)
            return chunk.sealedEnd.load(std::memory_order_relaxed);
        // Pairs with the release that commits records: with the tail comes what is before it, and
        // with a tail in another chunk the link to that.
        const Word* tail = track.tail.load(std::memory_order_acquire);
        if (chunk.begin() <= tail && tail <= chunk.limit())
            return tail;
    }
}

/// Goes on from where `view` ends to the end of what its track has committed.
std::vector<Stretch> takeNewer(TrackView& view, StreamState state) {
    std::vector<Stretch> stretches;
    while (view.chunk) {
        Chunk* next = nullptr;
        const Word* end = committedEnd(*view.track, *view.chunk, next);
        if (view.end != end)
            stretches.push_back({view.end, end, state, view.chunk});
        view.end = end;
        if (!next)
            break;
        view.chunk = next;
        view.end = next->begin();
        state = next->first;
    }
    return stretches;
}

StreamState stateAtEnd(const TrackView& view) noexcept {
    if (view.stretches.empty() || view.stretches.back().end != view.end)
        return view.chunk ? view.chunk->first : StreamState{};
    const Stretch& last = view.stretches.back();
    RecordReader reader(last.begin, last.end, last.state);
    for (Record record; reader.next(record);) {
    }
    return reader.state();
}

void startView(TrackView& view) noexcept {
    // Pairs with the release that publishes a track's first chunk.
    view.chunk = view.track->oldest.load(std::memory_order_acquire);
    view.end = view.chunk ? view.chunk->begin() : nullptr;
}

}  // namespace

void (*snapshotTookTracks)(std::size_t count) = nullptr;
std::atomic<std::uint64_t> bytesOfRecordsRead{0};

void EventIdSet::sort() {
    std::sort(ids_.begin(), ids_.end(), less);
    ids_.erase(std::unique(ids_.begin(), ids_.end()), ids_.end());
}

std::size_t EventIdSet::find(EventId id) const noexcept {
    const auto found = std::lower_bound(ids_.begin(), ids_.end(), id, less);
    return found != ids_.end() && *found == id ? static_cast<std::size_t>(found - ids_.begin())
                                               : none;
}

Snapshot::Snapshot(RecorderCore& core) : core_(core), generation_(core.pin()) {
    if (!generation_)
        return;
    try {
        viewNewTracks();
        takePrefixes();
        takeForeignStops();
        takeMissingStarts();
        takeLosses();
        core_.sayDrops(drops_);
    } catch (...) {
        core_.unpin(generation_);
        throw;
    }
}

Snapshot::~Snapshot() {
    core_.unpin(generation_);
}

/// Adds views, empty yet, of the tracks that are newer than the ones known.
void Snapshot::viewNewTracks() {
    // Pairs with the release that publishes a track.
    const Track* newest = generation_->tracks.load(std::memory_order_acquire);
    for (const Track* track = newest; track != newestTrack_; track = track->next) {
        TrackView& view = views_.emplace_back();
        view.track = track;
        startView(view);
    }
    newestTrack_ = newest;
}

void Snapshot::takePrefixes() {
    for (std::size_t taken = 0; taken < views_.size();) {
        takeAll(views_[taken]);
        ++taken;
        if (snapshotTookTracks)
            snapshotTookTracks(taken);
    }
}

void Snapshot::takeAll(TrackView& view) {
    if (!view.chunk)
        startView(view);
    view.stretches = takeNewer(view, view.chunk ? view.chunk->first : StreamState{});
}

void Snapshot::takeForeignStops() {
    for (const TrackView& view : views_) {
        for (const Stretch& stretch : view.stretches) {
            // Counted before the record was committed, whose acquire was above.
            if (stretch.chunk->foreignStops.load(std::memory_order_relaxed) == 0)
                continue;
            countRead(stretch);
            RecordReader reader(stretch.begin, stretch.end, stretch.state);
            for (Record record; reader.next(record);)
                if (record.kind == RecordKind::foreignStop)
                    foreignStops_.add(record.id);
        }
    }
    foreignStops_.sort();
}

/// The start of a stop that is in the snapshot was committed before that stop. Where it is not in
/// the snapshot, because its thread was looked at earlier, that thread's prefix is extended through
/// it and no further; so the extension holds only what happened before events of the snapshot, and
/// ends.
void Snapshot::takeMissingStarts() {
    for (EventIdSet wanted = foreignStops_; !wanted.empty();) {
        viewNewTracks();
        EventIdSet more;
        for (TrackView& view : views_)
            takeThrough(view, wanted, more);
        more.sort();
        foreignStops_.add(more);
        wanted = std::move(more);
    }
    foreignStops_.sort();
}

void Snapshot::takeThrough(TrackView& view, const EventIdSet& wanted, EventIdSet& more) {
    if (!view.chunk)
        startView(view);
    TrackView newer{view.track, view.chunk, view.end, {}};
    newer.stretches = takeNewer(newer, stateAtEnd(view));
    std::size_t taken = 0;
    const Word* end = nullptr;
    std::vector<EventId> stops;
    std::size_t stopsTaken = 0;
    for (std::size_t i = 0; i < newer.stretches.size(); ++i) {
        RecordReader reader(newer.stretches[i].begin, newer.stretches[i].end,
                            newer.stretches[i].state);
        for (Record record; reader.next(record);) {
            if (record.kind == RecordKind::foreignStop)
                stops.push_back(record.id);
            if (record.kind != RecordKind::start || wanted.find(record.id) == EventIdSet::none)
                continue;
            taken = i + 1;
            end = reader.position();
            stopsTaken = stops.size();
        }
    }
    if (taken == 0)
        return;
    newer.stretches.resize(taken);
    newer.stretches.back().end = end;
    view.stretches.insert(view.stretches.end(), newer.stretches.begin(), newer.stretches.end());
    view.end = end;
    while (view.chunk->limit() < end || end < view.chunk->begin())
        view.chunk = view.chunk->next.load(std::memory_order_relaxed);
    for (std::size_t i = 0; i < stopsTaken; ++i)
        more.add(stops[i]);
}

/// Last, so that what was dropped before an event of the snapshot is known.
void Snapshot::takeLosses() {
    std::vector<LostRange> lost;
    core_.readLosses(*generation_, lost, drops_, origin_);
    lost_ = LostRanges(std::move(lost));
}

LostRanges::LostRanges(std::vector<LostRange> ranges) : ranges_(std::move(ranges)) {
    // Of none: the host may well stop what has this id.
    std::erase_if(ranges_, [](const LostRange& range) { return range.source == 0; });
    std::sort(ranges_.begin(), ranges_.end(), [](const LostRange& a, const LostRange& b) {
        return std::tie(a.source, a.first) < std::tie(b.source, b.first);
    });
}

bool LostRanges::has(EventId id) const noexcept {
    auto range = std::upper_bound(ranges_.begin(), ranges_.end(), id,
                                  [](EventId wanted, const LostRange& candidate) {
                                      return std::tie(wanted.sourceId, wanted.serialId) <
                                             std::tie(candidate.source, candidate.first);
                                  });
    while (range != ranges_.begin() && (--range)->source == id.sourceId)
        if (id.serialId <= range->last)
            return true;
    return false;
}

}  // namespace instrument::detail
