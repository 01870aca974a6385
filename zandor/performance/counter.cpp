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
        : counter_(counter), shortWay_(counter, shortOperations, this) {}

    void count(const Opaque* instrument, const EventContext& context) noexcept {
        CountTable* table = tables_.known(context);
        if (!table) [[unlikely]]
            table = tables_.enter(ListenerData::thread());
        if (!table || !table->count(instrument, context, tables_.lock())) [[unlikely]]
            tables_.countLost();
    }

    /// Calls visit(name, words, count) for what was counted: once a thread, instrument and context.
    template <class Visit>
    void forEach(Visit visit) const {
        tables_.forEach(counter_, [&](CountTable& table) {
            table.forEach([&](const Opaque& instrument, ContextWords words, const Count& counted) {
                if (const std::uint64_t count = counted.sinceReset(); count > 0)
                    visit(nameOf(instrument), words, static_cast<std::int64_t>(count));
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
            table.forEach([&](const Opaque& instrument, ContextWords, Count& counted) {
                if (nameOf(instrument) == name)
                    counted.reset();
            });
        });
    }
    void resetAll() noexcept { tables_.clear(counter_); }
    std::uint64_t lost() const noexcept { return tables_.lost(); }

  private:
    using Count = CountTable::Count;

    static std::string_view nameOf(const Opaque& instrument) noexcept {
        return {instrument.name, instrument.nameLength};
    }
    static void* tableOf(void* self, const ListenerSlot* slots) noexcept {
        return static_cast<CounterCore*>(self)->tables_.known(slots);
    }
    /// Where the same was counted before.
    static bool countShortly(void* table, const Opaque* instrument, std::uint64_t, std::int64_t,
                             ContextWords context) noexcept {
        return static_cast<CountTable*>(table)->countAgain(instrument, context);
    }
    static ShortCount* countsOf(void* table) noexcept {
        return static_cast<CountTable*>(table)->plainCounts();
    }
    static constexpr ShortOperations shortOperations{.needsTime = false,
                                                     .ignoresContext = false,
                                                     .dataOf = tableOf,
                                                     .instant = countShortly,
                                                     .start = countShortly,
                                                     .stop = nullptr,
                                                     .countsOf = countsOf};

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
