#include "recorder_growth.hpp"

#include <algorithm>
#include <memory>
#include <utility>

#include "recorder_compaction.hpp"
#include "source_info.hpp"

namespace instrument::detail {
namespace {

static_assert(sizeof(Chunk) % sizeof(Word) == 0);

/// The place of the largest size that is not above `bytes`.
std::size_t sizeClassOf(std::size_t bytes) noexcept {
    std::size_t place = 0;
    while (place + 1 < chunkSizes.size() && chunkSizes[place + 1] <= bytes)
        ++place;
    return place;
}

/// The least of the sizes that holds `bytes`, or whole pages above the largest.
std::size_t sizeThatHolds(std::size_t bytes) noexcept {
    const auto size = std::lower_bound(chunkSizes.begin(), chunkSizes.end(), bytes);
    return size != chunkSizes.end() ? *size : roundUp(bytes + mappingHeader, pageBytes);
}

/// A small part of the bound, and of a block.
std::size_t lostRanges(const RecorderLimits& limits) noexcept {
    return std::clamp<std::size_t>(limits.maxBytes / 64 / sizeof(LostRange), 1, 1024);
}

std::size_t bytesOf(std::size_t words) noexcept {
    return mappingHeader + sizeof(Chunk) + words * sizeof(Word);
}

void releaseSources(Track& track) noexcept {
    for (Chunk* chunk = track.oldest.load(std::memory_order_relaxed); chunk;) {
        Chunk* const next = chunk->next.load(std::memory_order_relaxed);
        detail::releaseSources(*chunk, next ? chunk->sealedEnd.load(std::memory_order_relaxed)
                                            : track.tail.load(std::memory_order_relaxed));
        chunk = next;
    }
    SourcePtr::release(track.stream.info);
}

/// Takes a chunk of the smallest size off the end of a free one.
Chunk& cutSmallest(Chunk& chunk) noexcept {
    chunk.bytes -= chunkSizes[0];
    Chunk* const piece = std::construct_at(reinterpret_cast<Chunk*>(chunk.limit()));
    piece->bytes = chunkSizes[0];
    return *piece;
}

}  // namespace

std::byte* mapInto(Mapping*& mappings, std::size_t bytes, RunFile* file) noexcept {
    Mapping* made = nullptr;
    if (file)
        made = growRunFile(*file, bytes, RunFilePart::events);
    else if (void* pages = pageSource.map(bytes))
        made = std::construct_at(static_cast<Mapping*>(pages));
    if (!made)
        return nullptr;
    made->next = std::exchange(mappings, made);
    made->bytes = bytes;
    return reinterpret_cast<std::byte*>(made);
}

Generation* Growth::makeGeneration(std::uint64_t number, const RecorderLimits& limits) noexcept {
    RunFile* file = nullptr;
    if (!limits.folder.empty() && !(file = createRunFile(limits.folder.c_str(), number)))
        return nullptr;
    Mapping* mappings = nullptr;
    std::byte* const block = mapInto(mappings, blockBytes, file);
    if (!block) {
        if (file)
            removeRunFile(*file);
        closeRunFile(file);
        return nullptr;
    }
    auto* generation = std::construct_at(reinterpret_cast<Generation*>(block + mappingHeader));
    std::byte* const behind = reinterpret_cast<std::byte*>(generation + 1);
    generation->number = number;
    generation->file = file;
    generation->mappings = mappings;
    generation->lost = std::construct_at(reinterpret_cast<LostRing*>(behind));
    generation->lost->capacity = lostRanges(limits);
    generation->bytes = roundUp(
        sizeof(Generation) + sizeof(LostRing) + generation->lost->capacity * sizeof(LostRange),
        alignof(Track));
    generation->blockTail = block + mappingHeader + generation->bytes;
    generation->blockEnd = block + blockBytes;
    return generation;
}

void Growth::destroyGeneration(Generation* generation) noexcept {
    for (Track* track = generation->tracks.load(std::memory_order_relaxed); track;
         track = track->next)
        releaseSources(*track);
    RunFile* const file = generation->file;
    for (Mapping* mapping = generation->mappings; mapping;) {
        Mapping* next = mapping->next;
        pageSource.unmap(mapping, mapping->bytes);
        mapping = next;
    }
    closeRunFile(file);
}

/// A piece of a block, not counted yet.
std::byte* Growth::cut(std::size_t bytes) noexcept {
    bytes = roundUp(bytes, alignof(Track));
    if (static_cast<std::size_t>(generation_.blockEnd - generation_.blockTail) < bytes) {
        std::byte* block = mapInto(generation_.mappings, blockBytes, generation_.file);
        if (!block)
            return nullptr;
        generation_.blockTail = block + mappingHeader;
        generation_.blockEnd = block + blockBytes;
    }
    used_ += bytes;
    return std::exchange(generation_.blockTail, generation_.blockTail + bytes);
}

Track* Growth::makeTrack(const ThreadState& thread, Denial& denial) noexcept {
    // Tracks are small; a little above the bound they can still count what is refused.
    if (used_ + sizeof(Track) > limits_.maxBytes + limits_.maxBytes / 32) {
        denial = Denial::bound;
        return nullptr;
    }
    std::byte* memory = cut(sizeof(Track));
    if (!memory) {
        denial = Denial::system;
        return nullptr;
    }
    auto* track = std::construct_at(reinterpret_cast<Track*>(memory));
    track->generation = &generation_;
    track->thread = &thread;
    ++generation_.trackCount;
    return track;
}

/// Chunks of a track grow; but what all tracks are writing to stays a small part of the bound.
std::size_t Growth::sizeFor(const Track& track, std::size_t words, Purpose purpose) const noexcept {
    const std::size_t share = limits_.maxBytes / (16 + 4 * generation_.trackCount);
    std::size_t place = std::min<std::size_t>(track.sizeClass, sizeClassOf(share));
    if (purpose == Purpose::end) {
        const auto open = static_cast<std::size_t>(std::max<std::int64_t>(track.open, 0));
        place = std::min(place, sizeClassOf(sizeThatHolds(bytesOf(2 * open + words))));
    }
    return std::max(chunkSizes[place], sizeThatHolds(bytesOf(words)));
}

/// What stops may need that the track's events bring: of those open, and where new events are
/// refused in the end, of all that a chunk of `bytes` may yet begin. Less than nothing where the
/// track's thread ends events of others.
std::ptrdiff_t Growth::reserveFor(const Track& track, std::size_t bytes) const noexcept {
    constexpr auto stopBytes =
        static_cast<std::ptrdiff_t>(wordsOf(RecordKind::stop) * sizeof(Word)) + 1;  // and of a head
    const std::size_t room = limits_.keep == Keep::first ? bytes : chunkSizes[0];
    return static_cast<std::ptrdiff_t>(room) + track.open * stopBytes;
}

/// Whether there is what is reserved when the track has a chunk of `bytes`: in chunks of the
/// smallest size, in what is not `used` and in what is `free`.
bool Growth::holdsReserve(const Track& track, std::size_t bytes, std::size_t used,
                          std::size_t free) const noexcept {
    const std::ptrdiff_t reserved =
        generation_.reserved - track.reserved + reserveFor(track, bytes);
    const std::size_t unused = limits_.maxBytes > used ? limits_.maxBytes - used : 0;
    const std::size_t held = unused / chunkSizes[0] * chunkSizes[0] + free;
    return static_cast<std::ptrdiff_t>(held) >= reserved;
}

/// Cuts chunks of the smallest size off a larger free one, until they hold what is reserved.
bool Growth::restoreReserve(const Track& track) noexcept {
    while (!holdsReserve(track, 0, used_, generation_.smallFreeBytes)) {
        std::size_t place = 1;
        while (place < chunkSizes.size() && !generation_.freeChunks[place])
            ++place;
        if (place == chunkSizes.size())
            return false;
        Chunk* const chunk = takeFree(place);
        freeChunk(generation_, cutSmallest(*chunk));
        freeChunk(generation_, *chunk);
    }
    return true;
}

/// Of the smallest size nothing larger is given.
Chunk* Growth::takeFree(std::size_t place) noexcept {
    Chunk* const chunk = generation_.freeChunks[place];
    if (!chunk)
        return nullptr;
    generation_.freeChunks[place] = chunk->nextSealed;
    if (place > 0)
        return chunk;
    generation_.smallFreeBytes -= chunk->bytes;
    if (chunk->bytes < 2 * chunkSizes[0])
        return chunk;
    Chunk& piece = cutSmallest(*chunk);
    freeChunk(generation_, *chunk);
    return &piece;
}

/// A chunk of that size or smaller, but of `least` bytes; a larger one where that is all there is.
Room Growth::take(const Track& track, std::size_t size, std::size_t least,
                  Purpose purpose) noexcept {
    const bool begins = purpose == Purpose::begin;
    if (begins && limits_.keep != Keep::first && !restoreReserve(track))
        return {nullptr, Denial::bound};
    const std::size_t wanted = sizeClassOf(size);
    const std::size_t free = generation_.smallFreeBytes;
    for (std::size_t place = wanted + 1; place-- > 0 && chunkSizes[place] >= least;)
        if (place > 0 || !begins ||
            (free > 0 && holdsReserve(track, chunkSizes[0], used_, free - chunkSizes[0])))
            if (Chunk* chunk = takeFree(place))
                return {chunk};
    if (used_ + size <= limits_.maxBytes &&
        (!begins || holdsReserve(track, size, used_ + size, free)))
        return makeChunk(size);
    for (std::size_t place = wanted + 1; place < chunkSizes.size(); ++place)
        if (Chunk* chunk = takeFree(place))
            return {chunk};
    return {nullptr, Denial::bound};
}

Room Growth::makeChunk(std::size_t bytes) noexcept {
    std::byte* memory;
    if (bytes < blockBytes) {
        memory = cut(bytes);
    } else if ((memory = mapInto(generation_.mappings, bytes, generation_.file))) {
        used_ += bytes;
        memory += mappingHeader;
        bytes -= mappingHeader;
    }
    if (!memory)
        return {nullptr, Denial::system};
    auto* chunk = std::construct_at(reinterpret_cast<Chunk*>(memory));
    chunk->bytes = bytes;
    return {chunk};
}

Room Growth::makeRoom(const Track& track, std::size_t words, Purpose purpose) noexcept {
    const std::size_t least = sizeThatHolds(bytesOf(words));
    const std::size_t size = sizeFor(track, words, purpose);
    Room room;
    do {
        room = take(track, size, least, purpose);
    } while (room.denial == Denial::bound && reclaim());
    for (std::size_t place = sizeClassOf(size); place-- > 0 && chunkSizes[place] >= least;)
        if (room.denial == Denial::bound)
            room = take(track, chunkSizes[place], least, purpose);
    return room;
}

void Growth::append(Track& track, Chunk& chunk, Purpose purpose) noexcept {
    Chunk* const before = track.current;
    Word* const end = track.tail.load(std::memory_order_relaxed);  // this thread's own
    chunk.next.store(nullptr, std::memory_order_relaxed);
    chunk.sealedEnd.store(nullptr, std::memory_order_relaxed);
    chunk.nextSealed = nullptr;
    chunk.track = &track;
    chunk.first = track.stream;
    SourcePtr::retain(chunk.first.info);
    chunk.sourceRecords = 0;
    chunk.foreignStops.store(0, std::memory_order_relaxed);
    chunk.hasGaps = false;
    track.recent = {};
    track.current = &chunk;
    track.limit = purpose == Purpose::begin ? chunk.limit() : chunk.begin();
    if (before) {
        before->sealedEnd.store(end, std::memory_order_relaxed);
        // Pairs with the acquire in committedEnd.
        before->next.store(&chunk, std::memory_order_release);
    }
    // Pairs with the acquire in committedEnd, which takes a tail elsewhere for a sign of the link.
    track.tail.store(chunk.begin(), std::memory_order_release);
    if (!before)  // pairs with the acquire in startView: with the first chunk comes the tail in it
        track.oldest.store(&chunk, std::memory_order_release);
    if (track.sizeClass + 1 < chunkSizes.size())
        ++track.sizeClass;
    const std::ptrdiff_t reserve = reserveFor(track, chunk.bytes);
    generation_.reserved += reserve - std::exchange(track.reserved, reserve);
    if (before)
        noteSealed(*before);
}

void Growth::noteSealed(Chunk& chunk) noexcept {
    if (limits_.keep == Keep::last) {
        Chunk*& last = generation_.newestSealed;
        (last ? last->nextSealed : generation_.oldestSealed) = &chunk;
        last = &chunk;
    } else if (limits_.keep == Keep::longest) {
        addDurations(generation_, chunk);
    }
}

/// Makes something give way. What readers look at stays as it is.
bool Growth::reclaim() noexcept {
    if (generation_.readers > 0)
        return false;
    switch (limits_.keep) {
        case Keep::first:
            return false;
        case Keep::last:
            return dropOldest();
        case Keep::longest:
            return compactSome(generation_);
    }
    return false;
}

bool Growth::dropOldest() noexcept {
    Chunk* const chunk = generation_.oldestSealed;
    if (!chunk)
        return false;
    generation_.oldestSealed = chunk->nextSealed;
    if (!generation_.oldestSealed)
        generation_.newestSealed = nullptr;
    Track& track = *chunk->track;
    track.oldest.store(chunk->next.load(std::memory_order_relaxed), std::memory_order_relaxed);
    noteDropped(track, *chunk);
    releaseSources(*chunk, chunk->sealedEnd.load(std::memory_order_relaxed));
    freeChunk(generation_, *chunk);
    return true;
}

/// The starts and instants of a sealed chunk.
void Growth::noteDropped(Track& track, const Chunk& chunk) noexcept {
    const StreamState& first = chunk.first;
    if (chunk.sourceRecords == 0 && !chunk.hasGaps) {
        // All of one source and one after the other: nothing needs to be read.
        const Chunk& newer = *chunk.next.load(std::memory_order_relaxed);
        if (newer.first.nextSerial > first.nextSerial)
            noteDropped(track, {first.source, first.nextSerial, newer.first.nextSerial - 1});
        return;
    }
    RecordReader reader(chunk.begin(), chunk.sealedEnd.load(std::memory_order_relaxed), first);
    for (Record record; reader.next(record);)
        if (record.kind == RecordKind::start || record.kind == RecordKind::instant)
            noteDropped(track, {record.id.sourceId, record.id.serialId, record.id.serialId});
}

/// So many events as there are serials.
void Growth::noteDropped(Track& track, const LostRange& gone) noexcept {
    generation_.droppedOldest += gone.last - gone.first + 1;
    LostRange& range = track.dropped;
    if (range.source != gone.source) {
        remember(*generation_.lost, range);
        range = gone;
    }
    range.first = std::min(range.first, gone.first);
    range.last = std::max(range.last, gone.last);
}

void remember(LostRing& ring, const LostRange& range) noexcept {
    if (range.source != 0)
        ring.ranges()[ring.count++ % ring.capacity] = range;
}

void releaseSources(Chunk& chunk, const Word* end) noexcept {
    if (chunk.sourceRecords > 0) {
        RecordReader reader(chunk.begin(), end, chunk.first);
        for (Record record; reader.next(record);)
            if (record.kind == RecordKind::source)
                SourcePtr::release(record.sourceInfo);
    }
    SourcePtr::release(chunk.first.info);
}

void freeChunk(Generation& generation, Chunk& chunk) noexcept {
    const std::size_t place = sizeClassOf(chunk.bytes + mappingHeader);
    chunk.nextSealed = std::exchange(generation.freeChunks[place], &chunk);
    generation.smallFreeBytes += place == 0 ? chunk.bytes : 0;
}

}  // namespace instrument::detail
