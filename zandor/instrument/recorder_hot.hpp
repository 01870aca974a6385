// The frequent cases of recording, each in one piece: the next event of the thread's own source,
// with few words of context, and the stop of one. They tell whether they did it; the rest goes the
// general way.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "recorder_context.hpp"
#include "recorder_storage.hpp"

namespace instrument::detail {

/// Pairs with the acquire of readers: with the tail come the records before it.
[[gnu::always_inline]] inline void commit(Track& track, Word* end) noexcept {
    track.tail.store(end, std::memory_order_release);
}

/// A start or an instant. The words of its context are less than RecordHead::contextIsCounted.
template <RecordKind kind>
[[gnu::always_inline]] inline bool putBegin(Track& track, const Opaque* instrument,
                                            std::span<const Word> context, EventId id,
                                            std::uint64_t ticks) noexcept {
    Word* const head = track.tail.load(std::memory_order_relaxed);  // this thread's own
    Word* end = head + wordsOf(kind);
    if (track.stream.source != id.sourceId || track.stream.nextSerial != id.serialId ||
        end + context.size() > track.limit) [[unlikely]]
        return false;
    head[0] = RecordHead(kind, false, context.size(), instrument->id, 0).word();
    head[1] = ticks;
    for (const Word word : context)
        *end++ = word;
    track.stream.nextSerial = id.serialId + 1;
    if constexpr (kind == RecordKind::start)
        ++track.open;
    commit(track, end);
    return true;
}

/// The stop of an event of the source that it comes from, too.
[[gnu::always_inline]] inline bool putStop(Track& track, const Opaque* instrument, bool hasContext,
                                           EventId id, std::uint64_t ticks) noexcept {
    Word* const head = track.tail.load(std::memory_order_relaxed);  // this thread's own
    Word* const end = head + wordsOf(RecordKind::stop);
    const std::uint64_t back = track.stream.nextSerial - id.serialId;
    if (track.stream.source != id.sourceId || id.serialId < track.runFirst || track.hasLost ||
        back - 1 >= RecordHead::serialLimit - 1 || end > track.limit) [[unlikely]]
        return false;
    head[0] = RecordHead(RecordKind::stop, false, hasContext ? RecordHead::contextOfStart : 0,
                         instrument->id, back)
                  .word();
    head[1] = ticks;
    --track.open;
    commit(track, end);
    return true;
}

// The same without context of their own, in one word.

[[gnu::always_inline]] inline bool putShort(Track& track, RecordKind kind, const Opaque* instrument,
                                            std::uint64_t serial, std::uint64_t ticks) noexcept {
    Word* const at = track.tail.load(std::memory_order_relaxed);  // this thread's own
    const std::uint64_t passed = ticks - track.stream.base;
    if (passed >= ShortRecord::ticksLimit || instrument->id >= ShortRecord::instrumentLimit ||
        at >= track.limit) [[unlikely]]
        return false;
    *at = ShortRecord(kind, instrument->id, serial, passed).word();
    // Memory that is used again was put out of the caches by what was written since.
    constexpr std::size_t wordsAhead = 64;
    __builtin_prefetch(at + wordsAhead, 1);
    commit(track, at + 1);
    return true;
}

template <RecordKind kind>
[[gnu::always_inline]] inline bool putShortBegin(Track& track, const Opaque* instrument, EventId id,
                                                 std::uint64_t ticks) noexcept {
    if (track.stream.source != id.sourceId || track.stream.nextSerial != id.serialId ||
        !putShort(track, kind, instrument, 0, ticks)) [[unlikely]]
        return false;
    track.stream.nextSerial = id.serialId + 1;
    if constexpr (kind == RecordKind::start)
        ++track.open;
    return true;
}

[[gnu::always_inline]] inline bool putShortStop(Track& track, const Opaque* instrument,
                                                bool hasContext, EventId id,
                                                std::uint64_t ticks) noexcept {
    const RecordKind kind = hasContext ? stopOfContext : RecordKind::stop;
    const std::uint64_t back = track.stream.nextSerial - id.serialId;
    if (track.stream.source != id.sourceId || id.serialId < track.runFirst || track.hasLost ||
        back - 1 >= ShortRecord::serialLimit - 1 || !putShort(track, kind, instrument, back, ticks))
        [[unlikely]]
        return false;
    --track.open;
    return true;
}

/// Has records of one word count from now, where they would soon be too far from their base.
inline void renewBase(Track& track, std::uint64_t ticks) noexcept {
    Word* const at = track.tail.load(std::memory_order_relaxed);  // this thread's own
    if (ticks - track.stream.base < ShortRecord::ticksLimit / 2 || track.limit - at < 2)
        return;
    at[0] = ShortRecord::base().word();
    at[1] = track.stream.base = ticks;
    commit(track, at + 2);
}

}  // namespace instrument::detail
