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

}  // namespace

std::byte* mapInto(Mapping*& mappings, std::size_t bytes) noexcept {
    void* pages = pageSource.map(bytes);
    if (!pages)
        return nullptr;
    mappings = std::construct_at(static_cast<Mapping*>(pages), mappings, bytes);
    return static_cast<std::byte*>(pages);
}

Generation* Growth::makeGeneration(std::uint64_t number) noexcept {
    Mapping* mappings = nullptr;
    std::byte* block = mapInto(mappings, blockBytes);
    if (!block)
        return nullptr;
    auto* generation = std::construct_at(reinterpret_cast<Generation*>(block + mappingHeader));
    generation->number = number;
    generation->mappings = mappings;
    generation->blockTail = block + roundUp(mappingHeader + sizeof(Generation), alignof(Track));
    generation->blockEnd = block + blockBytes;
    return generation;
}

void Growth::destroyGeneration(Generation* generation) noexcept {
    for (Track* track = generation->tracks.load(std::memory_order_relaxed); track;
         track = track->next)
        releaseSources(*track);
    for (Mapping* mapping = generation->mappings; mapping;) {
        Mapping* next = mapping->next;
        pageSource.unmap(mapping, mapping->bytes);
        mapping = next;
    }
}

/// A piece of a block, not counted yet.
std::byte* Growth::cut(std::size_t bytes) noexcept {
    bytes = roundUp(bytes, alignof(Track));
    if (static_cast<std::size_t>(generation_.blockEnd - generation_.blockTail) < bytes) {
        std::byte* block = mapInto(generation_.mappings, blockBytes);
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
    if (purpose == Purpose::end && track.refusing) {
        const auto open = static_cast<std::size_t>(std::max<std::int64_t>(track.open, 0));
        place = std::min(place, sizeClassOf(sizeThatHolds(bytesOf(2 * open + words))));
    }
    return std::max(chunkSizes[place], sizeThatHolds(bytesOf(words)));
}

/// What stops of the track may need: of those open, and of those that a chunk of `bytes` may yet
/// begin.
std::size_t Growth::reserveFor(const Track& track, std::size_t bytes) const noexcept {
    const auto open = static_cast<std::size_t>(std::max<std::int64_t>(track.open, 0));
    return bytes + open * 2 * sizeof(Word) + open / 2;
}

bool Growth::fits(const Track& track, std::size_t bytes, Purpose purpose) const noexcept {
    std::size_t needed = used_ + bytes;
    if (limits_.keep == Keep::first && purpose == Purpose::begin)
        needed += generation_.reserved - track.reserved + reserveFor(track, bytes);
    return needed <= limits_.maxBytes;
}

/// A free chunk of the wanted size, else of a larger, else of a smaller.
Chunk* Growth::takeFree(std::size_t least, std::size_t wanted) noexcept {
    auto& free = generation_.freeChunks;
    const std::size_t place = sizeClassOf(wanted);
    const auto takeAt = [&](std::size_t at) -> Chunk* {
        if (!free[at] || chunkSizes[at] < least)
            return nullptr;
        return std::exchange(free[at], free[at]->nextSealed);
    };
    for (std::size_t at = place; at < free.size(); ++at)
        if (Chunk* chunk = takeAt(at))
            return chunk;
    for (std::size_t at = place; at-- > 0;)
        if (Chunk* chunk = takeAt(at))
            return chunk;
    return nullptr;
}

Room Growth::makeChunk(std::size_t bytes) noexcept {
    std::byte* memory;
    if (bytes < blockBytes) {
        memory = cut(bytes);
    } else if ((memory = mapInto(generation_.mappings, bytes))) {
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
    const std::size_t wanted = sizeFor(track, words, purpose);
    do {
        if (Chunk* chunk = takeFree(least, wanted))
            return {chunk};
        if (fits(track, wanted, purpose))
            return makeChunk(wanted);
    } while (reclaim());
    for (std::size_t at = sizeClassOf(wanted); at-- > 0 && chunkSizes[at] >= least;)
        if (fits(track, chunkSizes[at], purpose))
            return makeChunk(chunkSizes[at]);
    return {nullptr, Denial::bound};
}

void Growth::append(Track& track, Chunk& chunk) noexcept {
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
    track.recent = {};
    track.current = &chunk;
    track.limit = chunk.limit();
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
    if (limits_.keep == Keep::first) {
        const std::size_t reserve = reserveFor(track, chunk.bytes);
        generation_.reserved += reserve - std::exchange(track.reserved, reserve);
    }
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
    RecordReader reader(chunk->begin(), chunk->sealedEnd.load(std::memory_order_relaxed),
                        chunk->first);
    for (Record record; reader.next(record);)
        if (record.kind == RecordKind::start || record.kind == RecordKind::instant)
            noteDropped(track, record.id);
    releaseSources(*chunk, reader.position());
    freeChunk(generation_, *chunk);
    return true;
}

void Growth::noteDropped(Track& track, EventId id) noexcept {
    ++generation_.droppedOldest;
    LostRange& range = track.dropped;
    if (range.source != id.sourceId) {
        remember(range);
        range = {id.sourceId, id.serialId, id.serialId};
    }
    range.first = std::min(range.first, id.serialId);
    range.last = std::max(range.last, id.serialId);
}

void Growth::remember(const LostRange& range) noexcept {
    if (range.source == 0)
        return;
    if (!generation_.lost) {
        std::byte* memory = cut(sizeof(LostRing));
        if (!memory)
            return;
        generation_.lost = std::construct_at(reinterpret_cast<LostRing*>(memory));
    }
    LostRing& ring = *generation_.lost;
    ring.ranges[ring.count++ % LostRing::capacity] = range;
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
}

}  // namespace instrument::detail
