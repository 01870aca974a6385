#include "run_file_reader.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <utility>

#include "clock_source.hpp"
#include "read_at.hpp"
#include "untrusted_records.hpp"

namespace instrument::detail {
namespace {

// What is read of a recording's structures, where their process has them.
static_assert(sizeof(std::atomic<Chunk*>) == 8 && sizeof(std::atomic<std::uint64_t>) == 8);
static_assert(sizeof(Chunk) == 88 && offsetof(Chunk, next) == 0 &&
              offsetof(Chunk, sealedEnd) == 8 && offsetof(Chunk, first) == 32 &&
              offsetof(Chunk, bytes) == 64);
static_assert(sizeof(Track) == 576 && offsetof(Track, tail) == 0);

}  // namespace

std::optional<RunFileReader> RunFileReader::open(const std::filesystem::path& file) {
    const int descriptor = ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (descriptor < 0)
        return std::nullopt;
    RunFileReader reader(descriptor);
    struct stat status {};
    if (fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode))
        return std::nullopt;
    reader.fileBytes_ = static_cast<std::uint64_t>(status.st_size);
    if (!reader.readHead())
        return std::nullopt;
    reader.findParts();
    return reader;
}

RunFileReader::~RunFileReader() {
    if (descriptor_ >= 0)
        close(descriptor_);
}

RunFileReader::RunFileReader(RunFileReader&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)),
      fileBytes_(other.fileBytes_),
      head_(other.head_),
      generation_(other.generation_),
      backup_(other.backup_),
      backedUpRecords_(other.backedUpRecords_),
      events_(std::move(other.events_)),
      journals_(std::move(other.journals_)) {}

bool RunFileReader::readAt(std::uint64_t offset, void* out, std::size_t bytes) const noexcept {
    return detail::readAt(descriptor_, offset, out, bytes);
}

bool RunFileReader::readHead() {
    alignas(RunFile) std::byte page[sizeof(RunFile)];
    if (!readAt(0, page, sizeof page))
        return false;
    const auto& untrusted = *reinterpret_cast<const RunFile*>(page);
    generation_ = untrusted.generation.load(std::memory_order_relaxed);
    if (untrusted.magic != RunFile::magicNumber || untrusted.version != RunFile::currentVersion ||
        generation_ == 0)
        return false;
    head_.processId = untrusted.processId;
    head_.ticksAreTsc = untrusted.ticksAreTsc;
    head_.name = untrusted.processName;
    head_.name.back() = '\0';
    head_.bootId = untrusted.bootId;
    head_.bootId.back() = '\0';
    return true;
}

/// A part whose process ended before its header was whole is the file's last.
void RunFileReader::findParts() {
    for (std::uint64_t offset = RunFile::headerBytes; offset < fileBytes_;) {
        alignas(Mapping) std::byte bytes[sizeof(Mapping)];
        if (!readAt(offset, bytes, sizeof bytes))
            break;
        const auto& untrusted = *reinterpret_cast<const Mapping*>(bytes);
        if (untrusted.magic != RunFile::partMagic || untrusted.bytes < mappingHeader ||
            untrusted.bytes > fileBytes_ - offset ||
            untrusted.address > ~std::uint64_t{0} - untrusted.bytes)
            break;
        if (untrusted.part == RunFilePart::events)
            events_.push_back({untrusted.address, offset, untrusted.bytes});
        else
            journals_.push_back(
                {untrusted.address, offset,
                 std::min<std::uint64_t>(untrusted.committed.load(std::memory_order_relaxed),
                                         untrusted.bytes - mappingHeader)});
        offset += untrusted.bytes;
    }
    std::sort(events_.begin(), events_.end(),
              [](const Part& a, const Part& b) { return a.address < b.address; });
}

bool RunFileReader::read(std::uint64_t address, void* out, std::size_t bytes) const noexcept {
    auto part = std::upper_bound(
        events_.begin(), events_.end(), address,
        [](std::uint64_t wanted, const Part& candidate) { return wanted < candidate.address; });
    if (part == events_.begin())
        return false;
    --part;
    const std::uint64_t within = address - part->address;
    return within <= part->bytes && bytes <= part->bytes - within &&
           readAt(part->offset + within, out, bytes);
}

/// Zero where the file has none.
template <class Value>
Value RunFileReader::field(std::uint64_t address, std::size_t offset) const noexcept {
    static_assert(std::is_trivially_copyable_v<Value>);
    Value value{};
    if (!read(address + offset, &value, sizeof value))
        value = Value{};
    return value;
}

void RunFileReader::copyTo(TraceWriter& writer) {
    readBackup();
    writer.beginProcess(process());
    copyJournals(writer);
    std::uint64_t number = 0;
    for (const std::uint64_t track : tracks())
        copyTrack(writer, track, number++);
    copyLost(writer);
}

TraceProcess RunFileReader::process() const {
    TraceProcess process = head_;
    const auto number = [&](std::size_t offset) {
        return field<std::uint64_t>(generation_, offset);
    };
    const auto origin = field<Origin>(generation_, offsetof(Generation, origin));
    process.originTicks = origin.ticks;
    process.originNanoseconds = origin.nanoseconds;
    process.utcOffset = origin.utcOffset;
    process.oldest = number(offsetof(Generation, droppedOldest));
    process.shortest = backedUpRecords_ != 0 ? backup_.droppedShortest
                                             : number(offsetof(Generation, droppedShortest));
    process.minimumDuration =
        static_cast<std::int64_t>(number(offsetof(Generation, minimumDuration)));
    for (const std::uint64_t track : tracks()) {
        process.refused += field<std::uint64_t>(track, offsetof(Track, refused));
        process.failed += field<std::uint64_t>(track, offsetof(Track, failed));
    }
    return process;
}

/// The system's clocks still go on for those of its present run: what a process told of them ends
/// before its last events, so a pair of now is added.
void RunFileReader::copyJournals(TraceWriter& writer) const {
    std::vector<std::byte> entries;
    for (const Part& journal : journals_) {
        entries.resize(journal.bytes);
        if (readAt(journal.offset + mappingHeader, entries.data(), entries.size()))
            writer.journal(entries);
    }
    if (head_.bootId != bootId() || !head_.ticksAreTsc)
        return;
    const TickConverter::Knot now = tickConverter().measure();
    const std::array<std::uint64_t, 3> pair{journalHead(JournalEntry::clock, 16), now.ticks,
                                            static_cast<std::uint64_t>(now.nanoseconds)};
    writer.journal(std::as_bytes(std::span(pair)));
}

/// Oldest first.
std::vector<std::uint64_t> RunFileReader::tracks() const {
    const std::uint64_t most = fileBytes_ / sizeof(Track);
    std::vector<std::uint64_t> found;
    auto track = field<std::uint64_t>(generation_, offsetof(Generation, tracks));
    for (; track != 0 && found.size() < most;
         track = field<std::uint64_t>(track, offsetof(Track, next)))
        found.push_back(track);
    std::reverse(found.begin(), found.end());
    return found;
}

void RunFileReader::readBackup() noexcept {
    const auto address = field<std::uint64_t>(generation_, offsetof(Generation, rewriting));
    const bool isThere = address != 0 && read(address, &backup_, sizeof backup_);
    backedUpRecords_ = isThere ? address + sizeof backup_ : 0;
}

std::uint64_t RunFileReader::oldestOf(std::uint64_t track) const noexcept {
    const bool isBackedUp = backedUpRecords_ != 0 && !backup_.before &&
                            reinterpret_cast<std::uint64_t>(backup_.track) == track;
    return isBackedUp ? reinterpret_cast<std::uint64_t>(backup_.chunk)
                      : field<std::uint64_t>(track, offsetof(Track, oldest));
}

RunFileReader::Extent RunFileReader::extentOf(std::uint64_t track,
                                              std::uint64_t chunk) const noexcept {
    if (backedUpRecords_ != 0 && chunk == reinterpret_cast<std::uint64_t>(backup_.chunk))
        return {backup_.first, backedUpRecords_, backedUpRecords_ + backup_.words * sizeof(Word),
                reinterpret_cast<std::uint64_t>(backup_.after)};
    Extent extent{field<StreamState>(chunk, offsetof(Chunk, first)), chunk + sizeof(Chunk), 0, 0};
    if (backedUpRecords_ != 0 && chunk == reinterpret_cast<std::uint64_t>(backup_.before)) {
        extent.end = reinterpret_cast<std::uint64_t>(backup_.beforeEnd);
        extent.next = reinterpret_cast<std::uint64_t>(backup_.chunk);
    } else {
        extent.end = committedEnd(track, chunk, extent.next);
    }
    return extent;
}

/// Where the records that the track committed to `chunk` end; `next` is 0 when it is the newest.
/// The order in which the fields are read is that of committedEnd for threads of one process.
std::uint64_t RunFileReader::committedEnd(std::uint64_t track, std::uint64_t chunk,
                                          std::uint64_t& next) const noexcept {
    const std::uint64_t begin = chunk + sizeof(Chunk);
    const std::uint64_t limit = chunk + field<std::uint64_t>(chunk, offsetof(Chunk, bytes));
    std::uint64_t tailBefore = 0;
    for (;;) {
        next = field<std::uint64_t>(chunk, offsetof(Chunk, next));
        if (next != 0)
            return field<std::uint64_t>(chunk, offsetof(Chunk, sealedEnd));
        const auto tail = field<std::uint64_t>(track, offsetof(Track, tail));
        if (begin <= tail && tail <= limit)
            return tail;
        // The same as before: the process ended between its chunk's link and the tail in it.
        if (tail == std::exchange(tailBefore, tail))
            return begin;
    }
}

void RunFileReader::copyTrack(TraceWriter& writer, std::uint64_t track,
                              std::uint64_t number) const {
    std::vector<Word> words;
    std::uint64_t bytesLeft = fileBytes_;  // a chain in a circle ends, too
    Extent extent{};
    for (std::uint64_t chunk = oldestOf(track); chunk != 0; chunk = extent.next) {
        extent = extentOf(track, chunk);
        const std::uint64_t bytes = extent.end - extent.begin;
        if (extent.end < extent.begin || bytes > bytesLeft || sizeof(Chunk) > bytesLeft - bytes)
            return;
        bytesLeft -= bytes + sizeof(Chunk);
        words.resize(bytes / sizeof(Word));
        if (!read(extent.begin, words.data(), words.size() * sizeof(Word)))
            return;
        writer.records({number, extent.first.source, extent.first.nextSerial}, wholeInMemory(words),
                       extent.first.base);
    }
}

void RunFileReader::copyLost(TraceWriter& writer) const {
    std::vector<LostRange> ranges;
    const auto add = [&](const LostRange& range) {
        if (range.source != 0)
            ranges.push_back(range);
    };
    const auto ring = field<std::uint64_t>(generation_, offsetof(Generation, lost));
    const auto capacity = field<std::uint64_t>(ring, offsetof(LostRing, capacity));
    const auto count = field<std::uint64_t>(ring, offsetof(LostRing, count));
    const std::uint64_t kept = std::min({capacity, count, fileBytes_ / sizeof(LostRange)});
    for (std::uint64_t i = 0; i < kept; ++i)
        add(field<LostRange>(ring, sizeof(LostRing) + i * sizeof(LostRange)));
    for (const std::uint64_t track : tracks()) {
        add(field<LostRange>(track, offsetof(Track, lost)));
        add(field<LostRange>(track, offsetof(Track, dropped)));
    }
    writer.lost(ranges);
}

}  // namespace instrument::detail
