#include "name_index.hpp"

#include <algorithm>

namespace instrument::detail {

NameIndex::Use::Use(RecorderCore& core, const Snapshot& snapshot) {
    NameIndex& index = core.nameIndex();
    // Acquire pairs with the release of the one before.
    if (core.keep() != Keep::first || index.isInUse_.exchange(true, std::memory_order_acquire))
        return;
    index_ = &index;
    if (std::exchange(core.indexedRecording(), snapshot.recording()) != snapshot.recording())
        index.tracks_.clear();
}

NameIndex::Use::~Use() {
    if (index_)  // pairs with the acquire of the next one
        index_->isInUse_.store(false, std::memory_order_release);
}

bool NameIndex::mayHave(std::uint32_t instrument, const TrackView& view, std::size_t stretch) {
    TrackNames& track = tracks_[view.track];
    const Stretch& asked = view.stretches[stretch];
    if (stretch == track.chunks.size() && asked.isSealedChunk())
        track.chunks.push_back(read(asked, track.run));
    if (stretch >= track.chunks.size())
        return true;
    const ChunkNames& known = track.chunks[stretch];
    const bool isIt =
        known.chunk == asked.chunk && asked.begin == asked.chunk->begin() && known.end == asked.end;
    return !isIt || known.hasAny || std::ranges::binary_search(known.names, instrument);
}

NameIndex::ChunkNames NameIndex::read(const Stretch& stretch, OpenRun<std::uint32_t>& run) {
    ChunkNames found{stretch.chunk, stretch.end, false, {}};
    ++chunksRead_;
    countRead(stretch);
    RecordReader reader(stretch.begin, stretch.end, stretch.state);
    for (Record record; reader.next(record);) {
        switch (record.kind) {
            case RecordKind::start:
                run.push(record.id.serialId, record.instrument);
                [[fallthrough]];
            case RecordKind::instant:
                note(record.instrument, found.names);
                break;
            case RecordKind::stop:
                note(record.instrument, found.names);
                if (const auto started = run.take(record.id.serialId))
                    note(*started, found.names);
                else
                    found.hasAny = true;
                break;
            case RecordKind::foreignStop:
                found.hasAny = true;
                break;
            case RecordKind::source:
                if (record.beginsRun)
                    run.clear();
                break;
            case RecordKind::skip:
            case RecordKind::base:
            case RecordKind::deadBegin:
            case RecordKind::deadStop:
                break;
        }
    }
    const auto bytes = static_cast<std::size_t>(stretch.end - stretch.begin) * sizeof(Word);
    found.hasAny = found.hasAny || found.names.size() > bytes / bytesOfAName;
    if (found.hasAny)
        found.names = {};
    std::ranges::sort(found.names);
    return found;
}

void NameIndex::note(std::uint32_t name, std::vector<std::uint32_t>& names) {
    if (name >= lastChunk_.size())
        lastChunk_.resize(name + 1);
    if (std::exchange(lastChunk_[name], chunksRead_) != chunksRead_)
        names.push_back(name);
}

}  // namespace instrument::detail
