#include "trace_survey.hpp"

#include <algorithm>
#include <stdexcept>
#include <tuple>
#include <utility>

#include "recorder_matching.hpp"
#include "zandor/instrument/saturating.hpp"

namespace instrument::detail {

/// A process as a Matcher sees it. Only the block that is looked at is in memory.
class TraceSurvey::View {
  public:
    View(TraceSurvey& survey, std::size_t process)
        : blocks_(survey.blocks_),
          records_(blocks_.recordsOf(process)),
          process_(*blocks_.processes()[process]),
          kept_(survey.keptWords_) {}

    const EventIdSet& foreignStops() const noexcept { return process_.foreignStops(); }
    void findForeignStops() { process_.finishStops(); }
    bool isLost(EventId id) const noexcept { return process_.isLost(id); }

    template <class Visit>
    void forEachStretch(Visit visit) {
        const RecordBlock* before = nullptr;
        for (RecordBlock& block : records_) {
            const std::optional<Stretch> stretch = blocks_.load(block);
            if (!stretch)
                continue;
            current_ = &block;
            visit(*stretch, !before || before->stretch.track != block.stretch.track);
            before = &block;
        }
        current_ = nullptr;
    }
    std::span<const Word> keep(std::span<const Word> words) {
        if (words.empty())
            return {};
        return kept_.emplace_back(words.begin(), words.end());
    }
    /// The block that is looked at; null in between.
    RecordBlock* current() const noexcept { return current_; }

  private:
    TraceBlocks& blocks_;
    std::span<RecordBlock> records_;
    LoadedProcess& process_;
    RecordBlock* current_ = nullptr;
    std::deque<std::vector<Word>>& kept_;
};

class TraceSurvey::Sink {
  public:
    struct Open {
        RecordBlock* block;
        std::uint32_t event;
    };

    Sink(TraceSurvey& survey, const View& view) : survey_(survey), view_(view) {}

    Open onStart(const Point& start) {
        RecordBlock& block = *view_.current();
        noteOrder(block, start);
        const std::uint32_t source = placeOf(start);
        block.source =
            block.events == 0 || block.source == source ? source : RecordBlock::severalSources;
        block.firstStart = std::min(block.firstStart, start.time);
        block.lastEnd = std::max(block.lastEnd, start.time);
        ++block.open;
        return {&block, block.events++};
    }
    void onStop(Open open, const Point& stop) {
        const std::uint32_t source = placeOf(stop);
        open.block->lastEnd = std::max(open.block->lastEnd, stop.time);
        --open.block->open;
        if (open.block != view_.current())
            open.block->lateStops.push_back({open.event, source, stop.time});
    }
    void onInstant(const Point& instant) {
        RecordBlock& block = *view_.current();
        noteOrder(block, instant);
        placeOf(instant);
        block.firstPoint = std::min(block.firstPoint, instant.time);
        block.lastPoint = std::max(block.lastPoint, instant.time);
    }
    void onStrayStop(const Point& stop) {
        ContextTable& contexts = survey_.contexts_;
        survey_.strayStops_.push_back(
            {{.time = stop.time,
              .serial = stop.id.serialId,
              .instrument = survey_.blocks_.names().instrument(stop.instrument),
              .source = placeOf(stop),
              .context = contexts.argsOf(contexts.placeOf(stop.context)),
              .type = EventPointType::stop},
             stop.order});
    }

  private:
    std::uint32_t placeOf(const Point& point) {
        survey_.facts_.lastTime = std::max(survey_.facts_.lastTime, point.time);
        return survey_.sources_.placeOf(point.source);
    }
    /// Instants are in order by what they have in common with the block's other ones.
    static void noteOrder(RecordBlock& block, const Point& point) noexcept {
        if (block.events == 0 && block.firstPoint == RecordBlock::never)
            block.order = point.order;
    }

    TraceSurvey& survey_;
    const View& view_;
};

TraceSurvey::TraceSurvey(TraceBlocks& blocks) : blocks_(blocks), contexts_(blocks.names()) {
    for (std::size_t process = 0; process < blocks.processes().size(); ++process)
        survey(process);
    numberSources();
    addFacts();
    keptWords_.clear();
}

void TraceSurvey::survey(std::size_t process) {
    View view(*this, process);
    Sink sink(*this, view);
    if (Matcher<Sink, View>(view, sink).run())
        return;
    for (RecordBlock& block : blocks_.recordsOf(process))
        block.forgetEvents();
    Matcher<Sink, View>(view, sink).run();
}

std::uint32_t TraceSurvey::numberOf(SourceInfo* source) {
    const std::uint32_t place = sources_.placeOf(source);
    if (place >= numbers_.size())
        throw std::runtime_error("the trace file changed while it was read");
    return numbers_[place];
}

void TraceSurvey::numberSources() {
    std::tie(facts_.sources, numbers_) = sources_.sorted();
    for (RecordBlock& block : blocks_.records()) {
        if (block.source != RecordBlock::severalSources && block.events > 0)
            block.source = numbers_[block.source];
        if (block.open > 0)
            block.lastEnd = RecordBlock::never;
        for (LateStop& late : block.lateStops)
            late.source = numbers_[late.source];
        std::ranges::sort(block.lateStops, {}, &LateStop::event);
    }
    for (OrderedPoint& stop : strayStops_)
        stop.point.source = numbers_[stop.point.source];
    std::ranges::stable_sort(strayStops_, {}, [](const OrderedPoint& stop) {
        return std::tuple(stop.point.time, stop.point.source, stop.order);
    });
}

void TraceSurvey::addFacts() {
    const auto processes = blocks_.processes();
    for (const auto& process : processes) {
        const TraceProcess& facts = process->facts();
        facts_.drops.refused += facts.refused;
        facts_.drops.oldest += facts.oldest;
        facts_.drops.shortest += facts.shortest;
        facts_.drops.failed += facts.failed;
        facts_.drops.minimumDuration =
            std::max(facts_.drops.minimumDuration, facts.minimumDuration);
        for (const ExternalAccount& account : process->externalAccounts()) {
            facts_.externalAccounts.push_back(account);
            // Several processes may have counted theirs from 1.
            facts_.externalAccounts.back().client = facts_.externalAccounts.size();
        }
        const std::int64_t begin = process->begin();
        if (begin != 0 && (facts_.originMonotonic == 0 || begin < facts_.originMonotonic))
            facts_.originMonotonic = begin;
    }
    if (processes.empty())
        return;
    facts_.processId = processes.front()->facts().processId;
    if (facts_.originMonotonic != 0)
        facts_.originUtc =
            saturatingAdd(facts_.originMonotonic, processes.front()->facts().utcOffset);
}

}  // namespace instrument::detail
