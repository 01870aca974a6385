// The inside of a recorder: its recording, the lock around what threads share of it, and what lies
// between a thread and its track.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "recorder_context.hpp"
#include "recorder_growth.hpp"
#include "recorder_storage.hpp"
#include "thread_state.hpp"
#include "zandor/instrument/fork_private.hpp"
#include "zandor/instrument/lock.hpp"
#include "zandor/instrument/recorder.hpp"

namespace instrument::detail {

/// What a child after fork finds empty. All zero at first.
struct RecorderState {
    Lock lock;
    /// None before the first event. Written under the lock, release; pairs with the acquire in
    /// findTrack. Relaxed where it is read under the lock, or publishes null.
    std::atomic<Generation*> current;
    Generation* retired;  ///< cleared, but some thread may still be writing to it; under the lock
    /// Of event memory in use. Changed under the lock; told without, relaxed: a mere number.
    std::atomic<std::size_t> bytes;
    // Events dropped before there was a track to count them. Relaxed: they only count.
    std::atomic<std::uint64_t> refused;
    std::atomic<std::uint64_t> failed;
    std::uint64_t indexed;  ///< see RecorderCore::indexedRecording
};

/// One edge on its way into a chunk.
struct NewRecord {
    RecordKind kind;  ///< start, instant or stop
    bool timed;
    std::uint32_t instrument;
    EventId id;
    SourceInfo* source;  ///< who produces it
    std::uint64_t time;  ///< ticks, or nanoseconds where timed
    NewContext context;
    bool contextIsStarts;  ///< of a stop: known to be the same as its start's

    bool isStop() const noexcept { return kind == RecordKind::stop; }
};

class NameIndex;

class RecorderCore {
  public:
    explicit RecorderCore(const RecorderLimits& limits);
    ~RecorderCore();
    RecorderCore(const RecorderCore&) = delete;
    RecorderCore& operator=(const RecorderCore&) = delete;

    /// The track of the thread with these slots, when it is known to have one of the present
    /// recording.
    Track* knownTrack(const ListenerSlot* slots) const noexcept {
        const ListenerSlot& slot = slots[slot_];
        // Relaxed: whoever clears waits until no thread is inside the recorder before it frees
        // anything.
        return slot.number == number_.load(std::memory_order_relaxed)
                   ? static_cast<Track*>(slot.data)
                   : nullptr;
    }
    /// Records anything. Counts what it has to drop.
    void record(const NewRecord& record) noexcept;

    /// Begins a new recording. `listener` is the recorder, whose writers are waited for.
    void clear(const InstrumentListener& listener) noexcept;

    // For readers: pin keeps the present recording as it is until unpinned; null when there is
    // none.
    Generation* pin() noexcept;
    void unpin(Generation* generation) noexcept;
    /// What was dropped, by serial and by cause, and when the recording began.
    void readLosses(const Generation& generation, std::vector<LostRange>& lost,
                    RecorderDrops& drops, Origin& origin);
    RecorderDrops drops() noexcept;
    /// Says on the console, once, that events were dropped. Outside of any lock.
    void sayDrops(const RecorderDrops& drops) noexcept;

    std::size_t bytesInUse() const noexcept {
        return state_->bytes.load(std::memory_order_relaxed);
    }
    std::size_t maxBytes() const noexcept { return limits_.maxBytes; }
    Keep keep() const noexcept { return limits_.keep; }
    NameIndex& nameIndex() noexcept { return *nameIndex_; }
    /// The number of the recording that the index is of; for whoever uses it.
    std::uint64_t& indexedRecording() noexcept { return state_->indexed; }

    // For the writer of a track, on its thread.
    Denial grow(Track& track, std::size_t words, Purpose purpose) noexcept;
    /// Adds a serial, or with `onwards` it and all after it, to what the track lost.
    void lose(Track& track, EventId id, bool onwards) noexcept;
    /// Puts what the track lost where it stays: the track goes on.
    void keepLosses(Track& track) noexcept;

  private:
    Track* findTrack(const ThreadState& thread) const noexcept;
    RecorderDrops countDrops(const Generation* generation) const noexcept;
    Track* enter(ThreadState& thread, const NewRecord& record) noexcept;
    Track* makeTrack(Generation& generation, const ThreadState& thread, Denial& denial) noexcept;
    void countWithoutTrack(const NewRecord& record, Denial denial) noexcept;
    Generation* currentGeneration() noexcept;
    void noteBegin(Origin& origin, const NewRecord& record) noexcept;
    void account(Generation& generation, std::size_t bytes) noexcept;
    void release(Generation* generation) noexcept;
    void releaseRetired(const InstrumentListener& listener) noexcept;

    RecorderLimits limits_;
    const std::unique_ptr<NameIndex> nameIndex_;
    /// Of the recording; never that of another. Changed under the lock. Relaxed: a thread that sees
    /// an older one writes to a generation that clear keeps until no thread is inside the recorder.
    std::atomic<std::uint64_t> number_;
    std::size_t slot_;               ///< in the states of threads; their number when none was free
    std::atomic<bool> said_{false};  ///< relaxed: it only makes the first of many callers
    mutable ForkPrivate<RecorderState> state_;
};

}  // namespace instrument::detail
