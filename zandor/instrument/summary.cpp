#include "zandor/instrument/summary.hpp"

#include <algorithm>
#include <unordered_map>

#include "zandor/instrument/duration_buckets.hpp"
#include "zandor/instrument/event_order.hpp"
#include "zandor/instrument/self_time.hpp"

namespace instrument::detail {

namespace {

class Summaries {
  public:
    /// Which of the summaries is the instrument's.
    std::uint32_t of(const Opaque* instrument) {
        if (instrument->id >= places_.size())
            places_.resize(instrument->id + 1, none);
        std::uint32_t& place = places_[instrument->id];
        if (place == none) {
            place = static_cast<std::uint32_t>(summaries_.size());
            summaries_.push_back({{instrument->name, instrument->nameLength}});
            durations_.emplace_back();
        }
        return place;
    }

    void count(std::uint32_t which, const RecordedEvent& event) {
        EventSummary& summary = summaries_[which];
        const std::int64_t duration = saturatingSubtract(event.stop, event.start);
        summary.minimum = summary.count == 0 ? duration : std::min(summary.minimum, duration);
        summary.maximum = std::max(summary.maximum, duration);
        ++summary.count;
        durations_[which].add(duration);
        summary.total = saturatingAdd(summary.total, notYetCovered(which, event));
    }

    void give(std::uint32_t which, std::int64_t nanoseconds) {
        summaries_[which].self = saturatingAdd(summaries_[which].self, nanoseconds);
    }

    std::vector<EventSummary> sorted() && {
        for (std::size_t i = 0; i < summaries_.size(); ++i) {
            summaries_[i].p50 = typical(i, 0.5);
            summaries_[i].p99 = typical(i, 0.99);
        }
        std::sort(summaries_.begin(), summaries_.end(), [](const auto& a, const auto& b) {
            return a.self != b.self ? a.self > b.self : a.name < b.name;
        });
        return std::move(summaries_);
    }

  private:
    /// The event's time beyond earlier ones of its name and source, which come by their start.
    std::int64_t notYetCovered(std::uint32_t which, const RecordedEvent& event) {
        const auto [place, isNew] =
            coveredUntil_.try_emplace(std::uint64_t{event.source} << 32 | which, event.start);
        const std::int64_t from = std::max(place->second, event.start);
        place->second = std::max(from, event.stop);
        return std::max<std::int64_t>(saturatingSubtract(event.stop, from), 0);
    }

    std::int64_t typical(std::size_t which, double share) const noexcept {
        return std::clamp(durations_[which].quantile(share), summaries_[which].minimum,
                          summaries_[which].maximum);
    }

    static constexpr std::uint32_t none = 0xffffffff;
    std::vector<EventSummary> summaries_;
    std::vector<DurationSums> durations_;  // by summary
    std::vector<std::uint32_t> places_;    // by the instrument's number
    std::unordered_map<std::uint64_t, std::int64_t> coveredUntil_;
};

}  // namespace

std::vector<EventSummary> summarize(EventStream& stream) {
    const std::size_t sources = stream.facts().sources.size();
    Summaries summaries;
    SelfTime<std::uint32_t> selfTime(sources);
    const auto give = [&](std::uint32_t which, std::int64_t, std::int64_t time) {
        summaries.give(which, time);
    };
    forEachEnclosingFirst(stream, [&](const RecordedEvent& event) {
        if (!event.finished || event.stop < event.start)
            return;
        const std::uint32_t which = summaries.of(event.instrument);
        summaries.count(which, event);
        selfTime.advance(event.source, event.start, give);
        selfTime.enter(event.source, event.start, event.stop, which);
    });
    for (std::uint32_t source = 0; source < sources; ++source)
        selfTime.finish(source, give);
    return std::move(summaries).sorted();
}

}  // namespace instrument::detail
