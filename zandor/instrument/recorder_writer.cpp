#include "recorder_writer.hpp"

#include <algorithm>
#include <cstring>
#include <utility>

#include "source_info.hpp"

namespace instrument::detail {
namespace {

/// Counts are their thread's own: relaxed.
void increment(std::atomic<std::uint64_t>& count) noexcept {
    count.store(count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

RecentStart& recentStart(Track& track, std::uint64_t serial) noexcept {
    return track.recent[serial % track.recent.size()];
}

}  // namespace

void RecordWriter::write() noexcept {
    if (endsLostEvent())
        return;
    if (isPastRefusal())
        return increment(track_.refused);
    if (!track_.current)
        enterSource();  // nothing is written yet: the first chunk begins there
    if (const Denial denial = put(); denial != Denial::none)
        return drop(denial);
    if (!record_.isStop() && !track_.refusing && track_.lost.source != 0)
        core_.keepLosses(track_);
}

bool RecordWriter::isPastRefusal() const noexcept {
    return !record_.isStop() && track_.refusing && track_.lost.source == record_.id.sourceId;
}

/// The starts that this thread dropped of late are known here; others are told apart when read.
bool RecordWriter::endsLostEvent() const noexcept {
    if (!record_.isStop() || !track_.hasLost) [[likely]]
        return false;
    const auto isIn = [&](const LostRange& range) { return range.has(record_.id); };
    return isIn(track_.lost) || std::ranges::any_of(track_.lostBefore, isIn);
}

bool RecordWriter::needsSource() const noexcept {
    const StreamState& stream = track_.stream;
    if (stream.source != record_.source->id)
        return true;
    if (record_.isStop())
        return false;
    // The times of external sources may come through several threads; what one left out, another
    // may have. So a gap begins a new run there.
    const std::uint64_t gap = record_.id.serialId - stream.nextSerial;
    return record_.timed ? gap != 0 : gap >= RecordHead::gapLimit;
}

/// Whether it ends an event that started in the present run.
bool RecordWriter::isOwnStop() const noexcept {
    const StreamState& stream = track_.stream;
    return record_.id.sourceId == stream.source &&
           record_.id.serialId - track_.runFirst < stream.nextSerial - track_.runFirst &&
           stream.nextSerial - record_.id.serialId < RecordHead::serialLimit;
}

bool RecordWriter::isContextOfStart(const Word* context, std::size_t words) const noexcept {
    const RecentStart& start = recentStart(track_, record_.id.serialId);
    return start.record && start.serial == record_.id.serialId &&
           RecordHead(*start.record).context() == words &&
           std::memcmp(start.record + wordsOf(RecordKind::start), context, words * sizeof(Word)) ==
               0;
}

Denial RecordWriter::makeRoom(std::size_t words) noexcept {
    const Word* const tail = track_.tail.load(std::memory_order_relaxed);  // this thread's own
    const Word* const limit =
        record_.isStop() && track_.current ? track_.current->limit() : track_.limit;
    if (limit - tail >= static_cast<std::ptrdiff_t>(words))
        return Denial::none;
    if (track_.refusing && !record_.isStop())
        return Denial::bound;
    return core_.grow(track_, words, record_.isStop() ? Purpose::end : Purpose::begin);
}

Denial RecordWriter::put() noexcept {
    const bool enters = needsSource();
    RecordKind kind = record_.kind;
    if (record_.isStop() && (enters || !isOwnStop()))
        kind = RecordKind::foreignStop;
    const bool kept = kind == RecordKind::stop && record_.contextIsStarts;
    const std::size_t words = kept ? 0 : contextWords(record_.context);
    const std::size_t before = (enters ? wordsOf(RecordKind::source) : 0) + wordsOf(kind);
    if (const Denial denial = makeRoom(before + wordsWithCount(words)); denial != Denial::none)
        return denial;

    Word* const tail = track_.tail.load(std::memory_order_relaxed);
    Word* const context = tail + before + (wordsWithCount(words) - words);
    if (words > 0 && !encodeContext(record_.context, texts_, context))
        return Denial::system;
    const bool ofStart =
        kept || (words > 0 && kind == RecordKind::stop && isContextOfStart(context, words));
    Word* const head = enters ? putSource(tail) : tail;
    putHead(head, kind, words, ofStart);
    note(head, kind, words > 0);
    // Pairs with the acquire in committedEnd: with the tail come the records before it.
    track_.tail.store(ofStart ? head + wordsOf(kind) : context + words, std::memory_order_release);
    return Denial::none;
}

/// Has the stream go on in the record's source.
void RecordWriter::enterSource() noexcept {
    StreamState& stream = track_.stream;
    std::uint64_t serial = record_.id.serialId;
    if (record_.isStop())  // the next one is not known, but it comes after the event's
        serial = record_.id.sourceId == record_.source->id ? serial + 1 : 0;
    if (record_.timed || stream.source != record_.source->id || serial < stream.nextSerial)
        track_.runFirst = serial;
    if (RunFile* file = track_.generation->file)
        journalSource(*file, *record_.source);
    SourcePtr::retain(record_.source);
    SourcePtr::release(stream.info);
    stream = {record_.source->id, serial, record_.source};
    track_.recent = {};
}

Word* RecordWriter::putSource(Word* out) noexcept {
    enterSource();
    SourcePtr::retain(record_.source);
    ++track_.current->sourceRecords;
    *out++ = static_cast<Word>(RecordKind::source);
    *out++ = track_.stream.source;
    *out++ = track_.stream.nextSerial;
    *out++ = reinterpret_cast<Word>(record_.source);
    return out;
}

void RecordWriter::putHead(Word* head, RecordKind kind, std::size_t contextWords,
                           bool contextOfStart) noexcept {
    const std::uint64_t next = track_.stream.nextSerial;
    std::uint64_t serial = 0;
    if (kind == RecordKind::stop)
        serial = next - record_.id.serialId;
    else if (kind != RecordKind::foreignStop)
        serial = record_.id.serialId - next;
    const std::uint64_t context =
        contextOfStart ? RecordHead::contextOfStart : contextBits(contextWords);
    *head++ = RecordHead(kind, record_.timed, context, record_.instrument, serial).word();
    *head++ = record_.time;
    if (kind == RecordKind::foreignStop) {
        *head++ = record_.id.sourceId;
        *head++ = record_.id.serialId;
    }
    if (context == RecordHead::contextIsCounted)
        *head = contextWords;
}

void RecordWriter::note(const Word* head, RecordKind kind, bool hasContext) noexcept {
    switch (kind) {
        case RecordKind::start:
            ++track_.open;
            if (hasContext)
                recentStart(track_, record_.id.serialId) = {record_.id.serialId, head};
            [[fallthrough]];
        case RecordKind::instant:
            if (record_.id.serialId != track_.stream.nextSerial)
                track_.current->hasGaps = true;
            track_.stream.nextSerial = record_.id.serialId + 1;
            break;
        case RecordKind::stop:
            --track_.open;
            break;
        default:
            --track_.open;
            // Committed with the record, by the tail.
            track_.current->foreignStops.fetch_add(1, std::memory_order_relaxed);
            break;
    }
}

void RecordWriter::drop(Denial denial) noexcept {
    increment(denial == Denial::bound ? track_.refused : track_.failed);
    if (record_.isStop())
        return;
    const bool forGood = denial == Denial::bound && core_.keep() == Keep::first;
    track_.refusing = track_.refusing || forGood;
    core_.lose(track_, record_.id, forGood);
}

}  // namespace instrument::detail
