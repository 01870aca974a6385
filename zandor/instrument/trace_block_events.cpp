#include "trace_block_events.hpp"

#include <algorithm>
#include <optional>
#include <tuple>
#include <utility>

#include "recorder_merge.hpp"

namespace instrument::detail {
namespace {

/// As adapted records have it.
std::int64_t timeOf(const Record& record) noexcept {
    return static_cast<std::int64_t>(record.time);
}

void addLateStops(const RecordBlock& block, std::vector<RecordedEvent>& events) {
    for (const LateStop& late : block.lateStops) {
        if (late.event >= events.size())
            return;  // the file is not what it was
        RecordedEvent& event = events[late.event];
        event.stop = late.time;
        event.stopSource = late.source;
        event.finished = true;
    }
}

}  // namespace

BlockItems<RecordedEvent> BlockEvents::events(RecordBlock& block, bool withContexts) {
    BlockItems<RecordedEvent> found;
    const std::optional<Stretch> stretch = blocks_.load(block);
    if (!stretch)
        return found;
    ContextTable contexts(blocks_.names());
    const EventIdSet& stoppedElsewhere = blocks_.processes()[block.entry.process]->foreignStops();
    run_.clear();
    found.items.reserve(block.events);
    RecordReader reader(stretch->begin, stretch->end, stretch->state);
    for (Record record; reader.next(record);) {
        if (record.kind == RecordKind::start) {
            const auto place = static_cast<std::uint32_t>(found.items.size());
            const std::uint32_t source = survey_.numberOf(record.sourceInfo);
            found.items.push_back(
                {.start = timeOf(record),
                 .stop = timeOf(record),
                 .serial = record.id.serialId,
                 .instrument = blocks_.names().instrument(record.instrument),
                 .source = source,
                 .stopSource = source,
                 .context = withContexts ? contexts.argsOf(contexts.placeOf(record.context))
                                         : ContextArgs()});
            if (stoppedElsewhere.empty() || stoppedElsewhere.find(record.id) == EventIdSet::none)
                run_.push(record.id.serialId, place);
        } else if (record.kind == RecordKind::stop) {
            if (const std::optional<std::uint32_t> open = run_.take(record.id.serialId)) {
                RecordedEvent& event = found.items[*open];
                event.stop = timeOf(record);
                event.stopSource = survey_.numberOf(record.sourceInfo);
                event.finished = true;
            }
        } else if (record.beginsRun && record.kind == RecordKind::source) {
            run_.clear();
        }
    }
    addLateStops(block, found.items);
    sortRuns(found.items, [](const RecordedEvent& a, const RecordedEvent& b) {
        return std::tie(a.start, a.source, a.serial) < std::tie(b.start, b.source, b.serial);
    });
    found.contexts = contexts.takeArgs();
    return found;
}

BlockItems<OrderedPoint> BlockEvents::points(RecordBlock& block, bool withContexts) {
    BlockItems<OrderedPoint> found;
    const std::optional<Stretch> stretch = blocks_.load(block);
    if (!stretch)
        return found;
    ContextTable contexts(blocks_.names());
    std::uint64_t order = block.order;
    bool counts = false;
    RecordReader reader(stretch->begin, stretch->end, stretch->state);
    for (Record record; reader.next(record);) {
        if (record.kind >= RecordKind::source)
            continue;
        counts = counts || record.kind == RecordKind::start || record.kind == RecordKind::instant;
        if (record.kind == RecordKind::instant)
            found.items.push_back(
                {{.time = timeOf(record),
                  .serial = record.id.serialId,
                  .instrument = blocks_.names().instrument(record.instrument),
                  .source = survey_.numberOf(record.sourceInfo),
                  .context = withContexts ? contexts.argsOf(contexts.placeOf(record.context))
                                          : ContextArgs(),
                  .type = EventPointType::instant},
                 order});
        order += counts;
    }
    sortRuns(found.items, [](const OrderedPoint& a, const OrderedPoint& b) {
        return std::tie(a.point.time, a.point.source, a.order) <
               std::tie(b.point.time, b.point.source, b.order);
    });
    found.contexts = contexts.takeArgs();
    return found;
}

}  // namespace instrument::detail
