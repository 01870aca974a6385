#include "recorder_core.hpp"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "listener_slots.hpp"
#include "name_index.hpp"
#include "recorder_writer.hpp"
#include "source_info.hpp"
#include "zandor/instrument/clock.hpp"
#include "zandor/instrument/listeners.hpp"
#include "zandor/runtime/console.hpp"

namespace instrument::detail {
namespace {

RecorderLimits resolved(RecorderLimits limits) {
    if (!limits.folder.empty()) {
        // The program may go to another folder before its first event.
        limits.folder = std::filesystem::canonical(limits.folder);
        if (access(limits.folder.c_str(), W_OK | X_OK) != 0)
            throw std::filesystem::filesystem_error(
                "a recorder cannot write to its folder", limits.folder,
                std::error_code(errno, std::generic_category()));
    }
    if (limits.maxBytes == 0)
        limits.maxBytes = defaultMaxBytes();
    return limits;
}

/// Relaxed, for what only counts.
std::uint64_t relaxed(const std::atomic<std::uint64_t>& count) noexcept {
    return count.load(std::memory_order_relaxed);
}

}  // namespace

RecorderCore::RecorderCore(const RecorderLimits& limits)
    : limits_(resolved(limits)),
      nameIndex_(std::make_unique<NameIndex>()),
      number_(nextListenerNumber()),
      slot_(takeListenerSlot()) {}

RecorderCore::~RecorderCore() {
    freeListenerSlot(slot_);
    // Nobody is inside any more.
    if (Generation* current = state_->current.load(std::memory_order_relaxed))
        Growth::destroyGeneration(current);
    while (Generation* retired = state_->retired) {
        state_->retired = retired->nextRetired;
        Growth::destroyGeneration(retired);
    }
}

/// For recorders without a slot, and for threads whose state another thread had before.
Track* RecorderCore::findTrack(const ThreadState& thread) const noexcept {
    // Pairs with the release in currentGeneration.
    const Generation* current = state_->current.load(std::memory_order_acquire);
    if (!current)
        return nullptr;
    // Pairs with the release in makeTrack.
    Track* track = current->tracks.load(std::memory_order_acquire);
    while (track && track->thread != &thread)
        track = track->next;
    return track;
}

/// The recording that events go to now. Under the lock.
Generation* RecorderCore::currentGeneration() noexcept {
    if (Generation* current = state_->current.load(std::memory_order_relaxed))
        return current;
    Generation* made = Growth::makeGeneration(number_.load(std::memory_order_relaxed), limits_);
    if (made) {
        made->origin.utcOffset = clock::utcNow() - clock::now();
        if (made->file)
            publishRunFile(*made->file, made);
        state_->bytes.store(bytesInUse() + made->bytes, std::memory_order_relaxed);
        // Pairs with the acquire in findTrack.
        state_->current.store(made, std::memory_order_release);
    }
    return made;
}

/// The track that the thread writes to from now on; null when there is no room for one.
Track* RecorderCore::enter(ThreadState& thread, const NewRecord& record) noexcept {
    const Locked locked(state_->lock);
    Generation* const generation = currentGeneration();
    Denial denial = Denial::system;
    Track* track = nullptr;
    if (generation) {
        noteBegin(generation->origin, record);
        track = findTrack(thread);
        if (!track)
            track = makeTrack(*generation, thread, denial);
    }
    if (!track)
        countWithoutTrack(record, denial);
    else if (slot_ < listenerSlots)
        thread.listenerData[slot_] = {generation->number, track};
    return track;
}

Track* RecorderCore::makeTrack(Generation& generation, const ThreadState& thread,
                               Denial& denial) noexcept {
    Growth growth(generation, bytesInUse(), limits_);
    Track* const track = growth.makeTrack(thread, denial);
    account(generation, growth.taken());
    if (track) {
        track->next = generation.tracks.load(std::memory_order_relaxed);
        // Pairs with the acquire in findTrack and Snapshot::viewNewTracks.
        generation.tracks.store(track, std::memory_order_release);
    }
    return track;
}

/// A thread without track dropped the start of its own event, too, which was counted.
void RecorderCore::countWithoutTrack(const NewRecord& record, Denial denial) noexcept {
    if (record.isStop() && record.id.sourceId == record.source->id)
        return;
    // Relaxed: it only counts.
    auto& count = denial == Denial::bound ? state_->refused : state_->failed;
    count.fetch_add(1, std::memory_order_relaxed);
}

/// The earliest of the first events of threads is the recording's first.
void RecorderCore::noteBegin(Origin& origin, const NewRecord& record) noexcept {
    if (!record.timed)
        origin.ticks = origin.ticks == 0 ? record.time : std::min(origin.ticks, record.time);
    else if (origin.nanoseconds == 0)
        origin.nanoseconds = static_cast<std::int64_t>(record.time);
}

void RecorderCore::account(Generation& generation, std::size_t bytes) noexcept {
    generation.bytes += bytes;
    state_->bytes.store(bytesInUse() + bytes, std::memory_order_relaxed);
}

Denial RecorderCore::grow(Track& track, std::size_t words, Purpose purpose) noexcept {
    const Locked locked(state_->lock);
    Growth growth(*track.generation, bytesInUse(), limits_);
    Purpose granted = Purpose::begin;
    Room room = growth.makeRoom(track, words, granted);
    if (!room.chunk && purpose == Purpose::end) {
        granted = Purpose::end;
        room = growth.makeRoom(track, words, granted);
    }
    if (room.chunk)
        growth.append(track, *room.chunk, granted);
    account(*track.generation, growth.taken());
    return room.denial;
}

void RecorderCore::lose(Track& track, EventId id, bool onwards) noexcept {
    const Locked locked(state_->lock);
    track.hasLost = true;
    LostRange& lost = track.lost;
    if (lost.source != id.sourceId) {
        remember(*track.generation->lost, lost);
        lost = {id.sourceId, id.serialId, id.serialId};
    }
    lost.first = std::min(lost.first, id.serialId);
    lost.last = onwards ? ~std::uint64_t{0} : std::max(lost.last, id.serialId);
}

void RecorderCore::keepLosses(Track& track) noexcept {
    const Locked locked(state_->lock);
    track.lostBefore[track.lostCount++ % track.lostBefore.size()] = track.lost;
    remember(*track.generation->lost, std::exchange(track.lost, {}));
}

void RecorderCore::record(const NewRecord& record) noexcept {
    ThreadState* const thread = ThreadState::find();
    if (!thread)
        return;  // a delivery has a state
    Track* track = knownTrack(thread->listenerData.data());
    if (!track && slot_ == listenerSlots)
        track = findTrack(*thread);
    if (!track)
        track = enter(*thread, record);
    if (track)
        RecordWriter(*this, *track, thread->texts, record).write();
}

void RecorderCore::clear(const InstrumentListener& listener) noexcept {
    sayDrops(drops());
    {
        const Locked locked(state_->lock);
        number_.store(nextListenerNumber(), std::memory_order_relaxed);
        outdateLanes();
        state_->refused.store(0, std::memory_order_relaxed);
        state_->failed.store(0, std::memory_order_relaxed);
        Generation* const old = state_->current.load(std::memory_order_relaxed);
        state_->current.store(nullptr, std::memory_order_relaxed);
        if (old && old->file)
            removeRunFile(*old->file);
        if (old) {
            old->nextRetired = state_->retired;
            state_->retired = old;
        }
    }
    releaseRetired(listener);
}

/// Inside a callback nothing is waited for: a later call frees what this one leaves.
void RecorderCore::releaseRetired(const InstrumentListener& listener) noexcept {
    if (isInsideListener())
        return;
    Generation* retired;
    {
        const Locked locked(state_->lock);
        retired = std::exchange(state_->retired, nullptr);
    }
    if (retired)
        waitUntilNobodyIsInside(listener);
    while (Generation* generation = retired) {
        retired = generation->nextRetired;
        bool last;
        {
            const Locked locked(state_->lock);
            generation->leftByWriters = true;
            last = generation->readers == 0;
        }
        if (last)
            release(generation);
    }
}

/// Nobody reads or writes it any more.
void RecorderCore::release(Generation* generation) noexcept {
    const std::size_t bytes = generation->bytes;
    Growth::destroyGeneration(generation);
    const Locked locked(state_->lock);
    state_->bytes.store(bytesInUse() - bytes, std::memory_order_relaxed);
}

Generation* RecorderCore::pin() noexcept {
    const Locked locked(state_->lock);
    Generation* const current = state_->current.load(std::memory_order_relaxed);
    if (current)
        ++current->readers;
    return current;
}

void RecorderCore::unpin(Generation* generation) noexcept {
    if (!generation)
        return;
    bool last;
    {
        const Locked locked(state_->lock);
        last = --generation->readers == 0 && generation->leftByWriters;
    }
    if (last)
        release(generation);
}

/// Under the lock.
RecorderDrops RecorderCore::countDrops(const Generation* generation) const noexcept {
    RecorderDrops drops;
    drops.refused = relaxed(state_->refused);
    drops.failed = relaxed(state_->failed);
    if (!generation)
        return drops;
    drops.oldest = generation->droppedOldest;
    drops.shortest = generation->droppedShortest;
    drops.minimumDuration = generation->minimumDuration;
    const Track* track = generation->tracks.load(std::memory_order_relaxed);
    for (; track; track = track->next) {
        drops.refused += relaxed(track->refused);
        drops.failed += relaxed(track->failed);
    }
    return drops;
}

void RecorderCore::readLosses(const Generation& generation, std::vector<LostRange>& lost,
                              RecorderDrops& drops, Origin& origin) {
    for (std::size_t needed = 0;; lost.reserve(needed)) {
        // Nothing is allocated under the lock: a writer that waits for it may be in a signal
        // handler that interrupted malloc.
        const Locked locked(state_->lock);
        const LostRing& ring = *generation.lost;
        needed = ring.kept() + 2 * generation.trackCount;
        if (lost.capacity() < needed)
            continue;
        lost.assign(ring.ranges(), ring.ranges() + ring.kept());
        const Track* track = generation.tracks.load(std::memory_order_relaxed);
        for (; track; track = track->next)
            lost.insert(lost.end(), {track->lost, track->dropped});
        drops = countDrops(&generation);
        origin = generation.origin;
        return;
    }
}

RecorderDrops RecorderCore::drops() noexcept {
    const Locked locked(state_->lock);
    return countDrops(state_->current.load(std::memory_order_relaxed));
}

void RecorderCore::sayDrops(const RecorderDrops& drops) noexcept {
    if (drops.total() == 0 || said_.exchange(true, std::memory_order_relaxed))
        return;
    const auto number = [](std::uint64_t count) { return static_cast<unsigned long long>(count); };
    utPrintf(
        "recorder: %llu events were dropped (%llu refused, %llu oldest, %llu shortest, "
        "%llu without memory)\n",
        number(drops.total()), number(drops.refused), number(drops.oldest), number(drops.shortest),
        number(drops.failed));
}

}  // namespace instrument::detail
