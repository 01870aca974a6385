// Which names occur in which chunks of a recording, so that a query for one name reads no more than
// the chunks that have it.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>
#include <unordered_map>
#include <utility>
#include <vector>

#include "recorder_core.hpp"
#include "recorder_matching.hpp"
#include "recorder_selection.hpp"
#include "recorder_snapshot.hpp"

namespace instrument::detail {

/// Looks into a chunk once, when a query first comes upon it and it is sealed; recording does
/// nothing for it. For one reader at a time.
class NameIndex {
  public:
    /// The index for as long as this lives. There is none while another reader has it (in a child
    /// of a fork that may be for ever), nor for recordings whose sealed chunks change.
    class Use {
      public:
        Use(RecorderCore& core, const Snapshot& snapshot);
        ~Use();
        Use(const Use&) = delete;
        Use& operator=(const Use&) = delete;
        NameIndex* get() const noexcept { return index_; }

      private:
        NameIndex* index_ = nullptr;
    };

    /// False where a stretch has nothing of an instrument: no start or instant, and no stop by that
    /// name or of such a start. To be asked about the stretches of a track in order.
    bool mayHave(std::uint32_t instrument, const TrackView& view, std::size_t stretch);

  private:
    /// Of so many bytes of records one name is kept at most.
    static constexpr std::size_t bytesOfAName = 512;

    struct ChunkNames {
        const Chunk* chunk = nullptr;
        const Word* end = nullptr;
        bool hasAny = false;               ///< what its stops end is not known, or too many names
        std::vector<std::uint32_t> names;  ///< sorted
    };
    struct TrackNames {
        std::vector<ChunkNames> chunks;
        OpenRun<std::uint32_t> run;  ///< names of what is open behind the last
    };

    ChunkNames read(const Stretch& stretch, OpenRun<std::uint32_t>& run);
    void note(std::uint32_t name, std::vector<std::uint32_t>& names);

    std::atomic<bool> isInUse_{false};
    std::unordered_map<const Track*, TrackNames> tracks_;
    std::uint64_t chunksRead_ = 0;
    std::vector<std::uint64_t> lastChunk_;  // by name: the last chunk that it was noted of
};

/// What of a snapshot a query for one name has to read, as a view of a Matcher.
class NamedView {
  public:
    /// Without an index that is all.
    NamedView(const Snapshot& snapshot, std::uint32_t instrument, NameIndex* index)
        : snapshot_(snapshot), instrument_(instrument), index_(index) {}

    const EventIdSet& foreignStops() const noexcept { return snapshot_.foreignStops(); }
    bool isLost(EventId id) const noexcept { return snapshot_.isLost(id); }
    static std::span<const Word> keep(std::span<const Word> words) noexcept { return words; }
    const Snapshot& whole() const noexcept { return snapshot_; }
    bool wants(std::uint32_t instrument) const noexcept { return instrument == instrument_; }

    /// What stands behind stretches that were left out may be of another source: that begins anew.
    template <class Visit>
    void forEachStretch(Visit visit) {
        for (const TrackView& view : snapshot_.tracks()) {
            bool isFirst = true;
            bool wasRead = false;
            std::uint64_t source = 0;  // where the stretch ends that was read last
            for (std::size_t i = 0; i < view.stretches.size(); ++i) {
                const Stretch& stretch = view.stretches[i];
                if (std::exchange(wasRead, false))
                    source = stretch.state.source;
                if (index_ && !index_->mayHave(instrument_, view, i))
                    continue;
                visit(stretch, std::exchange(isFirst, false) || stretch.state.source != source);
                wasRead = true;
            }
        }
    }

  private:
    const Snapshot& snapshot_;
    const std::uint32_t instrument_;
    NameIndex* const index_;
};

/// Tells `sink` of everything that the recorder holds of an instrument, and perhaps of others.
template <class Sink>
SnapshotFacts readEventsOf(RecorderCore& core, std::uint32_t instrument, Sink& sink) {
    const Snapshot snapshot(core);
    const NameIndex::Use index(core, snapshot);
    NamedView view(snapshot, instrument, index.get());
    Matcher<Sink, NamedView>(view, sink).run();
    return {snapshot.drops(), snapshot.origin()};
}

/// Of a selection.
template <class Sink>
void readSelected(RecorderCore& core, const Selection& selection, Sink& sink) {
    if (const Opaque* const instrument = selection.instrument())
        readEventsOf(core, instrument->id, sink);
    else
        readEvents(core, sink);
}

}  // namespace instrument::detail
