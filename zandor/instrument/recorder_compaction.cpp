#include "recorder_compaction.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <memory>
#include <utility>

#include "chunk_backup.hpp"
#include "recorder_times.hpp"
#include "source_info.hpp"

namespace instrument::detail {

/// Bytes of events by duration, in sixteenths of powers of two. An estimate: a rewrite may bring
/// events within reach that were not, and the other way round.
class DurationHistogram {
  public:
    void add(std::int64_t duration, std::size_t bytes) noexcept {
        bytes_[bucketOf(duration)] += bytes;
        total_ += bytes;
    }
    void remove(std::int64_t duration, std::size_t bytes) noexcept {
        take(bucketOf(duration), bytes);
    }
    /// What is left below `minimum` after a sweep cannot go.
    void forgetBelow(std::int64_t minimum) noexcept {
        for (std::size_t bucket = 0; bucket < bytes_.size() && leastOf(bucket) < minimum; ++bucket)
            take(bucket, bytes_[bucket]);
    }
    /// Takes over all that `other` has.
    void absorb(DurationHistogram& other) noexcept {
        for (std::size_t bucket = 0; bucket < bytes_.size(); ++bucket)
            bytes_[bucket] += std::exchange(other.bytes_[bucket], 0);
        total_ += std::exchange(other.total_, 0);
    }
    std::size_t total() const noexcept { return total_; }

    /// The least duration, at least `minimum`, below which there are `bytes`.
    std::int64_t durationAbove(std::size_t bytes, std::int64_t minimum) const noexcept {
        std::size_t below = 0;
        std::size_t bucket = 0;
        while (bucket + 1 < bytes_.size() && (below < bytes || leastOf(bucket) < minimum))
            below += bytes_[bucket++];
        return leastOf(bucket);
    }

  private:
    void take(std::size_t bucket, std::size_t bytes) noexcept {
        bytes = std::min(bytes, bytes_[bucket]);
        bytes_[bucket] -= bytes;
        total_ -= bytes;
    }
    static std::size_t bucketOf(std::int64_t duration) noexcept {
        const auto value = static_cast<std::uint64_t>(std::max<std::int64_t>(duration, 0));
        const auto shift = std::max(static_cast<int>(std::bit_width(value)) - 5, 0);
        return static_cast<std::size_t>(16 * shift) + static_cast<std::size_t>(value >> shift);
    }
    static std::int64_t leastOf(std::size_t bucket) noexcept {
        if (bucket < 32)
            return static_cast<std::int64_t>(bucket);
        const std::size_t shift = bucket / 16 - 1;
        return static_cast<std::int64_t>((bucket - 16 * shift) << shift);
    }

    std::array<std::size_t, 16 * 60> bytes_;
    std::size_t total_;
};

/// All zero at first.
struct Compaction {
    struct Begun {
        std::uint64_t serial;
        Word* head;
        std::int64_t time;
        std::size_t words;
    };
    static constexpr std::size_t capacity = 16384;

    DurationHistogram durations;
    DurationHistogram recent;  ///< of chunks that were sealed since the present sweep began
    std::size_t sealedBytes;
    // Where the present sweep over all tracks is: chunks up to `into` are done.
    Track* track;
    Chunk* into;
    StreamState end;  ///< of the stream where `into` ends

    std::size_t begunCount;
    std::array<Begun, capacity> begun;  ///< the events of a run that are open, when a chunk is read
};

namespace {

Compaction* compactionOf(Generation& generation) noexcept {
    if (!generation.compaction) {
        std::byte* memory =
            mapInto(generation.mappings, mappingHeader + sizeof(Compaction), nullptr);
        if (memory)  // zero already, and touched as it is needed
            generation.compaction = reinterpret_cast<Compaction*>(memory + mappingHeader);
    }
    return generation.compaction;
}

/// Takes the open event of this serial out of those of the run. Looks at the youngest ones only.
bool takeBegun(Compaction& compaction, std::uint64_t serial, Compaction::Begun& found) noexcept {
    constexpr std::size_t depth = 64;
    const std::size_t count = compaction.begunCount;
    for (std::size_t i = 1; i <= std::min(count, depth); ++i) {
        Compaction::Begun* begun = &compaction.begun[count - i];
        if (begun->serial != serial)
            continue;
        found = *begun;
        std::move(begun + 1, &compaction.begun[count - 1] + 1, begun);
        --compaction.begunCount;
        return true;
    }
    return false;
}

/// Tells of everything in a chunk that may go: visit(duration, bytes, begin, stop or null).
template <class Visit>
void visitEvents(Compaction& compaction, Chunk& chunk, Visit visit) noexcept {
    TimeReader times;
    compaction.begunCount = 0;
    Word* head = chunk.begin();
    RecordReader reader(head, chunk.sealedEnd.load(std::memory_order_relaxed), chunk.first);
    for (Record record; reader.next(record); head = const_cast<Word*>(reader.position())) {
        const auto words = static_cast<std::size_t>(reader.position() - head);
        if (record.kind == RecordKind::instant) {
            visit(std::int64_t{0}, words * sizeof(Word), head, nullptr);
        } else if (record.kind == RecordKind::source && record.beginsRun) {
            compaction.begunCount = 0;
        } else if (record.kind == RecordKind::start &&
                   compaction.begunCount < Compaction::capacity) {
            compaction.begun[compaction.begunCount++] = {record.id.serialId, head, times.of(record),
                                                         words};
        } else if (record.kind == RecordKind::stop) {
            Compaction::Begun begun;
            if (takeBegun(compaction, record.id.serialId, begun))
                visit(times.of(record) - begun.time, (begun.words + words) * sizeof(Word),
                      begun.head, head);
        }
    }
}

void mark(Word* head, RecordKind kind) noexcept {
    const unsigned place = ShortRecord::is(*head) ? 3 : 0;
    *head = (*head & ~(Word{7} << place)) | static_cast<Word>(kind) << place;
}

void markShort(Generation& generation, Compaction& compaction, Chunk& chunk) noexcept {
    visitEvents(compaction, chunk,
                [&](std::int64_t duration, std::size_t bytes, Word* begin, Word* stop) {
                    if (duration >= generation.minimumDuration)
                        return;
                    compaction.durations.remove(duration, bytes);
                    compaction.sealedBytes -= bytes;
                    ++generation.droppedShortest;
                    mark(begin, RecordKind::deadBegin);
                    if (stop)
                        mark(stop, RecordKind::deadStop);
                });
}

/// Writes records behind what a chunk holds, encoded for where they come to stand. In the chunk
/// that they are read from none grows beyond what went before it: a skip stands where a start or
/// instant was left out, or another skip was; a base where one was.
class Rewriter {
  public:
    Rewriter(Chunk& chunk, Word* end, StreamState state) noexcept
        : chunk_(&chunk), end_(end), state_(state) {}

    Chunk& chunk() const noexcept { return *chunk_; }
    const StreamState& state() const noexcept { return state_; }
    bool isEmpty() const noexcept { return end_ == chunk_->begin(); }
    bool fits(std::size_t words) const noexcept {
        constexpr std::size_t skipAndBase = 3;
        return words + skipAndBase <= static_cast<std::size_t>(chunk_->limit() - end_);
    }
    void finish() noexcept { chunk_->sealedEnd.store(end_, std::memory_order_relaxed); }

    /// `base` is that of the stream that the record is from.
    void put(const Record& record, std::uint64_t base, const Word* begin,
             const Word* recordEnd) noexcept {
        if (record.kind == RecordKind::source)
            return putSource(record);
        if (record.kind == RecordKind::base || record.kind == RecordKind::skip)
            return;  // the first record that needs it brings its own
        // Its start was dropped, now or before.
        if (record.kind == RecordKind::stop && record.id.serialId >= state_.nextSerial)
            return;
        std::uint64_t serial = 0;
        if (record.kind == RecordKind::stop) {
            serial = state_.nextSerial - record.id.serialId;
        } else if (record.kind != RecordKind::foreignStop) {
            serial = record.id.serialId - state_.nextSerial;
            if (serial >=
                (ShortRecord::is(*begin) ? ShortRecord::serialLimit : RecordHead::serialLimit))
                *end_++ = ShortRecord::skip(std::exchange(serial, 0)).word();
            state_.nextSerial = record.id.serialId + 1;
        }
        if (ShortRecord::is(*begin))
            putShort(ShortRecord(*begin), serial, base);
        else
            putLong(RecordHead(*begin), serial, begin + 1, recordEnd);
        lastSource_ = nullptr;
        if (record.kind == RecordKind::foreignStop)
            chunk_->foreignStops.fetch_add(1, std::memory_order_relaxed);
    }

  private:
    void putLong(RecordHead head, std::uint64_t serial, const Word* rest,
                 const Word* recordEnd) noexcept {
        *end_++ =
            RecordHead(head.kind(), head.timed(), head.context(), head.instrument(), serial).word();
        const auto words = static_cast<std::size_t>(recordEnd - rest);
        std::memmove(end_, rest, words * sizeof(Word));
        end_ += words;
    }
    void putShort(ShortRecord record, std::uint64_t serial, std::uint64_t base) noexcept {
        if (state_.base != base) {
            *end_++ = ShortRecord::base().word();
            *end_++ = state_.base = base;
        }
        *end_++ = record.withSerial(serial).word();
    }
    /// One that follows another takes its place.
    void putSource(const Record& record) noexcept {
        SourcePtr::retain(record.sourceInfo);
        if (lastSource_) {
            end_ = lastSource_;
            SourcePtr::release(state_.info);
            --chunk_->sourceRecords;
        }
        lastSource_ = end_;
        *end_++ = static_cast<Word>(RecordKind::source);
        *end_++ = record.id.sourceId;
        *end_++ = record.id.serialId;
        *end_++ = reinterpret_cast<Word>(record.sourceInfo);
        ++chunk_->sourceRecords;
        state_ = {record.id.sourceId, record.id.serialId, record.sourceInfo};
    }

    Chunk* chunk_;
    Word* end_;
    StreamState state_;
    Word* lastSource_ = nullptr;
};

/// Moves what is alive in `source` behind what the chunk before it holds, and the rest to the front
/// of `source`. Gives the chunk that it ends in.
Rewriter rewrite(Chunk* before, StreamState beforeEnd, Chunk& source) noexcept {
    const Word* head = source.begin();
    RecordReader reader(head, source.sealedEnd.load(std::memory_order_relaxed), source.first);
    source.foreignStops.store(0, std::memory_order_relaxed);
    source.sourceRecords = 0;
    Rewriter writer =
        before ? Rewriter(*before, before->sealedEnd.load(std::memory_order_relaxed), beforeEnd)
               : Rewriter(source, source.begin(), source.first);
    StreamState state = reader.state();
    for (Record record; reader.next(record); head = reader.position(), state = reader.state()) {
        if (record.kind == RecordKind::deadBegin || record.kind == RecordKind::deadStop)
            continue;
        if (&writer.chunk() != &source &&
            !writer.fits(static_cast<std::size_t>(reader.position() - head))) {
            writer.finish();
            writer = Rewriter(source, source.begin(), state);
            SourcePtr::retain(state.info);
            SourcePtr::release(std::exchange(source.first, state).info);
        }
        writer.put(record, reader.state().base, head, reader.position());
        comeTo(CompactionPoint::moving);
        if (record.kind == RecordKind::source)
            SourcePtr::release(record.sourceInfo);  // what is written keeps its own
    }
    writer.finish();
    return writer;
}

/// Compacts the sweep's next chunk. Whether it or the one before it became free.
bool step(Generation& generation, Compaction& compaction) noexcept {
    Track& track = *compaction.track;
    Chunk* const before = compaction.into;
    Chunk* const source = before ? before->next.load(std::memory_order_relaxed)
                                 : track.oldest.load(std::memory_order_relaxed);
    if (source == track.current) {
        compaction.track = track.next;
        compaction.into = nullptr;
        return false;
    }
    Chunk* const after = source->next.load(std::memory_order_relaxed);
    const BackedUp backup(generation, track, before, *source);
    markShort(generation, compaction, *source);
    comeTo(CompactionPoint::marked);
    const Rewriter end = rewrite(before, compaction.end, *source);
    comeTo(CompactionPoint::rewritten);
    compaction.end = end.state();
    const bool moved = &end.chunk() != source;
    if (!moved && !end.isEmpty()) {
        compaction.into = source;
        return false;
    }
    if (before)
        before->next.store(after, std::memory_order_relaxed);
    else
        track.oldest.store(after, std::memory_order_relaxed);
    comeTo(CompactionPoint::linked);
    SourcePtr::release(source->first.info);
    freeChunk(generation, *source);
    return true;
}

/// Raises the minimum duration until a good part of what is sealed goes; false when too little can
/// go.
bool beginSweep(Generation& generation, Compaction& compaction) noexcept {
    compaction.durations.forgetBelow(generation.minimumDuration);
    compaction.durations.absorb(compaction.recent);
    const std::size_t droppable = compaction.durations.total();
    if (droppable == 0 || droppable < compaction.sealedBytes / 16)
        return false;
    const std::size_t wanted = std::min(droppable, compaction.sealedBytes / 4 + 1);
    generation.minimumDuration =
        compaction.durations.durationAbove(wanted, generation.minimumDuration);
    compaction.track = generation.tracks.load(std::memory_order_relaxed);
    compaction.into = nullptr;
    return true;
}

}  // namespace

void addDurations(Generation& generation, Chunk& chunk) noexcept {
    Compaction* compaction = compactionOf(generation);
    if (!compaction)
        return;
    const Word* end = chunk.sealedEnd.load(std::memory_order_relaxed);
    compaction->sealedBytes += static_cast<std::size_t>(end - chunk.begin()) * sizeof(Word);
    visitEvents(*compaction, chunk, [&](std::int64_t duration, std::size_t bytes, Word*, Word*) {
        compaction->recent.add(duration, bytes);
    });
}

bool compactSome(Generation& generation) noexcept {
    Compaction* compaction = generation.compaction;
    if (!compaction)
        return false;
    for (;;) {
        if (!compaction->track && !beginSweep(generation, *compaction))
            return false;
        while (compaction->track)
            if (step(generation, *compaction))
                return true;
    }
}

}  // namespace instrument::detail
