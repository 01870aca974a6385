#include "zandor/performance/profiler.hpp"

#include <algorithm>
#include <map>

#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/kept_context.hpp"
#include "zandor/instrument/short_way.hpp"
#include "zandor/performance/calling_context_tree.hpp"
#include "zandor/performance/profile_table.hpp"
#include "zandor/performance/thread_shards.hpp"
#include "zandor/runtime/console.hpp"

namespace instrument {

namespace detail {

namespace {

/// All calls of one instrument.
struct CallSums {
    std::uint64_t calls = 0;
    std::int64_t firstStart = INT64_MAX;
    std::int64_t total = 0;
    std::int64_t self = 0;
    std::int64_t min = INT64_MAX;
    std::int64_t max = INT64_MIN;
    DurationSums durations;

    void add(const CallNode& node) noexcept {
        firstStart = std::min(firstStart, node.firstStart);
        // The calls first: then the durations of each are there. Pairs with the release in count;
        // the others are relaxed.
        const std::uint64_t ended = node.calls.load(std::memory_order_acquire);
        if (ended == 0)
            return;
        calls += ended;
        total += node.isNested ? 0 : node.total.load(std::memory_order_relaxed);
        self += node.self.load(std::memory_order_relaxed);
        min = std::min(min, node.min.load(std::memory_order_relaxed));
        max = std::max(max, node.max.load(std::memory_order_relaxed));
    }

    CallSummary summary(const Opaque* instrument, std::int64_t origin) const {
        return {std::string(instrument->name, instrument->nameLength),
                calls,
                firstStart - origin,
                total,
                self,
                min,
                max,
                std::clamp(durations.quantile(0.5), min, max),
                std::clamp(durations.quantile(0.99), min, max)};
    }
};

}  // namespace

class ProfilerCore {
  public:
    explicit ProfilerCore(InstrumentProfiler& profiler)
        : profiler_(profiler), shortWay_(profiler, shortOperations, this) {}

    void noteOwn(const EventContext& context) noexcept {
        CallingContextTree* const tree = ownTree(context);
        if (!tree)
            withTreeOf(context, [&](CallingContextTree& other) { other.note(context.time()); });
        else if (!tree->hasFirstEvent()) [[unlikely]]
            tree->note(context.time());
    }
    void noteAt(const EventContext& context, std::int64_t time) noexcept {
        withTreeOf(context, [&](CallingContextTree& tree) { tree.note(time); });
    }

    void start(const Opaque* instrument, const EventContext& context, EventId id) noexcept {
        CallingContextTree* const tree = ownTree(context);
        if (!tree)
            startAt(instrument, context, id, context.time());
        else if (!tree->start(instrument, id.serialId, context.time())) [[unlikely]]
            trees_.countLost();
    }
    void startAt(const Opaque* instrument, const EventContext& context, EventId id,
                 std::int64_t time) noexcept {
        withTreeOf(context, [&](CallingContextTree& tree) {
            if (!tree.start(instrument, id.serialId, time))
                trees_.countLost();
        });
    }

    void stop(const EventContext& context, EventId id) noexcept {
        if (CallingContextTree* const tree = ownTree(context))
            stopIn(*tree, id, context.time());
        else
            stopAt(context, id, context.time());
    }
    void stopAt(const EventContext& context, EventId id, std::int64_t time) noexcept {
        withTreeOf(context, [&](CallingContextTree& tree) { stopIn(tree, id, time); });
    }

    void clear() noexcept { trees_.clear(profiler_); }
    std::uint64_t lost() const noexcept { return trees_.lost(); }

    std::vector<CallSummary> summarize() const {
        std::map<const Opaque*, CallSums> sums;
        std::int64_t origin = INT64_MAX;
        trees_.forEach(profiler_, [&](const CallingContextTree& tree) {
            if (const auto first = tree.firstEvent())
                origin = std::min(origin, *first);
            tree.forEach([&](const CallNode& node) { sums[node.instrument].add(node); });
            tree.forEachDurations(
                [&](const Opaque* instrument, const DurationHistogram& durations) {
                    durations.addTo(sums[instrument].durations);
                });
        });
        std::vector<CallSummary> rows;
        for (const auto& [instrument, sum] : sums)
            if (sum.calls > 0)
                rows.push_back(sum.summary(instrument, origin));
        std::ranges::sort(rows, [](const CallSummary& a, const CallSummary& b) {
            return a.start != b.start ? a.start < b.start : a.name < b.name;
        });
        return rows;
    }

  private:
    using Key = CallingContextTree::Key;

    /// The tree of the calling thread, if the event is of its own source.
    CallingContextTree* ownTree(const EventContext& context) noexcept {
        CallingContextTree* const known = trees_.known(context);
        if (known && known->source() == context.sourceId()) [[likely]]
            return known;
        return ListenerData::isOfThread(context) ? enter(context.sourceId()) : nullptr;
    }
    CallingContextTree* enter(std::uint64_t source) noexcept {
        CallingContextTree* const tree = trees_.enter(Key{ListenerData::thread(), 0});
        // Its thread was another one before, and has ended.
        if (tree && tree->source() != source)
            tree->setSource(source);
        return tree;
    }

    /// Events of one other source may be delivered by several threads.
    template <class Use>
    void withTreeOf(const EventContext& context, Use use) noexcept {
        CallingContextTree* const tree = trees_.findOrAdd(Key{nullptr, context.sourceId()});
        if (!tree)
            return trees_.countLost();
        const Locked locked(*otherSources_);
        use(*tree);
    }

    /// The call may be open in another tree.
    void stopIn(CallingContextTree& tree, EventId id, std::int64_t time) noexcept {
        if (id.sourceId == tree.source()) {
            tree.stop(id.serialId, time);
            return;
        }
        tree.note(time);
        CallingContextTree* const starter = trees_.find(CallingContextTree::OfSource{id.sourceId});
        const auto taken = starter ? starter->take(id.serialId) : std::nullopt;
        if (taken && !tree.addTaken(*taken, time))
            trees_.countLost();
    }

    /// The calling thread's, where it is known: then it is that of its present source.
    static void* treeOf(void* self, const ListenerSlot* slots) noexcept {
        return static_cast<ProfilerCore*>(self)->trees_.known(slots);
    }
    static bool noteShortly(void* tree, const Opaque*, std::uint64_t, std::int64_t,
                            ContextWords) noexcept {
        return static_cast<CallingContextTree*>(tree)->hasFirstEvent();
    }
    static bool startShortly(void* tree, const Opaque* instrument, std::uint64_t serial,
                             std::int64_t time, ContextWords) noexcept {
        return static_cast<CallingContextTree*>(tree)->start(instrument, serial, time);
    }
    static bool stopShortly(void* tree, const Opaque*, std::uint64_t serial, std::int64_t time,
                            ContextWords) noexcept {
        return static_cast<CallingContextTree*>(tree)->stop(serial, time);
    }
    static constexpr ShortOperations shortOperations{.needsTime = true,
                                                     .ignoresContext = true,
                                                     .dataOf = treeOf,
                                                     .instant = noteShortly,
                                                     .start = startShortly,
                                                     .stop = stopShortly};

    const InstrumentProfiler& profiler_;
    ThreadShards<CallingContextTree> trees_;
    ForkPrivate<Lock> otherSources_;
    const ShortWay shortWay_;
};

}  // namespace detail

InstrumentProfiler::InstrumentProfiler() : core_(std::make_unique<detail::ProfilerCore>(*this)) {}

InstrumentProfiler::~InstrumentProfiler() {
    listeners.remove(*this);
}

std::vector<CallSummary> InstrumentProfiler::getSummary() const {
    return core_->summarize();
}

std::vector<InstrumentProfiler::Row> InstrumentProfiler::getData() const {
    constexpr double second = 1e9;
    std::vector<Row> rows;
    for (const CallSummary& name : getSummary())
        rows.emplace_back(name.name, name.calls, static_cast<double>(name.start) / second,
                          static_cast<double>(name.total) / second,
                          static_cast<double>(name.self) / second);
    return rows;
}

void InstrumentProfiler::print() const {
    utPrintf("%s", detail::profileTable(getSummary()).c_str());
}

void InstrumentProfiler::clear() {
    core_->clear();
}

std::uint64_t InstrumentProfiler::lostEvents() const noexcept {
    return core_->lost();
}

void InstrumentProfiler::onInstant(const Opaque*, const EventContext& context, EventId) noexcept {
    core_->noteOwn(context);
}

void InstrumentProfiler::onStart(const Opaque* instrument, const EventContext& context,
                                 EventId id) noexcept {
    core_->start(instrument, context, id);
}

void InstrumentProfiler::onStop(const Opaque*, const EventContext& context, EventId id) noexcept {
    core_->stop(context, id);
}

void InstrumentProfiler::onInstantAt(const Opaque*, const EventContext& context, EventId,
                                     std::int64_t time) noexcept {
    core_->noteAt(context, time);
}

void InstrumentProfiler::onStartAt(const Opaque* instrument, const EventContext& context,
                                   EventId id, std::int64_t time) noexcept {
    core_->startAt(instrument, context, id, time);
}

void InstrumentProfiler::onStopAt(const Opaque*, const EventContext& context, EventId id,
                                  std::int64_t time) noexcept {
    core_->stopAt(context, id, time);
}

}  // namespace instrument
