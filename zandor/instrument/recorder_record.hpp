// How a recorder's chunks hold events: records of 8-byte words, read back one after the other.
//
//   word 0      kind 3 | timed 1 | context 8 | instrument 32 | serial 20
//   word 1      ticks of the raw clock, or nanoseconds where timed
//   [source, serial]      of a foreignStop: whose stop it is
//   [count]               where the context does not fit its 8 bits
//   [context words]       see recorder_context.hpp
//
// or, without context of its own and soon after the stream's base, as one word:
//
//   word 0      0 3 | kind 3 | instrument 16 | serial 10 | ticks since the base 32
//
// where a stop whose start has context is a kind of its own. Two kinds are of the stream alone: a
// base (ticks, in a second word) is what one-word records behind it count from, until a source
// record; a skip adds to the serial that comes next (in place of all but the kind).
//
// A stream is in one source at a time (whoever produces its records) and knows the serial that
// comes next there. A start or instant has that serial, plus the gap in its serial bits. A stop of
// an event that started in the same run of the stream counts back from the next serial; any other
// is a foreignStop. A source record (source id, next serial, source) switches the stream and begins
// a new run, unless it only goes on to a later serial of the same source. A plain start and its
// stop are 32 bytes together, or 16.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "zandor/instrument/event_id.hpp"

namespace instrument::detail {

struct SourceInfo;

using Word = std::uint64_t;

enum class RecordKind : std::uint8_t {
    start = 1,
    instant = 2,
    stop = 3,
    foreignStop = 4,
    source = 5,
    // What compaction is about to leave out.
    deadBegin = 6,  ///< a start or instant
    deadStop = 7,
    skip = 12,
    base = 13,
};
/// In records of one word: the stop of an event whose start has context; read as a stop. Its
/// serial, which is at least 1, tells it from memory that was never written.
inline constexpr RecordKind stopOfContext{0};

/// The first word of a record.
class RecordHead {
  public:
    static constexpr unsigned serialBits = 20;
    static constexpr std::uint64_t serialLimit = std::uint64_t{1} << serialBits;
    /// The largest gap that a start or instant may be written with; leaving records out may widen
    /// it.
    static constexpr std::uint64_t gapLimit = serialLimit >> 4;
    /// Values of the context bits that are not the number of context words.
    static constexpr std::uint64_t contextIsCounted = 254;
    static constexpr std::uint64_t contextOfStart = 255;

    constexpr explicit RecordHead(Word word) noexcept : word_(word) {}
    constexpr RecordHead(RecordKind kind, bool timed, std::uint64_t context,
                         std::uint32_t instrument, std::uint64_t serial) noexcept
        : word_(static_cast<Word>(kind) | Word{timed} << 3 | context << 4 | Word{instrument} << 12 |
                serial << 44) {}

    constexpr Word word() const noexcept { return word_; }
    constexpr RecordKind kind() const noexcept { return static_cast<RecordKind>(word_ & 7); }
    constexpr bool timed() const noexcept { return (word_ >> 3 & 1) != 0; }
    constexpr std::uint64_t context() const noexcept { return word_ >> 4 & 255; }
    constexpr std::uint32_t instrument() const noexcept {
        return static_cast<std::uint32_t>(word_ >> 12);
    }
    constexpr std::uint64_t serial() const noexcept { return word_ >> 44; }

  private:
    Word word_;
};

/// A record of one word, or the first of a base.
class ShortRecord {
  public:
    static constexpr std::uint64_t serialLimit = std::uint64_t{1} << 10;
    static constexpr std::uint64_t instrumentLimit = std::uint64_t{1} << 16;
    static constexpr std::uint64_t ticksLimit = std::uint64_t{1} << 32;

    static constexpr bool is(Word word) noexcept { return (word & 7) == 0; }

    constexpr explicit ShortRecord(Word word) noexcept : word_(word) {}
    /// All of them below their limits.
    constexpr ShortRecord(RecordKind kind, std::uint64_t instrument, std::uint64_t serial,
                          std::uint64_t ticks) noexcept
        : word_(Word{static_cast<Word>(kind) & 7} << 3 | instrument << 6 | serial << 22 |
                ticks << 32) {}
    static constexpr ShortRecord base() noexcept { return {RecordKind::base, 0, 0, 0}; }
    static constexpr ShortRecord skip(std::uint64_t serials) noexcept {
        return ShortRecord(ShortRecord(RecordKind::skip, 0, 0, 0).word() | serials << 6);
    }

    constexpr Word word() const noexcept { return word_; }
    constexpr RecordKind kind() const noexcept {
        const Word kind = word_ >> 3 & 7;
        if (hasContextOfStart())
            return RecordKind::stop;
        const bool isOfStream = kind == (Word{static_cast<Word>(RecordKind::base)} & 7) ||
                                kind == (Word{static_cast<Word>(RecordKind::skip)} & 7);
        return static_cast<RecordKind>(isOfStream ? kind + 8 : kind);
    }
    constexpr bool hasContextOfStart() const noexcept {
        return (word_ >> 3 & 7) == Word{static_cast<Word>(stopOfContext)};
    }
    /// Whether it is a record of one word, and of that kind.
    constexpr bool isPlain(RecordKind kind) const noexcept {
        return (word_ & 63) == Word{static_cast<Word>(kind) & 7} << 3;
    }
    constexpr std::uint32_t instrument() const noexcept {
        return static_cast<std::uint32_t>(word_ >> 6 & (instrumentLimit - 1));
    }
    constexpr std::uint64_t serial() const noexcept { return word_ >> 22 & (serialLimit - 1); }
    constexpr ShortRecord withSerial(std::uint64_t serial) const noexcept {
        return ShortRecord((word_ & ~((serialLimit - 1) << 22)) | serial << 22);
    }
    constexpr std::uint64_t ticks() const noexcept { return word_ >> 32; }
    constexpr std::uint64_t skipped() const noexcept { return word_ >> 6; }
    /// The same as a record of two words, but for its time.
    constexpr RecordHead head() const noexcept {
        return {kind(), false, hasContextOfStart() ? RecordHead::contextOfStart : 0, instrument(),
                serial()};
    }

  private:
    Word word_;
};

/// Words of a record before its context.
constexpr std::size_t wordsOf(RecordKind kind) noexcept {
    return kind == RecordKind::foreignStop || kind == RecordKind::source ? 4 : 2;
}
constexpr std::uint64_t contextBits(std::size_t words) noexcept {
    return words < RecordHead::contextIsCounted ? words : RecordHead::contextIsCounted;
}
/// Words that a context takes in its record.
constexpr std::size_t wordsWithCount(std::size_t words) noexcept {
    return words < RecordHead::contextIsCounted ? words : words + 1;
}

/// Where a stream stands.
struct StreamState {
    std::uint64_t source = 0;
    std::uint64_t nextSerial = 0;
    SourceInfo* info = nullptr;  ///< kept by the chunk or record that it is from
    /// Far from all ticks that there are.
    static constexpr std::uint64_t noBase = std::uint64_t{1} << 63;
    std::uint64_t base = noBase;  ///< ticks that one-word records count from
};

/// A record, read.
struct Record {
    RecordKind kind{};
    bool timed = false;
    bool hasContextOfStart = false;
    bool beginsRun = false;  ///< of a source record
    std::uint32_t instrument = 0;
    std::uint64_t time = 0;    ///< ticks, or nanoseconds where timed
    std::uint64_t source = 0;  ///< who produced it
    SourceInfo* sourceInfo = nullptr;
    EventId id;  ///< of a stop: its start's
    std::span<const Word> context;
};

/// A start or stop that is one word.
struct ShortEdge {
    std::uint64_t ticks = 0;
    std::uint64_t serial = 0;  ///< of a stop: its start's
    std::uint32_t instrument = 0;
};

/// Reads the records of a stretch of a stream: those that begin before its end.
class RecordReader {
  public:
    RecordReader(const Word* begin, const Word* end, StreamState state) noexcept
        : position_(begin), end_(end), state_(state) {}

    /// Where the next record begins, and the stream there.
    const Word* position() const noexcept { return position_; }
    const StreamState& state() const noexcept { return state_; }

    /// Gives the next record, or false at the end.
    bool next(Record& record) noexcept {
        if (position_ >= end_)
            return false;
        if (ShortRecord::is(position_[0])) {
            readShort(ShortRecord(position_[0]), record);
            return true;
        }
        const RecordHead head{position_[0]};
        record.kind = head.kind();
        record.timed = head.timed();
        record.instrument = head.instrument();
        record.time = position_[1];
        readContext(head, readIdentity(head.serial(), record), record);
        return true;
    }

    /// Calls `onStart` or `onStop` with each start or stop of one word, until another record comes.
    /// Most are such, and cost less this way than as records. All are of the state's source.
    template <class Start, class Stop>
    void readShortEdges(Start onStart, Stop onStop) {
        const std::uint64_t base = state_.base;
        std::uint64_t nextSerial = state_.nextSerial;
        const Word* at = position_;
        for (; at < end_; ++at) {
            const ShortRecord read(*at);
            if (read.isPlain(RecordKind::start)) {
                const std::uint64_t serial = nextSerial + read.serial();
                nextSerial = serial + 1;
                onStart(ShortEdge{base + read.ticks(), serial, read.instrument()});
            } else if (read.isPlain(RecordKind::stop)) {
                onStop(
                    ShortEdge{base + read.ticks(), nextSerial - read.serial(), read.instrument()});
            } else {
                break;
            }
        }
        position_ = at;
        state_.nextSerial = nextSerial;
    }

  private:
    void readShort(ShortRecord read, Record& record) noexcept {
        record.kind = read.kind();
        record.timed = false;
        record.hasContextOfStart = read.hasContextOfStart();
        record.instrument = read.instrument();
        record.context = {};
        if (record.kind >= RecordKind::skip) [[unlikely]]
            return readOfStream(read);
        record.time = state_.base + read.ticks();
        readIdentity(read.serial(), record);
        ++position_;
    }

    void readOfStream(ShortRecord read) noexcept {
        if (read.kind() == RecordKind::skip)
            state_.nextSerial += read.skipped();
        else
            state_.base = *++position_;
        ++position_;
    }

    // No switch: most records are plain, and branches that are foretold cost less than a jump
    // table. Gives where its context is.
    const Word* readIdentity(std::uint64_t serial, Record& record) noexcept {
        record.source = state_.source;
        record.sourceInfo = state_.info;
        if (record.kind == RecordKind::stop || record.kind == RecordKind::deadStop) {
            record.id = {state_.source, state_.nextSerial - serial};
        } else if (record.kind == RecordKind::foreignStop) [[unlikely]] {
            record.id = {position_[2], position_[3]};
            return position_ + wordsOf(RecordKind::foreignStop);
        } else if (record.kind == RecordKind::source) [[unlikely]] {
            readSource(record);
            return position_ + wordsOf(RecordKind::source);
        } else {
            record.id = {state_.source, state_.nextSerial + serial};
            state_.nextSerial = record.id.serialId + 1;
        }
        return position_ + wordsOf(RecordKind::start);
    }

    void readSource(Record& record) noexcept {
        record.id = {position_[1], position_[2]};
        record.beginsRun =
            record.id.sourceId != state_.source || record.id.serialId < state_.nextSerial;
        state_ = {record.id.sourceId, record.id.serialId,
                  reinterpret_cast<SourceInfo*>(position_[3])};
        record.source = state_.source;
        record.sourceInfo = state_.info;
    }

    void readContext(RecordHead head, const Word* context, Record& record) noexcept {
        std::size_t count = head.context();
        record.hasContextOfStart = false;
        if (count >= RecordHead::contextIsCounted) [[unlikely]] {
            record.hasContextOfStart = count == RecordHead::contextOfStart;
            count = record.hasContextOfStart ? 0 : *context++;
        }
        record.context = {context, count};
        position_ = context + count;
    }

    const Word* position_;
    const Word* end_;
    StreamState state_;
};

}  // namespace instrument::detail
