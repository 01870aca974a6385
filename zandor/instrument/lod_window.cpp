#include "lod_window.hpp"

#include <algorithm>
#include <iterator>
#include <span>

#include "recorder_merge.hpp"
#include "saturating.hpp"

namespace instrument::detail {
namespace {

constexpr std::size_t mostKept = 2'500'000;  // events, of 40 bytes each

bool hasName(const LodEvent& event, const std::vector<bool>& names) {
    return event.name < names.size() && names[event.name];
}

/// In events that are in order.
const LodEvent* nearestIn(std::span<const LodEvent> events, const LodEvent& from, bool isForward,
                          const std::vector<bool>& names) {
    const auto isIt = [&](const LodEvent& event) { return hasName(event, names); };
    if (isForward) {
        const auto behind = std::ranges::upper_bound(events, from, enclosesFirst);
        const auto found = std::find_if(behind, events.end(), isIt);
        return found == events.end() ? nullptr : &*found;
    }
    const auto before = std::ranges::lower_bound(events, from, enclosesFirst);
    const auto found = std::find_if(std::reverse_iterator(before), events.rend(), isIt);
    return found == events.rend() ? nullptr : &*found;
}

}  // namespace

std::vector<LodEvent> LodWindow::read(RecordBlock& block) {
    Events events = blocks_.read(block);
    Notes& notes = notesOf(block);
    if (!notes.areTaken && !events.empty()) {
        notes.areTaken = true;
        notes.lastStart = events.back().start;
        for (const LodEvent& event : events)
            notes.names.set(event.name % notes.names.size());
    }
    return events;
}

const LodWindow::Events& LodWindow::keep(RecordBlock& block) {
    const auto known = std::ranges::find(kept_, &block, &decltype(kept_)::value_type::first);
    if (known != kept_.end()) {
        kept_.splice(kept_.begin(), kept_, known);
        return kept_.front().second;
    }
    kept_.emplace_front(&block, read(block));
    keptEvents_ += kept_.front().second.size();
    while (keptEvents_ > mostKept && kept_.size() > 1) {
        keptEvents_ -= kept_.back().second.size();
        kept_.pop_back();
    }
    return kept_.front().second;
}

bool LodWindow::touches(const RecordBlock& block, std::int64_t begin, std::int64_t end,
                        LodSources sources) const noexcept {
    const bool isOfThose = block.source == RecordBlock::severalSources || block.events == 0 ||
                           block.firstPoint != RecordBlock::never || sources.has(block.source);
    return isOfThose && LodEntry::firstOf(block) < end &&
           std::max(block.lastEnd, block.lastPoint) >= begin;
}

std::optional<std::vector<LodEvent>> LodWindow::within(std::int64_t begin, std::int64_t end,
                                                       LodSources sources,
                                                       std::uint64_t mostBytes) {
    std::vector<RecordBlock*> touching;
    std::uint64_t bytes = 0;
    for (RecordBlock& block : blocks_.blocks().records()) {
        if (!touches(block, begin, end, sources))
            continue;
        touching.push_back(&block);
        bytes += block.entry.bytes;
        if (bytes > mostBytes)
            return std::nullopt;
    }
    Events found;
    const auto take = [&](const Events& events) {
        const auto behind = std::ranges::partition_point(
            events, [&](const LodEvent& event) { return event.start < end; });
        std::copy_if(events.begin(), behind, std::back_inserter(found), [&](const auto& event) {
            return event.end >= begin && sources.has(event.source);
        });
    };
    for (RecordBlock* block : touching)
        take(keep(*block));
    take(strays_);
    sortRuns(found, enclosesFirst);
    return found;
}

/// In the order in which they can have what is nearest.
std::vector<RecordBlock*> LodWindow::candidates(const LodEvent& from, bool isForward,
                                                const std::vector<bool>& names) {
    std::bitset<256> wanted;
    for (std::size_t name = 0; name < names.size(); ++name)
        if (names[name])
            wanted.set(name % wanted.size());
    std::vector<RecordBlock*> blocks;
    for (RecordBlock& block : blocks_.blocks().records()) {
        const Notes& notes = notesOf(block);
        const bool isThere =
            isForward ? notes.lastStart >= from.start : LodEntry::firstOf(block) <= from.start;
        if (notes.areTaken && isThere && (notes.names & wanted).any())
            blocks.push_back(&block);
    }
    std::ranges::stable_sort(blocks, {}, [&](const RecordBlock* block) {
        // ~ turns the order around, of any number.
        return isForward ? LodEntry::firstOf(*block) : ~notesOf(*block).lastStart;
    });
    return blocks;
}

std::optional<LodEvent> LodWindow::nearest(const LodEvent& from, bool isForward,
                                           const std::vector<bool>& names) {
    std::optional<LodEvent> best;
    const auto look = [&](const Events& events) {
        const LodEvent* const found = nearestIn(events, from, isForward, names);
        if (found &&
            (!best || (isForward ? enclosesFirst(*found, *best) : enclosesFirst(*best, *found))))
            best = *found;
    };
    look(strays_);
    for (RecordBlock* block : candidates(from, isForward, names)) {
        if (best && (isForward ? LodEntry::firstOf(*block) > best->start
                               : notesOf(*block).lastStart < best->start))
            break;
        look(keep(*block));
    }
    return best;
}

std::optional<LodWindow::Found> LodWindow::find(const LodEvent& event) {
    const auto isIt = [&](const LodEvent& other) {
        return other.start == event.start && other.source == event.source &&
               other.serial == event.serial;
    };
    for (RecordBlock& block : blocks_.blocks().records()) {
        if (!touches(block, event.start, saturatingAdd(event.start, 1),
                     {event.source, event.source}))
            continue;
        const Events& events = keep(block);
        const auto found = std::ranges::find_if(events, isIt);
        if (found != events.end())
            return Found{*found, blocks_.contextOf(block, *found)};
    }
    const auto stray = std::ranges::find_if(strays_, isIt);
    return stray == strays_.end() ? std::nullopt : std::optional(Found{*stray, {}});
}

}  // namespace instrument::detail
