#include "chunk_backup.hpp"

#include <algorithm>
#include <cstring>
#include <memory>

namespace instrument::detail {
namespace {

ChunkBackup* backupFor(Generation& generation, std::size_t bytes) noexcept {
    if (generation.backup && generation.backup->capacity >= bytes)
        return generation.backup;
    const std::size_t size = roundUp(mappingHeader + sizeof(ChunkBackup) + bytes, pageBytes);
    std::byte* memory = mapInto(generation.mappings, size, generation.file);
    if (!memory)
        return nullptr;
    generation.backup = std::construct_at(reinterpret_cast<ChunkBackup*>(memory + mappingHeader));
    generation.backup->capacity = size - mappingHeader - sizeof(ChunkBackup);
    return generation.backup;
}

}  // namespace

void (*compactionCameTo)(CompactionPoint point) = nullptr;

BackedUp::BackedUp(Generation& generation, Track& track, Chunk* before, Chunk& chunk) noexcept
    : generation_(generation) {
    if (!generation.file)
        return;
    // Most chunks are as large as the one: the backup is made once.
    ChunkBackup* const backup = backupFor(generation, chunk.bytes);
    if (!backup)
        return;
    backup->track = &track;
    backup->before = before;
    backup->beforeEnd = before ? before->sealedEnd.load(std::memory_order_relaxed) : nullptr;
    backup->chunk = &chunk;
    backup->after = chunk.next.load(std::memory_order_relaxed);
    backup->first = chunk.first;
    backup->droppedShortest = generation.droppedShortest;
    const Word* end = chunk.sealedEnd.load(std::memory_order_relaxed);
    backup->words = static_cast<std::size_t>(end - chunk.begin());
    std::memcpy(backup->records(), chunk.begin(), backup->words * sizeof(Word));
    // Partner of the reader of run files: with it comes the backup, and what changes comes later.
    generation.rewriting.store(backup, std::memory_order_seq_cst);
    std::atomic_thread_fence(std::memory_order_seq_cst);
    comeTo(CompactionPoint::backedUp);
}

BackedUp::~BackedUp() {
    // Partner of the reader of run files: what was changed is whole.
    generation_.rewriting.store(nullptr, std::memory_order_release);
    comeTo(CompactionPoint::done);
}

}  // namespace instrument::detail
