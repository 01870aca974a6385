#include "trace_blocks.hpp"

#include <algorithm>
#include <array>
#include <map>
#include <tuple>
#include <utility>

#include "untrusted_records.hpp"
#include "zandor/instrument/saturating.hpp"

namespace instrument::detail {
namespace {

/// Of processes that ran under other runs of the system: their monotonic clock is another, so that
/// the times meet by the clock of the day.
std::int64_t timeShift(const TraceProcess& first, const TraceProcess& other) noexcept {
    return first.bootId == other.bootId ? 0 : saturatingSubtract(other.utcOffset, first.utcOffset);
}

}  // namespace

TraceBlocks::TraceBlocks(const std::filesystem::path& file, Progress progress)
    : reader_(file), progress_(std::move(progress)) {
    readProcesses();
    readNames();
    readLost();
    findRecords();
}

void TraceBlocks::readProcesses() {
    for (const TraceIndexEntry& entry : reader_.blocks()) {
        if (entry.kind != TraceBlock::process)
            continue;
        const auto payload = reader_.payload(entry);
        if (!payload || entry.bytes < sizeof(TraceProcess) || entry.process != processes_.size()) {
            ++damaged_;
            continue;
        }
        const auto untrusted = recordIn<TraceProcess>(*payload);
        const std::int64_t shift =
            processes_.empty() ? 0 : timeShift(processes_.front()->facts(), untrusted);
        processes_.push_back(std::make_unique<LoadedProcess>(
            names_, untrusted, shift, reader_.fileBytes() / sizeof(std::uint64_t)));
    }
}

void TraceBlocks::readNames() {
    for (const TraceIndexEntry& entry : reader_.blocks()) {
        if (entry.kind != TraceBlock::journal)
            continue;
        const auto payload = reader_.payload(entry);
        if (payload && entry.process < processes_.size())
            processes_[entry.process]->addJournal(*payload);
        else
            ++damaged_;
    }
}

void TraceBlocks::readLost() {
    for (const TraceIndexEntry& entry : reader_.blocks()) {
        if (entry.kind != TraceBlock::lost)
            continue;
        const auto payload = reader_.payload(entry);
        if (payload && entry.process < processes_.size())
            processes_[entry.process]->addLost(*payload);
        else
            ++damaged_;
    }
    for (const auto& process : processes_)
        process->finishJournal();
}

void TraceBlocks::findRecords() {
    std::map<std::pair<std::uint32_t, std::uint64_t>, std::size_t> trackPlaces;
    std::vector<std::pair<std::size_t, RecordBlock>> found;
    for (const TraceIndexEntry& entry : reader_.blocks()) {
        if (entry.kind != TraceBlock::records)
            continue;
        const std::optional<TraceStretch> stretch = reader_.stretch(entry);
        if (!stretch || entry.process >= processes_.size()) {
            ++damaged_;
            continue;
        }
        const auto place =
            trackPlaces.try_emplace({entry.process, stretch->track}, trackPlaces.size());
        found.emplace_back(place.first->second, RecordBlock{.entry = entry, .stretch = *stretch});
        recordBytes_ += entry.bytes;
    }
    std::ranges::stable_sort(found, {}, [](const auto& block) {
        return std::tuple(block.second.entry.process, block.first);
    });
    records_.reserve(found.size());
    for (auto& [place, block] : found)
        records_.push_back(std::move(block));
}

std::span<RecordBlock> TraceBlocks::recordsOf(std::size_t process) noexcept {
    const auto endBefore = [&](std::size_t next) {
        return std::ranges::partition_point(
            records_, [&](const RecordBlock& block) { return block.entry.process < next; });
    };
    return {endBefore(process), endBefore(process + 1)};
}

/// A file that is written to meanwhile is damaged.
std::optional<std::span<Word>> TraceBlocks::loadAsTheyAre(RecordBlock& block) {
    constexpr std::size_t headWords = sizeof(TraceStretch) / sizeof(Word);
    if (!block.isReadable)
        return std::nullopt;
    const bool isFirst = !std::exchange(block.wasRead, true);
    block.isReadable = reader_.read(block.entry, words_) && words_.size() >= headWords;
    if (!block.isReadable) {
        ++damaged_;
        return std::nullopt;
    }
    if (progress_)
        progress_(block.entry.bytes);
    const std::span<Word> all = std::span(words_).subspan(headWords);
    const std::span<Word> records = wholeRecords(all);
    damaged_ += isFirst && records.size() != all.size() ? 1 : 0;
    return records;
}

std::optional<std::int64_t> TraceBlocks::beginOf(const RecordBlock& block) {
    std::array<Word, 64> untrusted;
    const std::size_t count = reader_.beginning(block.entry, untrusted);
    const std::span<Word> records = wholeRecords(std::span(untrusted).first(count).subspan(
        std::min(count, sizeof(TraceStretch) / sizeof(Word))));
    RecordReader reader(records.data(), records.data() + records.size(), {});
    for (Record record; reader.next(record);)
        if (record.kind != RecordKind::source)
            return processes_[block.entry.process]->timeOf(record);
    return std::nullopt;
}

std::optional<Stretch> TraceBlocks::load(RecordBlock& block) {
    const auto records = loadAsTheyAre(block);
    if (!records)
        return std::nullopt;
    LoadedProcess& process = *processes_[block.entry.process];
    process.adapt(*records, !std::exchange(block.wasAdapted, true));
    return Stretch{records->data(), records->data() + records->size(),
                   process.stateAt(block.stretch), nullptr};
}

LineSamples TraceBlocks::lineSamples() {
    LineSamples samples;
    for (const TraceIndexEntry& entry : reader_.blocks()) {
        if (entry.kind != TraceBlock::lines || entry.process >= processes_.size())
            continue;
        const auto payload = reader_.payload(entry);
        if (payload)
            addLineSamples(std::as_bytes(std::span(*payload)).first(entry.bytes),
                           {entry.process, processes_[entry.process]->timeShift()}, samples);
        else
            ++damaged_;
    }
    return samples;
}

}  // namespace instrument::detail
