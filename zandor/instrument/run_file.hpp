// Event memory that outlives its process: a file of a run folder, one for each recording of each
// process.
//
//   page 0      RunFile: which process, its clock, where its generation stands
//   parts       each begins with a Mapping:
//     events      a piece of event memory as it stands in the process; pointers are its addresses
//     journal     entries that tell what records name by number, and pairs of the two clocks
//
// Every part is reserved on the disk before it is mapped: a full disk refuses a part and is never a
// signal. What was stored is in the file whatever becomes of the process. The process opens the
// file anew for each part, so that programs may close every descriptor that they did not open.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "zandor/instrument/control_element.hpp"

namespace instrument::detail {

struct Generation;
struct InternedText;
struct SourceInfo;

enum class RunFilePart : std::uint64_t { events = 1, journal = 2 };

/// Begins every piece of mapped memory. Of anonymous memory only the first two are used.
struct Mapping {
    Mapping* next;
    std::size_t bytes;
    std::uint64_t magic;
    std::uint64_t address;  ///< where it stands in its process
    RunFilePart part;
    /// Bytes behind the header that hold whole entries, of a journal. Release; a process that reads
    /// the file takes no entry beyond it, and its copy of the page is what acquires. Relaxed under
    /// the texts' lock, and in such a copy.
    std::atomic<std::uint64_t> committed;
};
/// What a mapping holds begins behind this many bytes.
inline constexpr std::size_t mappingHeader = 64;
static_assert(sizeof(Mapping) == 48 && sizeof(Mapping) <= mappingHeader);
static_assert(offsetof(Mapping, bytes) == 8 && offsetof(Mapping, magic) == 16 &&
              offsetof(Mapping, address) == 24 && offsetof(Mapping, part) == 32 &&
              offsetof(Mapping, committed) == 40);

/// The first page of a run file.
struct RunFile {
    static constexpr std::uint64_t magicNumber = 0x316e75725f6f647a;
    static constexpr std::uint64_t partMagic = 0x317472615f6f647a;
    static constexpr std::uint32_t currentVersion = 3;
    static constexpr std::size_t headerBytes = 4096;

    std::uint64_t magic;
    std::uint32_t version;
    std::uint32_t ticksAreTsc;
    std::uint64_t processId;
    /// The generation's address. Null until all that it begins with is there; release. A process
    /// that reads the file acquires it by its copy of the page, in which it is read relaxed.
    std::atomic<std::uint64_t> generation;
    std::array<char, 64> processName;  ///< ends with a NUL
    std::array<char, 40> bootId;       ///< of the system's run that the clocks belong to

    // Means nothing to others.
    const char* folder;
    std::uint64_t number;    ///< of the recording
    std::uint64_t creation;  ///< when; the file's name has it, since process numbers come again
    std::size_t end;         ///< bytes of the file
    Mapping* journal;        ///< the part that is appended to; `next` are the ones before
    bool full;               ///< a part was refused: none is asked for again
    RunFile* next;
};
static_assert(sizeof(RunFile) <= RunFile::headerBytes);
static_assert(offsetof(RunFile, version) == 8 && offsetof(RunFile, ticksAreTsc) == 12 &&
              offsetof(RunFile, processId) == 16 && offsetof(RunFile, generation) == 24 &&
              offsetof(RunFile, processName) == 32 && offsetof(RunFile, bootId) == 96);

/// What an entry of a journal tells.
enum class JournalEntry : std::uint8_t {
    text = 1,        ///< number, characters
    instrument = 2,  ///< number, characters
    source = 3,      ///< SourceEntry; a later one of the same id replaces an earlier one
    clock = 4,       ///< ticks, nanoseconds of the monotonic clock
    account = 5,     ///< number of an external client, text as in account_text.hpp
    place = 6,       ///< number of an instrument, number of the text that is its place
};
/// An entry's first word: its kind in 8 bits, above them the bytes that follow. Entries begin at
/// multiples of eight bytes.
constexpr std::uint64_t journalHead(JournalEntry kind, std::uint64_t bytes) noexcept {
    return static_cast<std::uint64_t>(kind) | bytes << 8;
}

struct SourceEntry {
    static constexpr std::uint64_t noText = ~std::uint64_t{0};
    std::uint64_t id;
    std::uint64_t processId;
    std::uint64_t threadId;
    std::uint64_t processName;  ///< numbers of texts
    std::uint64_t name;
};
static_assert(sizeof(SourceEntry) == 40);

using BootId = std::array<char, 40>;
/// Of the system's present run; empty where the system does not tell.
BootId bootId() noexcept;

/// A new file in `folder`, which must stay as long as the file is open; its journal has all texts
/// and instruments that there are, and is told of every later one. Null when the system refuses
/// one. Safe in signal handlers, as are the others.
RunFile* createRunFile(const char* folder, std::uint64_t number) noexcept;
/// Says that the generation can be read.
void publishRunFile(RunFile& file, const Generation* generation) noexcept;
/// A new part of zeros; null when the system refuses it.
Mapping* growRunFile(RunFile& file, std::size_t bytes, RunFilePart part) noexcept;
/// Unmaps what is not event memory; null is none. The file stays.
void closeRunFile(RunFile* file) noexcept;
/// Takes the file out of its folder. It can still be written to, but does not grow any more.
void removeRunFile(RunFile& file) noexcept;

/// Tells every open journal; with the texts' lock held.
void journalText(const InternedText& text) noexcept;
void journalInstrument(const Opaque& instrument) noexcept;
/// Tells every open journal of an external client's account.
void journalAccount(std::uint64_t client, std::string_view text) noexcept;
void journalPlace(const Opaque& instrument, const InternedText& place) noexcept;
/// Tells of a source that the file's records are about to name.
void journalSource(RunFile& file, SourceInfo& source) noexcept;
/// Tells every open journal that a source which some journal has is called something else.
void journalChanges(SourceInfo& source) noexcept;

}  // namespace instrument::detail
