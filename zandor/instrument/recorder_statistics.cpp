// The recorder's statistics: one pass over its records, summed up by instrument or by instrument
// and context, and only then brought into words.
#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "control_registry.hpp"
#include "name_index.hpp"
#include "recorder_context.hpp"
#include "recorder_core.hpp"
#include "recorder_matching.hpp"
#include "recorder_selection.hpp"
#include "zandor/instrument/kept_context.hpp"
#include "zandor/instrument/recorder.hpp"

namespace instrument {
namespace detail {
namespace {

using EventStats = InstrumentRecorder::EventStats;

struct Sum {
    std::int64_t count = 0;
    std::int64_t duration = 0;

    void add(const Sum& other) noexcept {
        count += other.count;
        duration += other.duration;
    }
};

/// Sums by instrument.
class InstrumentSink {
  public:
    struct Open {
        std::int64_t time;
        std::uint32_t instrument;
    };

    Open onStart(const Point& start) {
        if (start.instrument >= sums_.size())
            sums_.resize(start.instrument + 1);
        return {start.time, start.instrument};
    }
    void onStop(Open open, const Point& stop) noexcept {
        sums_[open.instrument].add({1, stop.time - open.time});
    }
    void onInstant(const Point&) noexcept {}
    void onStrayStop(const Point&) noexcept {}

    /// By number of the instrument.
    const std::vector<Sum>& sums() const noexcept { return sums_; }

  private:
    std::vector<Sum> sums_;
};

/// Sums by instrument and context as recorded.
class ContextSink {
  public:
    struct Group {
        std::uint32_t instrument;
        std::uint32_t context;
        Sum sum;
    };
    struct Open {
        std::int64_t time;
        std::size_t group;
    };

    explicit ContextSink(const Selection& selection) : selection_(selection), slots_(64) {}

    Open onStart(const Point& start) {
        if (!selection_.hasInstrument(start.instrument))
            return {start.time, none};
        return {start.time, groupOf(start.instrument, contexts_.placeOf(start.context))};
    }
    void onStop(Open open, const Point& stop) noexcept {
        if (open.group != none)
            groups_[open.group].sum.add({1, stop.time - open.time});
    }
    void onInstant(const Point&) noexcept {}
    void onStrayStop(const Point&) noexcept {}

    const std::vector<Group>& groups() const noexcept { return groups_; }
    ContextArgs argsOf(const Group& group) const noexcept {
        return contexts_.argsOf(group.context);
    }

  private:
    static constexpr std::size_t none = static_cast<std::size_t>(-1);

    std::size_t slotOf(std::uint32_t instrument, std::uint32_t context) const noexcept {
        const std::uint64_t key = std::uint64_t{instrument} << 32 | context;
        std::size_t slot = (key * 0x9e37'79b9'7f4a'7c15) >> 20;
        for (;; ++slot) {
            const std::size_t group = slots_[slot & (slots_.size() - 1)];
            if (group == 0 || (groups_[group - 1].instrument == instrument &&
                               groups_[group - 1].context == context))
                return slot & (slots_.size() - 1);
        }
    }

    std::size_t groupOf(std::uint32_t instrument, std::uint32_t context) {
        if (const std::size_t group = slots_[slotOf(instrument, context)])
            return group - 1;
        if (groups_.size() * 2 >= slots_.size())
            rehash();
        groups_.push_back({instrument, context, {}});
        slots_[slotOf(instrument, context)] = groups_.size();
        return groups_.size() - 1;
    }

    void rehash() {
        slots_.assign(slots_.size() * 2, 0);
        for (std::size_t group = 0; group < groups_.size(); ++group)
            slots_[slotOf(groups_[group].instrument, groups_[group].context)] = group + 1;
    }

    const Selection& selection_;
    ContextTable contexts_;
    std::vector<Group> groups_;
    std::vector<std::size_t> slots_;  // groups and 1; 0 is free; a power of two of them
};

using StatsMap = std::map<NamedContext, Sum>;

std::vector<EventStats> toRecords(StatsMap& map) {
    std::vector<EventStats> records;
    records.reserve(map.size());
    while (!map.empty()) {
        auto node = map.extract(map.begin());
        records.push_back({node.key().name, std::move(node.key().context), node.mapped().count,
                           node.mapped().duration});
    }
    return records;
}

std::string_view nameOf(std::uint32_t instrument) noexcept {
    const Opaque* handle = instrumentFromId(instrument);
    return {handle->name, handle->nameLength};
}

/// Numbers and texts that read the same are the same context.
void addWhole(StatsMap& map, std::string_view name, ContextArgs context, const Sum& sum) {
    map[{name, makeContextSet(context)}].add(sum);
}

void addEntries(StatsMap& map, std::string_view name, ContextArgs context, const Sum& sum) {
    for (const ContextArg& arg : context)
        map[{name, makeContextSet({&arg, 1})}].add(sum);
}

template <class Add>
std::vector<EventStats> groupedStats(RecorderCore& core, const Selection& selection, Add add) {
    if (selection.isEmpty())
        return {};
    ContextSink sink(selection);
    readSelected(core, selection, sink);
    StatsMap map;
    for (const ContextSink::Group& group : sink.groups())
        if (group.sum.count > 0)
            add(map, nameOf(group.instrument), sink.argsOf(group), group.sum);
    return toRecords(map);
}

std::vector<Sum> sumsByInstrument(RecorderCore& core, const Selection& selection) {
    InstrumentSink sink;
    readSelected(core, selection, sink);
    return sink.sums();
}

}  // namespace
}  // namespace detail

using detail::Selection;

std::vector<InstrumentRecorder::EventStats> InstrumentRecorder::getAllEventStats() const {
    const std::vector<detail::Sum> sums = detail::sumsByInstrument(core(), Selection());
    std::vector<EventStats> records;
    for (std::uint32_t instrument = 0; instrument < sums.size(); ++instrument)
        if (const auto& [count, duration] = sums[instrument]; count > 0)
            records.push_back({detail::nameOf(instrument), {}, count, duration});
    std::ranges::sort(records, {}, &EventStats::name);
    return records;
}

std::vector<InstrumentRecorder::EventStats> InstrumentRecorder::getAllEventStatsByContext() const {
    return detail::groupedStats(core(), Selection(), detail::addWhole);
}

std::vector<InstrumentRecorder::EventStats> InstrumentRecorder::getAllEventStatsByContextEntry()
    const {
    return detail::groupedStats(core(), Selection(), detail::addEntries);
}

InstrumentRecorder::EventStats InstrumentRecorder::getEventStats(std::string_view name) const {
    EventStats record{lastingText(name), {}};
    if (const Opaque* instrument = detail::findElement(name)) {
        const std::vector<detail::Sum> sums = detail::sumsByInstrument(core(), Selection(name));
        if (instrument->id < sums.size()) {
            record.count = sums[instrument->id].count;
            record.duration = sums[instrument->id].duration;
        }
    }
    return record;
}

std::vector<InstrumentRecorder::EventStats> InstrumentRecorder::getEventStatsByContext(
    std::string_view name) const {
    return detail::groupedStats(core(), Selection(name), detail::addWhole);
}

std::vector<InstrumentRecorder::EventStats> InstrumentRecorder::getEventStatsByContextEntry(
    std::string_view name) const {
    return detail::groupedStats(core(), Selection(name), detail::addEntries);
}

InstrumentRecorder::EventStats InstrumentRecorder::getEventStatsForContext(
    std::string_view name, const std::vector<ContextEntry>& entries) const {
    EventStats record{lastingText(name), lastingSet(entries)};
    const Selection selection(name, entries);
    const auto add = [&](detail::StatsMap&, std::string_view, ContextArgs context,
                         const detail::Sum& sum) {
        if (!selection.hasContext(context))
            return;
        record.count += sum.count;
        record.duration += sum.duration;
    };
    detail::groupedStats(core(), selection, add);
    return record;
}

}  // namespace instrument
