#include "zandor/performance/counter.hpp"

#include <algorithm>
#include <map>
#include <utility>

#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/short_way.hpp"
#include "zandor/performance/count_table.hpp"
#include "zandor/performance/thread_shards.hpp"

namespace instrument {

namespace detail {

class CounterCore {
  public:
    explicit CounterCore(InstrumentCounter& counter)
        : counter_(counter), shortWay_(counter, shortOperations) {}

    void count(const Opaque* instrument, const EventContext& context) noexcept {
        CountTable* table = tables_.known(context);
        if (!table) [[unlikely]]
            table = tables_.enter(ListenerData::thread());
        if (!table || !table->count(instrument, context, tables_.lock())) [[unlikely]]
            tables_.countLost();
    }

    /// Whether it was counted before without a context, and is now again.
    bool countAgain(const Opaque* instrument, const ListenerSlot* slots) noexcept {
        CountTable* const table = tables_.known(slots);
        return table && table->countAgain(instrument);
    }

    /// Calls visit(name, words, count) for what was counted: once a thread, instrument and context.
    template <class Visit>
    void forEach(Visit visit) const {
        tables_.forEach(counter_, [&](CountTable& table) {
            table.forEach([&](CountTable::Entry& entry) {
                const Opaque* const instrument = entry.instrument.load(std::memory_order_relaxed);
                if (const std::uint64_t count = entry.sinceReset(); count > 0)
                    visit(std::string_view(instrument->name, instrument->nameLength),
                          entry.context(), static_cast<std::int64_t>(count));
            });
        });
    }
    template <class Visit>
    void forEachOf(std::string_view name, Visit visit) const {
        forEach([&](std::string_view counted, ContextWords words, std::int64_t count) {
            if (counted == name)
                visit(counted, words, count);
        });
    }

    void reset(std::string_view name) noexcept {
        tables_.forEach(counter_, [&](CountTable& table) {
            const Locked locked(tables_.lock());
            table.forEach([&](CountTable::Entry& entry) {
                const Opaque* const instrument = entry.instrument.load(std::memory_order_relaxed);
                if (std::string_view(instrument->name, instrument->nameLength) == name)
                    entry.base.store(entry.count.load(std::memory_order_relaxed),
                                     std::memory_order_relaxed);
            });
        });
    }
    void resetAll() noexcept { tables_.clear(counter_); }
    std::uint64_t lost() const noexcept { return tables_.lost(); }

  private:
    static bool countShortly(InstrumentListener& listener, const Opaque* instrument, std::uint64_t,
                             std::int64_t, const ListenerSlot* slots) noexcept {
        return static_cast<InstrumentCounter&>(listener).core_->countAgain(instrument, slots);
    }
    static constexpr ShortOperations shortOperations{.needsTime = false,
                                                     .ignoresContext = false,
                                                     .instant = countShortly,
                                                     .start = countShortly,
                                                     .stop = nullptr};

    const InstrumentCounter& counter_;
    ThreadShards<CountTable> tables_;
    const ShortWay shortWay_;
};

namespace {

using EventCount = InstrumentCounter::EventCount;
using CountMap = std::map<NamedContext, std::int64_t>;

std::vector<EventCount> toRecords(CountMap& map) {
    std::vector<EventCount> records;
    records.reserve(map.size());
    while (!map.empty()) {
        auto node = map.extract(map.begin());
        records.push_back({node.key().name, std::move(node.key().context), node.mapped()});
    }
    return records;
}

/// Contexts that read the same are one.
auto addingWholeTo(CountMap& map) {
    return [&map](std::string_view name, ContextWords words, std::int64_t count) {
        map[{name, readContext(words)}] += count;
    };
}

auto addingEntriesTo(CountMap& map) {
    return [&map](std::string_view name, ContextWords words, std::int64_t count) {
        for (const ContextEntry& entry : readContext(words))
            map[{name, ContextSet(&entry, &entry + 1)}] += count;
    };
}

bool holds(const ContextSet& context, const std::vector<ContextEntry>& entries) {
    return std::ranges::all_of(entries, [&](const ContextEntry& wanted) {
        const auto found = context.find(wanted);
        return found != context.end() && found->value == wanted.value;
    });
}

}  // namespace
}  // namespace detail

using namespace detail;

InstrumentCounter::InstrumentCounter() : core_(std::make_unique<CounterCore>(*this)) {}

InstrumentCounter::~InstrumentCounter() {
    listeners.remove(*this);
}

void InstrumentCounter::resetAllEventCounts() {
    core_->resetAll();
}

void InstrumentCounter::resetEventCount(std::string_view name) {
    core_->reset(name);
}

std::vector<InstrumentCounter::EventCount> InstrumentCounter::getAllEventCounts() const {
    CountMap map;
    core_->forEach([&](std::string_view name, ContextWords, std::int64_t count) {
        map[{name, {}}] += count;
    });
    return toRecords(map);
}

std::vector<InstrumentCounter::EventCount> InstrumentCounter::getAllEventCountsByContext() const {
    CountMap map;
    core_->forEach(addingWholeTo(map));
    return toRecords(map);
}

std::vector<InstrumentCounter::EventCount> InstrumentCounter::getAllEventCountsByContextEntry()
    const {
    CountMap map;
    core_->forEach(addingEntriesTo(map));
    return toRecords(map);
}

InstrumentCounter::EventCount InstrumentCounter::getEventCount(std::string_view name) const {
    EventCount record{lastingText(name), {}};
    core_->forEachOf(
        name, [&](std::string_view, ContextWords, std::int64_t count) { record.count += count; });
    return record;
}

std::vector<InstrumentCounter::EventCount> InstrumentCounter::getEventCountsByContext(
    std::string_view name) const {
    CountMap map;
    core_->forEachOf(name, addingWholeTo(map));
    return toRecords(map);
}

std::vector<InstrumentCounter::EventCount> InstrumentCounter::getEventCountsByContextEntry(
    std::string_view name) const {
    CountMap map;
    core_->forEachOf(name, addingEntriesTo(map));
    return toRecords(map);
}

InstrumentCounter::EventCount InstrumentCounter::getEventCountForContext(
    std::string_view name, const std::vector<ContextEntry>& entries) const {
    EventCount record{lastingText(name), lastingSet(entries)};
    core_->forEachOf(name, [&](std::string_view, ContextWords words, std::int64_t count) {
        if (holds(readContext(words), entries))
            record.count += count;
    });
    return record;
}

std::uint64_t InstrumentCounter::lostEvents() const noexcept {
    return core_->lost();
}

void InstrumentCounter::onInstant(const Opaque* instrument, const EventContext& context,
                                  EventId) noexcept {
    core_->count(instrument, context);
}

void InstrumentCounter::onStart(const Opaque* instrument, const EventContext& context,
                                EventId) noexcept {
    core_->count(instrument, context);
}

void InstrumentCounter::onStop(const Opaque*, const EventContext&, EventId) noexcept {}

void InstrumentCounter::onInstantAt(const Opaque* instrument, const EventContext& context, EventId,
                                    std::int64_t) noexcept {
    core_->count(instrument, context);
}

void InstrumentCounter::onStartAt(const Opaque* instrument, const EventContext& context, EventId,
                                  std::int64_t) noexcept {
    core_->count(instrument, context);
}

void InstrumentCounter::onStopAt(const Opaque*, const EventContext&, EventId,
                                 std::int64_t) noexcept {}

}  // namespace instrument
