// How trace files come about: from a recorder, from a run folder, from other trace files.
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <fstream>
#include <map>
#include <memory>
#include <stdexcept>
#include <system_error>

#include "account_text.hpp"
#include "clock_source.hpp"
#include "control_registry.hpp"
#include "recorder_core.hpp"
#include "recorder_snapshot.hpp"
#include "run_file_reader.hpp"
#include "source_info.hpp"
#include "trace_reader.hpp"
#include "trace_writer.hpp"
#include "zandor/instrument/clock.hpp"
#include "zandor/instrument/external_accounts.hpp"
#include "zandor/instrument/trace_file.hpp"

namespace instrument {
namespace detail {
namespace {

namespace fs = std::filesystem;

/// Journal entries one behind the other.
class EntryList {
  public:
    void add(JournalEntry kind, std::uint64_t number, std::string_view text) {
        begin(kind, sizeof number + text.size());
        put(&number, sizeof number);
        put(text.data(), text.size());
        bytes_.resize((bytes_.size() + sizeof(Word) - 1) / sizeof(Word) * sizeof(Word));
    }
    void addPlace(std::uint64_t instrument, std::uint64_t text) {
        begin(JournalEntry::place, 2 * sizeof(Word));
        put(&instrument, sizeof instrument);
        put(&text, sizeof text);
    }
    void add(const SourceEntry& source) {
        begin(JournalEntry::source, sizeof source);
        put(&source, sizeof source);
    }
    void add(const TickConverter::Knot& knot) {
        begin(JournalEntry::clock, 2 * sizeof(Word));
        put(&knot.ticks, sizeof knot.ticks);
        put(&knot.nanoseconds, sizeof knot.nanoseconds);
    }
    /// Writes what has come together once it is much.
    void writeTo(TraceWriter& writer, std::size_t least = 1 << 20) {
        if (bytes_.size() < least)
            return;
        writer.journal(bytes_);
        bytes_.clear();
    }

  private:
    void begin(JournalEntry kind, std::size_t bytes) {
        const std::uint64_t head = journalHead(kind, bytes);
        put(&head, sizeof head);
    }
    void put(const void* data, std::size_t size) {
        const auto* bytes = static_cast<const std::byte*>(data);
        bytes_.insert(bytes_.end(), bytes, bytes + size);
    }

    std::vector<std::byte> bytes_;
};

TraceProcess processOf(const Snapshot& snapshot) {
    TraceProcess process;
    process.processId = static_cast<std::uint64_t>(getpid());
    process.ticksAreTsc = std::string_view(clock::name()) == "tsc";
    process.originTicks = snapshot.origin().ticks;
    process.originNanoseconds = snapshot.origin().nanoseconds;
    process.utcOffset = snapshot.origin().utcOffset;
    process.refused = snapshot.drops().refused;
    process.oldest = snapshot.drops().oldest;
    process.shortest = snapshot.drops().shortest;
    process.failed = snapshot.drops().failed;
    process.minimumDuration = snapshot.drops().minimumDuration;
    std::string_view(program_invocation_short_name)
        .copy(process.name.data(), process.name.size() - 1);
    process.bootId = bootId();
    return process;
}

SourceEntry entryOf(SourceInfo& source, EntryList& entries, std::uint64_t& nextText) {
    const auto tell = [&](std::string_view text) {
        entries.add(JournalEntry::text, nextText, text);
        return nextText++;
    };
    return {source.id, source.processId, source.threadId,
            source.processName ? tell(source.processName->view()) : SourceEntry::noText,
            tell(source.name())};
}

void writeNames(TraceWriter& writer, std::uint64_t& nextText) {
    EntryList entries;
    for (nextText = 0; nextText < internedTextCount(); ++nextText) {
        const auto number = static_cast<std::uint32_t>(nextText);
        entries.add(JournalEntry::text, number, InternedText::fromId(number).view());
        entries.writeTo(writer);
    }
    for (std::uint32_t i = 0; const Opaque* instrument = instrumentFromId(i); ++i) {
        entries.add(JournalEntry::instrument, i, {instrument->name, instrument->nameLength});
        // One that was told of since we looked at the texts is left out, as later events are.
        if (const InternedText* place = placeOf(*instrument); place && place->id < nextText)
            entries.addPlace(i, place->id);
        entries.writeTo(writer);
    }
    for (const ExternalAccount& account : externalAccounts())
        entries.add(JournalEntry::account, account.client, textOf(account));
    // With a knot behind every event of the snapshot, so that the file has them all.
    clock::toNanoseconds(clock::ticks());
    const TickConverter& clock = tickConverter();
    for (std::uint32_t i = 0, count = clock.knotCount(); i < count; ++i)
        entries.add(clock.knot(i));
    entries.writeTo(writer, 1);
}

/// The sources that a stretch names; a source may be told of again.
void addSources(const Stretch& stretch, EntryList& entries, std::uint64_t& nextText,
                std::uint64_t& latest) {
    const auto tell = [&](SourceInfo* source) {
        if (source && source->id != std::exchange(latest, source->id))
            entries.add(entryOf(*source, entries, nextText));
    };
    tell(stretch.state.info);
    // The count of a chunk that is not sealed yet is its thread's.
    if (stretch.isSealedChunk() && stretch.chunk->sourceRecords == 0)
        return;
    RecordReader reader(stretch.begin, stretch.end, stretch.state);
    for (Record record; reader.next(record);)
        if (record.kind == RecordKind::source)
            tell(record.sourceInfo);
}

void writeSnapshot(TraceWriter& writer, const Snapshot& snapshot) {
    writer.beginProcess(processOf(snapshot));
    std::uint64_t nextText = 0;
    writeNames(writer, nextText);
    std::uint64_t track = 0;
    std::uint64_t latest = 0;
    for (const TrackView& view : snapshot.tracks()) {
        for (const Stretch& stretch : view.stretches) {
            EntryList sources;
            addSources(stretch, sources, nextText, latest);
            sources.writeTo(writer, 1);
            writer.records({track, stretch.state.source, stretch.state.nextSerial},
                           {stretch.begin, stretch.end}, stretch.state.base);
        }
        ++track;
    }
    writer.lost(snapshot.lost().ranges());
}

struct FolderCloser {
    void operator()(DIR* folder) const noexcept { closedir(folder); }
};

/// Not by the standard library's iterator, which ends the process where memory runs out.
std::vector<fs::path> filesIn(const fs::path& folder, std::string_view ending) {
    const std::unique_ptr<DIR, FolderCloser> open(opendir(folder.c_str()));
    if (!open)
        throw fs::filesystem_error("cannot read the folder", folder,
                                   std::error_code(errno, std::generic_category()));
    std::vector<fs::path> files;
    while (const dirent* entry = readdir(open.get()))
        if (fs::path name(entry->d_name); name.extension() == ending)
            files.push_back(folder / name);
    // Their names end with when they were made.
    std::ranges::sort(files, {}, [](const fs::path& file) {
        const std::string name = file.stem();
        const std::string creation = name.substr(name.find('-') + 1);
        return std::pair(creation.size(), creation);
    });
    return files;
}

/// A process and a moment, which files of a run folder are named by: PROCESS-NANOSECONDS.
struct RunName {
    std::uint64_t process = 0;
    std::uint64_t moment = 0;
};

RunName runNameOf(const fs::path& file) {
    const std::string name = file.stem();
    RunName found;
    const char* const end = name.data() + name.size();
    const auto process = std::from_chars(name.data(), end, found.process);
    if (process.ptr != end)
        std::from_chars(process.ptr + 1, end, found.moment);
    return found;
}

/// Streams of samples by the run file that they join: of the processes that had the id, the one
/// that began when they did.
std::multimap<fs::path, fs::path> streamsOf(const std::vector<fs::path>& runs,
                                            const std::vector<fs::path>& streams) {
    std::multimap<fs::path, fs::path> found;
    for (const fs::path& stream : streams) {
        const RunName name = runNameOf(stream);
        const auto distance = [&](const fs::path& run) {
            const RunName other = runNameOf(run);
            const std::uint64_t apart = other.moment > name.moment ? other.moment - name.moment
                                                                   : name.moment - other.moment;
            return std::pair(other.process != name.process, apart);
        };
        const auto nearest = std::ranges::min_element(runs, {}, distance);
        if (nearest != runs.end() && !distance(*nearest).first)
            found.emplace(*nearest, stream);
    }
    return found;
}

/// What of a stream was written whole is what its reader takes.
void copyStream(const fs::path& file, TraceWriter& writer) {
    std::ifstream stream(file, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(stream), {}};
    writer.lines(std::as_bytes(std::span(bytes)));
}

/// Copies the blocks of a file as they are, but for what tells which process they are of.
void copyBlocks(const fs::path& file, TraceWriter& writer,
                const std::function<void(std::uint64_t)>& tell) {
    const TraceReader reader(file);
    const auto payloadOf = [&](const TraceIndexEntry& entry) {
        auto payload = reader.payload(entry);
        if (!payload)
            throw std::runtime_error(file.string() + " is damaged");
        return std::move(*payload);
    };
    for (const TraceIndexEntry& process : reader.blocks()) {
        if (process.kind != TraceBlock::process || process.bytes < sizeof(TraceProcess))
            continue;
        writer.beginProcess(recordIn<TraceProcess>(payloadOf(process)));
        for (const TraceIndexEntry& entry : reader.blocks()) {
            if (entry.process != process.process || entry.kind == TraceBlock::process)
                continue;
            const std::vector<std::uint64_t> payload = payloadOf(entry);
            writer.copy(entry.kind, std::as_bytes(std::span(payload)).first(entry.bytes));
            tell(entry.bytes);
        }
    }
}

}  // namespace
}  // namespace detail

using namespace detail;

void saveTraceFile(const InstrumentRecorder& recorder, const std::filesystem::path& file,
                   std::span<const std::byte> lines) {
    TraceWriter writer(file);
    {
        const Snapshot snapshot(recorder.core());
        writeSnapshot(writer, snapshot);
    }
    writer.lines(lines);
    writer.commit();
}

std::uint32_t finishRunFolder(const std::filesystem::path& folder,
                              const std::filesystem::path& file) {
    TraceWriter writer(file);
    const std::vector<fs::path> runs = filesIn(folder, ".run");
    const auto streams = streamsOf(runs, filesIn(folder, ".lines"));
    for (const fs::path& run : runs) {
        std::optional<RunFileReader> reader = RunFileReader::open(run);
        if (!reader)
            continue;
        reader->copyTo(writer);
        const auto [first, last] = streams.equal_range(run);
        std::for_each(first, last, [&](const auto& pair) { copyStream(pair.second, writer); });
    }
    writer.commit();
    return writer.processes();
}

void combineTraceFiles(const std::vector<std::filesystem::path>& files,
                       const std::filesystem::path& file, const TraceProgress& progress) {
    std::uint64_t bytesRead = 0;
    const auto tell = [&](std::uint64_t bytes) {
        if (progress)
            progress(bytesRead += bytes);
    };
    TraceWriter writer(file);
    for (const fs::path& part : files)
        copyBlocks(part, writer, tell);
    writer.commit();
}

}  // namespace instrument
