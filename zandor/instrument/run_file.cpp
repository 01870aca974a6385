#include "run_file.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>

#include "clock_source.hpp"
#include "control_registry.hpp"
#include "interned_text.hpp"
#include "process_state.hpp"
#include "recorder_memory.hpp"
#include "source_info.hpp"
#include "zandor/instrument/clock.hpp"

namespace instrument::detail {
namespace {

constexpr std::size_t journalBytes = std::size_t{64} << 10;

using Path = std::array<char, PATH_MAX>;

bool pathOf(const char* folder, std::uint64_t process, std::uint64_t creation,
            Path& path) noexcept {
    const int length = std::snprintf(path.data(), path.size(), "%s/%llu-%llu.run", folder,
                                     static_cast<unsigned long long>(process),
                                     static_cast<unsigned long long>(creation));
    return length > 0 && static_cast<std::size_t>(length) < path.size();
}

/// Whether the file may be as large: beyond its limit the system would send a signal.
bool isWithinLimit(std::size_t bytes) noexcept {
    rlimit limit{};
    return getrlimit(RLIMIT_FSIZE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY ||
           bytes <= limit.rlim_cur;
}

/// Reserves a stretch of the file and maps it; null when the system refuses either.
void* mapStretch(const char* path, int flags, std::size_t offset, std::size_t bytes) noexcept {
    if (!isWithinLimit(offset + bytes))
        return nullptr;
    const int descriptor = open(path, O_RDWR | O_CLOEXEC | O_NOFOLLOW | flags, 0600);
    if (descriptor < 0)
        return nullptr;
    int error = EINTR;
    while (error == EINTR)
        error = posix_fallocate(descriptor, static_cast<off_t>(offset), static_cast<off_t>(bytes));
    void* pages = MAP_FAILED;
    if (error == 0)
        pages = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor,
                     static_cast<off_t>(offset));
    close(descriptor);
    if (pages == MAP_FAILED)
        return nullptr;
    madvise(pages, bytes, MADV_DONTFORK);
    return pages;
}

/// Appends to a journal; with the texts' lock held. A refused entry is missing: readers then know
/// what it would tell by its number alone.
class Entry {
  public:
    Entry(RunFile& file, JournalEntry kind, std::size_t bytes) noexcept {
        const std::size_t size = sizeof(std::uint64_t) + roundUp(bytes, sizeof(std::uint64_t));
        part_ = partWithRoom(file, size);
        if (!part_)
            return;
        committed_ = part_->committed.load(std::memory_order_relaxed);
        begin_ = reinterpret_cast<std::byte*>(part_) + mappingHeader + committed_;
        committed_ += size;
        put(journalHead(kind, bytes));
    }
    ~Entry() {
        // What reads the file of a process that was killed sees the entry before this, or neither.
        if (part_)
            part_->committed.store(committed_, std::memory_order_release);
    }
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;

    void put(std::uint64_t number) noexcept { put(&number, sizeof number); }
    void put(std::string_view text) noexcept { put(text.data(), text.size()); }

  private:
    static Mapping* partWithRoom(RunFile& file, std::size_t size) noexcept;

    void put(const void* bytes, std::size_t size) noexcept {
        if (!part_)
            return;
        std::memcpy(begin_, bytes, size);
        begin_ += size;
    }

    Mapping* part_ = nullptr;
    std::byte* begin_ = nullptr;
    std::uint64_t committed_ = 0;
};

/// With the texts' lock held.
Mapping* mapPart(RunFile& file, std::size_t bytes, RunFilePart part) noexcept {
    Path path;
    if (file.full || !pathOf(file.folder, file.processId, file.creation, path))
        return nullptr;
    void* pages = mapStretch(path.data(), 0, file.end, bytes);
    if (!pages) {
        file.full = true;
        return nullptr;
    }
    file.end += bytes;
    auto* mapping = std::construct_at(static_cast<Mapping*>(pages));
    mapping->bytes = bytes;
    mapping->address = reinterpret_cast<std::uint64_t>(pages);
    mapping->part = part;
    mapping->magic = RunFile::partMagic;
    return mapping;
}

Mapping* Entry::partWithRoom(RunFile& file, std::size_t size) noexcept {
    const auto hasRoom = [size](const Mapping& part) {
        return part.bytes - mappingHeader - part.committed.load(std::memory_order_relaxed) >= size;
    };
    if (file.journal && hasRoom(*file.journal))
        return file.journal;
    const std::size_t bytes = std::max(journalBytes, roundUp(mappingHeader + size, pageBytes));
    Mapping* const made = mapPart(file, bytes, RunFilePart::journal);
    if (made) {
        made->next = file.journal;
        file.journal = made;
    }
    return made;
}

void putText(RunFile& file, JournalEntry kind, std::uint64_t number,
             std::string_view text) noexcept {
    Entry entry(file, kind, sizeof(std::uint64_t) + text.size());
    entry.put(number);
    entry.put(text);
}

void putClock(RunFile& file) noexcept {
    const TickConverter::Knot now = tickConverter().measure();
    Entry entry(file, JournalEntry::clock, 2 * sizeof(std::uint64_t));
    entry.put(now.ticks);
    entry.put(static_cast<std::uint64_t>(now.nanoseconds));
}

void putPlace(RunFile& file, const Opaque& instrument, const InternedText& place) noexcept {
    Entry entry(file, JournalEntry::place, 2 * sizeof(std::uint64_t));
    entry.put(instrument.id);
    entry.put(place.id);
}

void putInstrument(RunFile& file, const Opaque& instrument) noexcept {
    putText(file, JournalEntry::instrument, instrument.id,
            {instrument.name, instrument.nameLength});
    if (const InternedText* const place = placeOf(instrument))
        putPlace(file, instrument, *place);
}

void putSource(RunFile& file, const SourceEntry& source) noexcept {
    Entry entry(file, JournalEntry::source, sizeof source);
    entry.put({reinterpret_cast<const char*>(&source), sizeof source});
}

SourceEntry entryOf(SourceInfo& source) noexcept {
    const std::string_view name = source.name();
    return {source.id, source.processId, source.threadId,
            source.processName ? source.processName->id : SourceEntry::noText,
            name.data() ? InternedText::of(name).id : SourceEntry::noText};
}

/// Begins with all that is known, and is told of the rest: no text and no instrument is made
/// meanwhile.
void enterJournals(RunFile& file) noexcept {
    ProcessState& state = processState();
    const Locked instruments(state.controls);
    const Locked texts(state.texts);
    putClock(file);
    for (std::uint32_t i = 0; i < internedTextCount(); ++i)
        putText(file, JournalEntry::text, i, InternedText::fromId(i).view());
    for (std::uint32_t i = 0; const Opaque* instrument = instrumentFromId(i); ++i)
        putInstrument(file, *instrument);
    file.next = state.runFiles;
    state.runFiles = &file;
}

void leaveJournals(RunFile& file) noexcept {
    const Locked texts(processState().texts);
    RunFile** place = &processState().runFiles;
    while (*place && *place != &file)
        place = &(*place)->next;
    if (*place)
        *place = file.next;
}

}  // namespace

BootId bootId() noexcept {
    BootId id{};
    const int descriptor = open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC);
    if (descriptor < 0)
        return id;
    if (read(descriptor, id.data(), id.size() - 1) < 0)
        id = {};
    close(descriptor);
    std::replace(id.begin(), id.end(), '\n', '\0');
    return id;
}

RunFile* createRunFile(const char* folder, std::uint64_t number) noexcept {
    Path path;
    const auto process = static_cast<std::uint64_t>(getpid());
    const auto creation = static_cast<std::uint64_t>(clock::now());
    if (!pathOf(folder, process, creation, path))
        return nullptr;
    void* page = mapStretch(path.data(), O_CREAT | O_EXCL, 0, RunFile::headerBytes);
    if (!page)
        return nullptr;
    auto* file = std::construct_at(static_cast<RunFile*>(page));
    file->version = RunFile::currentVersion;
    file->ticksAreTsc = std::string_view(clock::name()) == "tsc";
    file->processId = process;
    std::string_view(program_invocation_short_name)
        .copy(file->processName.data(), file->processName.size() - 1);
    file->bootId = detail::bootId();
    file->folder = folder;
    file->number = number;
    file->creation = creation;
    file->end = RunFile::headerBytes;
    file->magic = RunFile::magicNumber;
    enterJournals(*file);
    return file;
}

void publishRunFile(RunFile& file, const Generation* generation) noexcept {
    file.generation.store(reinterpret_cast<std::uint64_t>(generation), std::memory_order_release);
}

Mapping* growRunFile(RunFile& file, std::size_t bytes, RunFilePart part) noexcept {
    const Locked texts(processState().texts);
    Mapping* const mapping = mapPart(file, bytes, part);
    if (mapping)
        putClock(file);
    return mapping;
}

void closeRunFile(RunFile* file) noexcept {
    if (!file)
        return;
    leaveJournals(*file);
    while (Mapping* journal = file->journal) {
        file->journal = journal->next;
        munmap(journal, journal->bytes);
    }
    munmap(file, RunFile::headerBytes);
}

void removeRunFile(RunFile& file) noexcept {
    Path path;
    if (pathOf(file.folder, file.processId, file.creation, path))
        unlink(path.data());
}

void journalText(const InternedText& text) noexcept {
    for (RunFile* file = processState().runFiles; file; file = file->next)
        putText(*file, JournalEntry::text, text.id, text.view());
}

void journalAccount(std::uint64_t client, std::string_view text) noexcept {
    const Locked texts(processState().texts);
    for (RunFile* file = processState().runFiles; file; file = file->next)
        putText(*file, JournalEntry::account, client, text);
}

void journalInstrument(const Opaque& instrument) noexcept {
    for (RunFile* file = processState().runFiles; file; file = file->next)
        putInstrument(*file, instrument);
}

void journalPlace(const Opaque& instrument, const InternedText& place) noexcept {
    for (RunFile* file = processState().runFiles; file; file = file->next)
        putPlace(*file, instrument, place);
}

void journalSource(RunFile& file, SourceInfo& source) noexcept {
    // Relaxed: to tell of a source twice does no harm.
    if (source.journaled.exchange(file.number, std::memory_order_relaxed) == file.number)
        return;
    const SourceEntry entry = entryOf(source);
    const Locked texts(processState().texts);
    putSource(file, entry);
}

void journalChanges(SourceInfo& source) noexcept {
    if (source.journaled.load(std::memory_order_relaxed) == 0)
        return;
    const SourceEntry entry = entryOf(source);
    const Locked texts(processState().texts);
    for (RunFile* file = processState().runFiles; file; file = file->next)
        putSource(*file, entry);
}

}  // namespace instrument::detail
