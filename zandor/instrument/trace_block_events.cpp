#include "trace_block_events.hpp"

#include <algorithm>
#include <optional>
#include <tuple>
#include <utility>

#include "recorder_merge.hpp"

namespace instrument::detail {
namespace {

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

/// Reads a block as the file has it, and adapts what is asked for.
class BlockEvents::Reader {
  public:
    Reader(BlockEvents& events, RecordBlock& block, bool withContexts)
        : survey_(events.survey_),
          process_(*events.blocks_.processes()[block.entry.process]),
          contexts_(events.blocks_.names()),
          withContexts_(withContexts),
          words_(events.blocks_.loadAsTheyAre(block).value_or(std::span<Word>())),
          reader_(words_.data(), words_.data() + words_.size(),
                  {block.stretch.source, block.stretch.nextSerial, nullptr}) {}

    bool next(Record& record) noexcept { return reader_.next(record); }

    std::int64_t timeOf(const Record& record) noexcept { return process_.timeOf(record); }
    const Opaque* instrumentOf(const Record& record) const noexcept {
        return process_.instrumentOf(record);
    }
    std::uint32_t sourceOf(const Record& record) {
        if (!hasSource_ || record.source != source_) {
            hasSource_ = true;
            source_ = record.source;
            sourceNumber_ = survey_.numberOf(&process_.sourceOf(source_));
        }
        return sourceNumber_;
    }
    /// Once of each record.
    ContextArgs contextOf(const Record& record) {
        if (!withContexts_ || record.context.empty())
            return {};
        const auto first = static_cast<std::size_t>(record.context.data() - words_.data());
        process_.adaptContext(words_.subspan(first, record.context.size()));
        return contexts_.argsOf(contexts_.placeOf(record.context));
    }
    const EventIdSet& foreignStops() const noexcept { return process_.foreignStops(); }
    ContextArena takeContexts() noexcept { return contexts_.takeArgs(); }

  private:
    TraceSurvey& survey_;
    LoadedProcess& process_;
    ContextTable contexts_;
    const bool withContexts_;
    std::span<Word> words_;
    RecordReader reader_;
    bool hasSource_ = false;
    std::uint64_t source_ = 0;
    std::uint32_t sourceNumber_ = 0;
};

BlockItems<RecordedEvent> BlockEvents::events(RecordBlock& block, bool withContexts) {
    BlockItems<RecordedEvent> found;
    Reader reader(*this, block, withContexts);
    const EventIdSet& stoppedElsewhere = reader.foreignStops();
    run_.clear();
    found.items.reserve(block.events);
    for (Record record; reader.next(record);) {
        if (record.kind == RecordKind::start) {
            const auto place = static_cast<std::uint32_t>(found.items.size());
            const std::int64_t time = reader.timeOf(record);
            const std::uint32_t source = reader.sourceOf(record);
            found.items.push_back({.start = time,
                                   .stop = time,
                                   .serial = record.id.serialId,
                                   .instrument = reader.instrumentOf(record),
                                   .source = source,
                                   .stopSource = source,
                                   .context = reader.contextOf(record)});
            if (stoppedElsewhere.empty() || stoppedElsewhere.find(record.id) == EventIdSet::none)
                run_.push(record.id.serialId, place);
        } else if (record.kind == RecordKind::stop) {
            if (const std::uint32_t* const open = run_.take(record.id.serialId)) {
                RecordedEvent& event = found.items[*open];
                event.stop = reader.timeOf(record);
                event.stopSource = reader.sourceOf(record);
                event.finished = true;
            }
        } else if (record.kind == RecordKind::source && record.beginsRun) {
            run_.clear();
        }
    }
    addLateStops(block, found.items);
    sortRuns(found.items, EventEntry::less);
    found.contexts = reader.takeContexts();
    return found;
}

BlockItems<OrderedPoint> BlockEvents::points(RecordBlock& block, bool withContexts) {
    BlockItems<OrderedPoint> found;
    Reader reader(*this, block, withContexts);
    std::uint64_t order = block.order;
    bool counts = false;
    for (Record record; reader.next(record);) {
        if (record.kind >= RecordKind::source)
            continue;
        counts = counts || record.kind == RecordKind::start || record.kind == RecordKind::instant;
        if (record.kind == RecordKind::instant)
            found.items.push_back({{.time = reader.timeOf(record),
                                    .serial = record.id.serialId,
                                    .instrument = reader.instrumentOf(record),
                                    .source = reader.sourceOf(record),
                                    .context = reader.contextOf(record),
                                    .type = EventPointType::instant},
                                   order});
        order += counts;
    }
    sortRuns(found.items, PointEntry::less);
    found.contexts = reader.takeContexts();
    return found;
}

}  // namespace instrument::detail
