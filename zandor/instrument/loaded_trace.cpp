#include "loaded_trace.hpp"

#include <optional>

#include "recording_sink.hpp"
#include "zandor/instrument/saturating.hpp"

namespace instrument::detail {
namespace {

/// Of processes that ran under other runs of the system: their monotonic clock is another, so that
/// the times meet by the clock of the day.
std::int64_t timeShift(const TraceProcess& first, const TraceProcess& other) noexcept {
    return first.bootId == other.bootId ? 0 : saturatingSubtract(other.utcOffset, first.utcOffset);
}

}  // namespace

LoadedTrace::LoadedTrace(const std::filesystem::path& file) {
    const TraceReader reader(file);
    hasIndex = reader.hasIndex();
    Processes loaded;
    readProcesses(reader, loaded);
    readNames(reader, loaded);
    readRecords(reader, loaded);
    match(loaded);
}

void LoadedTrace::readProcesses(const TraceReader& reader, Processes& loaded) {
    for (const TraceIndexEntry& entry : reader.blocks()) {
        if (entry.kind != TraceBlock::process)
            continue;
        const auto payload = reader.payload(entry);
        if (!payload || entry.bytes < sizeof(TraceProcess) || entry.process != loaded.size()) {
            ++damagedBlocks;
            continue;
        }
        const auto untrusted = recordIn<TraceProcess>(*payload);
        const std::int64_t shift =
            loaded.empty() ? 0 : timeShift(loaded.front()->facts(), untrusted);
        loaded.push_back(std::make_unique<LoadedProcess>(
            names_, untrusted, shift, reader.fileBytes() / sizeof(std::uint64_t)));
    }
    processes = static_cast<std::uint32_t>(loaded.size());
}

void LoadedTrace::readNames(const TraceReader& reader, const Processes& loaded) {
    for (const TraceIndexEntry& entry : reader.blocks()) {
        if (entry.kind != TraceBlock::journal)
            continue;
        const auto payload = reader.payload(entry);
        if (payload && entry.process < loaded.size())
            loaded[entry.process]->addJournal(*payload);
        else
            ++damagedBlocks;
    }
}

void LoadedTrace::readRecords(const TraceReader& reader, const Processes& loaded) {
    for (const TraceIndexEntry& entry : reader.blocks()) {
        if (entry.kind != TraceBlock::records && entry.kind != TraceBlock::lost)
            continue;
        auto payload = reader.payload(entry);
        bool isWhole = payload && entry.process < loaded.size();
        if (isWhole && entry.kind == TraceBlock::lost)
            loaded[entry.process]->addLost(*payload);
        else if (isWhole)
            isWhole = loaded[entry.process]->addRecords(std::move(*payload));
        damagedBlocks += isWhole ? 0 : 1;
    }
}

void LoadedTrace::match(const Processes& loaded) {
    RecordingSink sink(names_);
    for (const auto& process : loaded) {
        process->finish();
        Matcher<RecordingSink, LoadedProcess>(*process, sink).run();
    }
    recording = sink.take();
    for (const auto& process : loaded) {
        const TraceProcess& facts = process->facts();
        recording.drops.refused += facts.refused;
        recording.drops.oldest += facts.oldest;
        recording.drops.shortest += facts.shortest;
        recording.drops.failed += facts.failed;
        recording.drops.minimumDuration =
            std::max(recording.drops.minimumDuration, facts.minimumDuration);
        for (const ExternalAccount& account : process->externalAccounts()) {
            recording.externalAccounts.push_back(account);
            // Several processes may have counted theirs from 1.
            recording.externalAccounts.back().client = recording.externalAccounts.size();
        }
        const std::int64_t begin = process->begin();
        if (begin != 0 && (recording.originMonotonic == 0 || begin < recording.originMonotonic))
            recording.originMonotonic = begin;
    }
    if (loaded.empty())
        return;
    recording.processId = loaded.front()->facts().processId;
    if (recording.originMonotonic != 0)
        recording.originUtc =
            saturatingAdd(recording.originMonotonic, loaded.front()->facts().utcOffset);
}

}  // namespace instrument::detail
