#include "lod_outline.hpp"

#include <algorithm>

#include "outline_writer.hpp"

namespace instrument::detail {
namespace {

constexpr std::size_t sliceWords = sizeof(OutlineSlice) / sizeof(Word);
constexpr std::uint64_t mostBytesRead = 64 << 20;
constexpr std::size_t rowWords = sizeof(OutlineRow) / sizeof(Word);

/// The share of a slice that its events take stays as it is.
std::uint64_t scaled(std::uint64_t busy, const OutlineSlice& from, const LodSlice& to) {
    const auto before = static_cast<double>(from.end) - static_cast<double>(from.begin);
    const auto after = static_cast<double>(to.end) - static_cast<double>(to.begin);
    const double share = before > 0 ? static_cast<double>(busy) / before : 0;
    return static_cast<std::uint64_t>(std::clamp(share, 0.0, 1.0) * std::max(after, 0.0));
}

}  // namespace

LodOutline::LodOutline(TraceBlocks& blocks) {
    std::vector<bool> isThere(blocks.processes().size());
    blocks.forEachOutline([&](std::size_t process, std::span<const Word> untrusted) {
        isThere[process] = true;
        add(*blocks.processes()[process], untrusted);
    });
    if (!rows_.empty())
        addMissing(blocks, isThere);
}

void LodOutline::addMissing(TraceBlocks& blocks, const std::vector<bool>& isThere) {
    std::uint64_t bytes = 0;
    for (const RecordBlock& block : blocks.records())
        bytes += isThere[block.entry.process] ? 0 : block.entry.bytes;
    if (bytes > mostBytesRead)
        return rows_.clear();
    for (std::size_t process = 0; process < isThere.size(); ++process) {
        OutlineWriter outline;
        if (!isThere[process])
            for (RecordBlock& block : blocks.recordsOf(process))
                if (const auto records = blocks.loadAsTheyAre(block))
                    outline.add(block.stretch, *records);
        add(*blocks.processes()[process], outline.take(0));
    }
}

void LodOutline::add(LoadedProcess& process, std::span<const Word> untrusted) {
    while (untrusted.size() >= rowWords) {
        const auto row = recordIn<OutlineRow>(untrusted);
        untrusted = untrusted.subspan(rowWords);
        if (row.slices > untrusted.size() / sliceWords || row.place >= LodRows::mostNested)
            return;
        addRow(process, row, untrusted.first(row.slices * sliceWords));
        untrusted = untrusted.subspan(row.slices * sliceWords);
    }
}

void LodOutline::addRow(LoadedProcess& process, const OutlineRow& untrusted,
                        std::span<const Word> untrustedSlices) {
    const auto kind = untrusted.isInstants ? LodRow::Kind::instants : LodRow::Kind::nested;
    Row& row = rows_.emplace_back(Row{numberOf(&process.sourceOf(untrusted.source)),
                                      {kind, static_cast<std::uint32_t>(untrusted.place)},
                                      {}});
    Record record;
    record.timed = untrusted.timed != 0;
    const auto timeOf = [&](std::int64_t time) {
        record.time = static_cast<std::uint64_t>(time);
        return process.timeOf(record);
    };
    for (; !untrustedSlices.empty(); untrustedSlices = untrustedSlices.subspan(sliceWords)) {
        const auto given = recordIn<OutlineSlice>(untrustedSlices);
        record.instrument = given.name;
        LodSlice slice;
        slice.begin = timeOf(given.begin);
        slice.end = std::max(slice.begin, timeOf(given.end));
        slice.serial = given.serial;
        slice.busy = slice.lead = scaled(given.busy, given, slice);
        slice.name = process.instrumentOf(record)->id;
        slice.events = given.events;
        slice.marks = static_cast<std::uint32_t>(given.marks);
        end_ = std::max(end_, slice.end);
        row.lane.add(slice, 0);
    }
}

std::uint32_t LodOutline::numberOf(SourceInfo* thread) {
    const auto known = std::ranges::find(threads_, thread);
    const auto number = static_cast<std::uint32_t>(known - threads_.begin());
    if (known == threads_.end())
        threads_.push_back(thread);
    return number;
}

void LodOutline::renumber(std::span<const std::optional<std::uint32_t>> numbers) {
    std::erase_if(rows_, [&](const Row& row) { return !numbers[row.thread]; });
    for (Row& row : rows_)
        row.thread = *numbers[row.thread];
}

std::uint32_t LodOutline::rowsOf(std::uint32_t thread, LodRow::Kind kind) const {
    std::uint32_t rows = 0;
    for (const Row& row : rows_)
        if (row.thread == thread && row.row.kind == kind)
            rows = std::max(rows, row.row.place + 1);
    return rows;
}

std::vector<LodRowSlices> LodOutline::window(std::int64_t begin, std::int64_t end, int shift,
                                             LodSources threads) const {
    std::vector<LodRowSlices> rows;
    for (const Row& row : rows_) {
        if (!threads.has(row.thread))
            continue;
        const LodLane shown = row.lane.window(begin, end, shift);
        if (shown.size() > 0)
            rows.push_back({row.thread, row.row, shown.slices()});
    }
    return rows;
}

}  // namespace instrument::detail
