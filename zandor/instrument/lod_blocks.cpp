#include "lod_blocks.hpp"

#include "event_order.hpp"
#include "recorder_merge.hpp"

namespace instrument::detail {

void LodBlocks::survey() {
    survey_ = std::make_unique<TraceSurvey>(blocks_);
    reader_ = std::make_unique<BlockEvents>(blocks_, *survey_);
}

std::vector<LodActivity> LodBlocks::activity() {
    std::vector<LodActivity> tracks;
    const RecordBlock* before = nullptr;
    for (const RecordBlock& block : blocks_.records()) {
        LoadedProcess& process = *blocks_.processes()[block.entry.process];
        if (!before || before->entry.process != block.entry.process ||
            before->stretch.track != block.stretch.track) {
            SourceInfo& source = process.sourceOf(block.stretch.source);
            tracks.push_back({source.processName->view(), source.name(), {}});
        }
        if (const std::optional<std::int64_t> begin = blocks_.beginOf(block))
            tracks.back().begins.push_back(*begin);
        before = &block;
    }
    return tracks;
}

std::vector<LodEvent> LodBlocks::read(RecordBlock& block) {
    std::vector<LodEvent> events;
    events.reserve(block.events);
    if (block.events > 0)
        for (const RecordedEvent& event : reader_->events(block, false).items)
            if (closingTime(facts(), event) >= event.start)
                events.push_back(eventOf(event));
    if (block.firstPoint != RecordBlock::never)
        for (const OrderedPoint& entry : reader_->points(block, false).items)
            events.push_back(eventOf(entry.point));
    sortRuns(events, enclosesFirst);
    return events;
}

std::vector<LodEvent> LodBlocks::strays() const {
    std::vector<LodEvent> events;
    for (const OrderedPoint& entry : survey_->strayStops())
        events.push_back(eventOf(entry.point));
    std::ranges::sort(events, enclosesFirst);
    return events;
}

LodEvent LodBlocks::eventOf(const RecordedEvent& event) const noexcept {
    const std::uint32_t marks = (event.finished ? 0 : LodEvent::isOpen) |
                                (event.stopSource != event.source ? LodEvent::stopsElsewhere : 0);
    return {event.start,  closingTime(facts(), event),
            event.serial, event.instrument->id,
            event.source, marks};
}

LodEvent LodBlocks::eventOf(const RecordedPoint& point) noexcept {
    return {point.time,           point.time,   point.serial,
            point.instrument->id, point.source, LodEvent::isInstant};
}

void LodBlocks::rewind() {
    std::vector<RecordBlock*> blocks;
    for (RecordBlock& block : blocks_.records())
        if (LodEntry::firstOf(block) != RecordBlock::never)
            blocks.push_back(&block);
    all_.begin(std::move(blocks), {strays(), {}});
}

ContextArgs LodBlocks::contextOf(RecordBlock& block, const LodEvent& event) {
    const auto contextIn = [&](auto items, auto isIt) -> ContextArgs {
        const auto found = std::ranges::find_if(items.items, isIt);
        if (found == items.items.end())
            return {};
        contexts_ = std::move(items.contexts);
        if constexpr (requires { found->context; })
            return found->context;
        else
            return found->point.context;
    };
    if (event.has(LodEvent::isInstant))
        return contextIn(reader_->points(block, true), [&](const OrderedPoint& entry) {
            return entry.point.time == event.start && entry.point.serial == event.serial &&
                   entry.point.source == event.source;
        });
    return contextIn(reader_->events(block, true), [&](const RecordedEvent& other) {
        return other.serial == event.serial && other.source == event.source;
    });
}

}  // namespace instrument::detail
