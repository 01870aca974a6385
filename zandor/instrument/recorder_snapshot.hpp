// What a recorder holds at one moment: of each thread a prefix of what it wrote, and no stop whose
// start is missing though it happened before.
#pragma once

#include <atomic>
#include <cstdint>
#include <span>
#include <vector>

#include "recorder_storage.hpp"
#include "zandor/instrument/event_id.hpp"
#include "zandor/instrument/export.hpp"
#include "zandor/instrument/recorder.hpp"

namespace instrument::detail {

/// Records that follow each other in one chunk.
struct Stretch {
    const Word* begin;
    const Word* end;
    StreamState state;  ///< of the stream at `begin`
    const Chunk* chunk;

    /// Whether it is all that its chunk has and will have.
    bool isSealedChunk() const noexcept {
        // Pairs with the release in sealing: with the newer chunk comes where this one ended.
        return begin == chunk->begin() && chunk->next.load(std::memory_order_acquire) &&
               chunk->sealedEnd.load(std::memory_order_relaxed) == end;
    }
};

/// Bytes of records that readers of recorders went through, of this process; tests and the bench
/// count them.
ZANDOR_INSTRUMENT_API extern std::atomic<std::uint64_t> bytesOfRecordsRead;
inline void countRead(const Stretch& stretch) noexcept {
    const auto words = static_cast<std::uint64_t>(stretch.end - stretch.begin);
    // Relaxed: it only counts.
    bytesOfRecordsRead.fetch_add(words * sizeof(Word), std::memory_order_relaxed);
}

/// What a snapshot has of a track.
struct TrackView {
    const Track* track = nullptr;
    Chunk* chunk = nullptr;  ///< where it ends
    const Word* end = nullptr;
    std::vector<Stretch> stretches;
};

/// Sorted, distinct identities.
class EventIdSet {
  public:
    static constexpr std::size_t none = static_cast<std::size_t>(-1);

    void add(EventId id) { ids_.push_back(id); }
    void add(const EventIdSet& other) {
        ids_.insert(ids_.end(), other.ids_.begin(), other.ids_.end());
    }
    /// Puts them in order, which `find` needs.
    void sort();
    bool empty() const noexcept { return ids_.empty(); }
    std::size_t size() const noexcept { return ids_.size(); }
    /// The place of `id` in order, or none.
    std::size_t find(EventId id) const noexcept;

  private:
    std::vector<EventId> ids_;
};

/// Ranges of serials that were lost.
class LostRanges {
  public:
    /// Puts them in order.
    explicit LostRanges(std::vector<LostRange> ranges = {});
    bool has(EventId id) const noexcept;
    std::span<const LostRange> ranges() const noexcept { return ranges_; }

  private:
    std::vector<LostRange> ranges_;
};

/// Where a test may have other threads go on: called when a snapshot has taken the prefix of so
/// many tracks.
ZANDOR_INSTRUMENT_API extern void (*snapshotTookTracks)(std::size_t count);

/// Keeps the memory that it shows from being freed or reused while it lives.
class Snapshot {
  public:
    explicit Snapshot(RecorderCore& core);
    ~Snapshot();
    Snapshot(const Snapshot&) = delete;
    Snapshot& operator=(const Snapshot&) = delete;

    std::span<const TrackView> tracks() const noexcept { return views_; }
    /// Calls `visit(stretch, beginsTrack)`.
    template <class Visit>
    void forEachStretch(Visit visit) const {
        for (const TrackView& view : views_)
            for (const Stretch& stretch : view.stretches)
                visit(stretch, &stretch == view.stretches.data());
    }
    /// Words of its stretches, for as long as it lives.
    static std::span<const Word> keep(std::span<const Word> words) noexcept { return words; }
    /// The events that foreign stops in the snapshot end.
    const EventIdSet& foreignStops() const noexcept { return foreignStops_; }
    /// Whether the start or instant was dropped, so that its stop counts as dropped with it.
    bool isLost(EventId id) const noexcept { return lost_.has(id); }
    const LostRanges& lost() const noexcept { return lost_; }
    const RecorderDrops& drops() const noexcept { return drops_; }
    const Origin& origin() const noexcept { return origin_; }
    /// The recording's number, which no other of the process has; 0: there is none.
    std::uint64_t recording() const noexcept { return generation_ ? generation_->number : 0; }

  private:
    void viewNewTracks();
    void takePrefixes();
    void takeAll(TrackView& view);
    void takeForeignStops();
    void takeMissingStarts();
    void takeThrough(TrackView& view, const EventIdSet& wanted, EventIdSet& more);
    void takeLosses();

    RecorderCore& core_;
    Generation* generation_;
    const Track* newestTrack_ = nullptr;
    std::vector<TrackView> views_;
    EventIdSet foreignStops_;
    LostRanges lost_;
    RecorderDrops drops_;
    Origin origin_{};
};

}  // namespace instrument::detail
