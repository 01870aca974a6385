// What a recording is made of in memory.
//
//   Generation   one recording, from its first event until it is cleared; owns all of the below
//     Track      the stream of one thread after another (a thread state is handed on when a thread
//     ends)
//       Chunk    a stretch of it; the newest is written to, those before are sealed
//
// A track's thread writes records behind `tail` and commits them by one release store of it; that
// and nothing else is done without the recorder's lock. Readers pin the generation and walk the
// chains without the lock; while a generation is pinned, nothing in it is freed, reused or
// rewritten.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "recorder_memory.hpp"
#include "recorder_record.hpp"
#include "run_file.hpp"

namespace instrument::detail {

struct ThreadState;
struct Track;
struct Generation;

/// Header of a stretch of records, which follow it.
struct Chunk {
    /// The newer one of the track, once this is sealed. Release by the track's thread, acquire by
    /// readers; relaxed where its thread or the lock's holder looks.
    std::atomic<Chunk*> next;
    std::atomic<Word*> sealedEnd;  ///< set before `next`, which publishes it: relaxed
    Chunk* nextSealed;  ///< in order of sealing, over all tracks; or next in the free list
    Track* track;
    StreamState first;          ///< of the stream at the first record; keeps its source
    std::size_t bytes;          ///< of header and records
    std::size_t sourceRecords;  ///< how many of its records keep a source
    std::atomic<std::uint32_t> foreignStops;  ///< relaxed: committed with the record, by the tail
    /// Whether serials are missing between its starts and instants.
    bool hasGaps;

    Word* begin() noexcept { return reinterpret_cast<Word*>(this + 1); }
    const Word* begin() const noexcept { return reinterpret_cast<const Word*>(this + 1); }
    Word* limit() noexcept {
        return reinterpret_cast<Word*>(reinterpret_cast<std::byte*>(this) + bytes);
    }
};

/// Serials of a source whose starts or instants were dropped. None while `source` is 0.
struct LostRange {
    std::uint64_t source = 0;
    std::uint64_t first = 0;
    std::uint64_t last = 0;

    bool has(EventId id) const noexcept {
        return source != 0 && source == id.sourceId && first <= id.serialId && id.serialId <= last;
    }
};

/// Starts with context that a thread wrote last, to tell whether a stop has the same.
struct RecentStart {
    std::uint64_t serial;
    const Word* record;
};

struct alignas(64) Track {
    // What every event touches, in one line. Written by the track's thread.
    /// End of what is committed. Release; pairs with the acquire of readers. Relaxed where the
    /// track's thread looks at its own, or what it ended with.
    std::atomic<Word*> tail;
    Word* limit;  ///< of the current chunk
    StreamState stream;
    std::uint64_t runFirst;  ///< first serial of the present run
    std::int64_t open;       ///< starts less stops, of whatever thread's events
    bool hasLost;            ///< whether it lost any start or instant
    bool refusing;           ///< the bound was reached: no start is taken any more

    Chunk* current;
    Generation* generation;
    const ThreadState* thread;  ///< whose threads write it
    std::array<RecentStart, 8> recent;

    /// Changed under the lock, where it is read relaxed; while anybody reads, only from null, by a
    /// release that pairs with the acquire in startView.
    std::atomic<Chunk*> oldest;
    Track* next;           ///< set before the track is published
    std::size_t reserved;  ///< bytes set aside for stops of its open events; under the lock
    std::uint32_t sizeClass;
    // Written by the track's thread, relaxed: they count, and publish nothing else.
    std::atomic<std::uint64_t> refused;
    std::atomic<std::uint64_t> failed;
    LostRange lost;                       ///< refused or failed of late; changed under the lock
    std::array<LostRange, 8> lostBefore;  ///< the ones before, in a ring; the thread's own
    std::size_t lostCount;                ///< of all that were in it
    LostRange dropped;                    ///< with its oldest chunks; under the lock
};

/// Sizes that chunks come in. The smaller ones are cut from blocks.
inline constexpr std::array<std::size_t, 4> chunkSizes{std::size_t{4} << 10, std::size_t{32} << 10,
                                                       std::size_t{256} << 10, hugePageBytes};
inline constexpr std::size_t blockBytes = std::size_t{256} << 10;

/// The last ranges that were lost by tracks which went on since. They follow the head.
struct LostRing {
    std::size_t capacity;
    std::size_t count;  ///< of all ever put in

    LostRange* ranges() noexcept { return reinterpret_cast<LostRange*>(this + 1); }
    const LostRange* ranges() const noexcept {
        return reinterpret_cast<const LostRange*>(this + 1);
    }
    std::size_t kept() const noexcept { return count < capacity ? count : capacity; }
};

/// When a recording began.
struct Origin {
    std::uint64_t ticks;       ///< the least of the first events' of the tracks; 0: none
    std::int64_t nanoseconds;  ///< the same of events whose time was given; 0: none
    std::int64_t utcOffset;    ///< from the monotonic clock, when the recording began
};

struct Compaction;
struct ChunkBackup;

/// All zero but what its makers set. Everything here is under the lock but for `tracks`.
struct Generation {
    std::uint64_t number;
    RunFile* file;  ///< where its memory lies; null: in this process alone
    /// Newest first. Release; pairs with the acquire of readers. Relaxed under the lock.
    std::atomic<Track*> tracks;
    std::size_t trackCount;
    Mapping* mappings;
    std::byte* blockTail;
    std::byte* blockEnd;
    std::size_t bytes;        ///< of memory in use
    std::ptrdiff_t reserved;  ///< bytes set aside for stops of open events
    std::array<Chunk*, chunkSizes.size()> freeChunks;
    std::size_t smallFreeBytes;  ///< of those of the smallest size
    Chunk* oldestSealed;         ///< when the last are kept
    Chunk* newestSealed;
    LostRing* lost;
    Compaction* compaction;  ///< when the longest are kept
    ChunkBackup* backup;     ///< the same, in a file; what it has holds while `rewriting` has it
    std::atomic<ChunkBackup*> rewriting;
    std::uint64_t droppedOldest;
    std::uint64_t droppedShortest;
    std::int64_t minimumDuration;
    Origin origin;
    std::uint32_t readers;
    bool leftByWriters;  ///< no thread can be writing to it any more
    Generation* nextRetired;
};

/// Maps pages that go with the generation, in its file where it has one; null when the system gives
/// none.
std::byte* mapInto(Mapping*& mappings, std::size_t bytes, RunFile* file) noexcept;
/// Lets go of the sources that a chunk and its records keep; they end at `end`.
void releaseSources(Chunk& chunk, const Word* end) noexcept;
/// Puts a chunk that no chain holds any more, and that keeps no source, where it is found again.
void freeChunk(Generation& generation, Chunk& chunk) noexcept;

}  // namespace instrument::detail
