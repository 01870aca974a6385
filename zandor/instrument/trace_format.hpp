// How a trace file lies on the disk; docs/vtrace.md tells the whole of it.
//
//   TraceFileHead
//   blocks      TraceBlockHead, payload, zeros up to a multiple of eight bytes
//     process     TraceProcess
//     journal     entries as in run files (see run_file.hpp)
//     records     TraceStretch, then records as in chunks (see recorder_record.hpp)
//     lost        LostRange, of starts and instants that were dropped
//     outline     of each row OutlineRow, then its OutlineSlices
//     lines       a stream of samples (see line_samples.hpp)
//     index       TraceIndexEntry for each block before it
//   TraceFileTail
//
// Numbers are little-endian. A file without index and tail is one whose writer ended early: its
// blocks can be read from the front.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>

namespace instrument::detail {

struct TraceFileHead {
    static constexpr std::array<char, 8> expectedMagic{'v', 't', 'r', 'a', 'c', 'e', '\r', '\n'};
    static constexpr std::uint32_t currentVersion = 1;
    std::array<char, 8> magic = expectedMagic;
    std::uint32_t version = currentVersion;
    std::uint32_t unused = 0;
};
static_assert(sizeof(TraceFileHead) == 16);

enum class TraceBlock : std::uint32_t {
    process = 1,
    journal = 2,
    records = 3,
    lost = 4,
    index = 5,
    lines = 6,
    outline = 7,
};

struct TraceBlockHead {
    static constexpr std::uint32_t expectedMagic = 0x6b636f6c;
    std::uint32_t magic = expectedMagic;
    TraceBlock kind{};
    std::uint32_t process = 0;   ///< which of the file's, from 0; of the index 0
    std::uint32_t checksum = 0;  ///< CRC-32 of this head, with 0 here, and of the payload
    std::uint64_t bytes = 0;     ///< of the payload
};
static_assert(sizeof(TraceBlockHead) == 24 && offsetof(TraceBlockHead, checksum) == 12);

/// What is known of a process; the first block of each.
struct TraceProcess {
    std::uint64_t processId = 0;
    std::uint64_t ticksAreTsc = 0;       ///< else they are nanoseconds of the monotonic clock
    std::uint64_t originTicks = 0;       ///< of the first event; 0: none
    std::int64_t originNanoseconds = 0;  ///< of the first event whose time was given; 0: none
    std::int64_t utcOffset = 0;          ///< from the monotonic clock
    std::uint64_t refused = 0;           ///< events dropped, as in RecorderDrops
    std::uint64_t oldest = 0;
    std::uint64_t shortest = 0;
    std::uint64_t failed = 0;
    std::int64_t minimumDuration = 0;
    std::array<char, 64> name{};    ///< ends with a NUL, as does bootId
    std::array<char, 40> bootId{};  ///< which run of the system the monotonic clock belongs to
};
static_assert(sizeof(TraceProcess) == 184 && offsetof(TraceProcess, name) == 80);

/// Where records come from. A track is the stream of one thread after another.
struct TraceStretch {
    std::uint64_t track = 0;
    std::uint64_t source = 0;  ///< of the stream at the first record
    std::uint64_t nextSerial = 0;
};
static_assert(sizeof(TraceStretch) == 24);

/// Of an outline. What follows are its slices, by time.
struct OutlineRow {
    std::uint64_t source = 0;
    std::uint64_t timed = 0;       ///< times are nanoseconds; else ticks
    std::uint64_t isInstants = 0;  ///< a row of instants; else of nested events
    std::uint64_t place = 0;       ///< of nested events: how many others were open
    std::uint64_t slices = 0;
};
static_assert(sizeof(OutlineRow) == 40);

/// An event, or several neighbours.
struct OutlineSlice {
    std::int64_t begin = 0;
    std::int64_t end = 0;
    std::uint64_t serial = 0;  ///< of an event alone
    std::uint64_t busy = 0;    ///< the events' time, without the gaps
    std::uint32_t name = 0;    ///< the number of an instrument: the one with most of the time
    std::uint32_t events = 0;
    std::uint64_t marks = 0;  ///< 1 instant, 2 had not ended
};
static_assert(sizeof(OutlineSlice) == 48);

struct TraceIndexEntry {
    std::uint64_t offset = 0;  ///< of the block's head
    std::uint64_t bytes = 0;   ///< of its payload
    TraceBlock kind{};
    std::uint32_t process = 0;
};
static_assert(sizeof(TraceIndexEntry) == 24);

struct TraceFileTail {
    static constexpr std::array<char, 8> expectedMagic{'v', 't', 'e', 'n', 'd', '\r', '\n', '\0'};
    std::uint64_t index = 0;  ///< offset of the index block's head
    std::array<char, 8> magic = expectedMagic;
};
static_assert(sizeof(TraceFileTail) == 16);

/// The record that a payload begins with; the payload is long enough.
template <class Record>
Record recordIn(std::span<const std::uint64_t> payload) noexcept {
    std::array<std::uint64_t, sizeof(Record) / sizeof(std::uint64_t)> words;
    std::copy_n(payload.begin(), words.size(), words.begin());
    return std::bit_cast<Record>(words);
}

}  // namespace instrument::detail
