#include "name_times.hpp"

#include "zandor/instrument/duration_buckets.hpp"

namespace instrument::detail {

static_assert(DurationBuckets::count <= 256);

namespace {

constexpr std::uint32_t none = 0xffffffff;

std::int64_t selfOf(const NameTime& name) {
    std::int64_t self = 0;
    for (const auto& [bin, cell] : name.cells.entries())
        self = saturatingAdd(self, cell.self);
    return self;
}

}  // namespace

std::uint32_t NameTimes::placeOf(const Opaque* instrument) {
    if (instrument->id >= places_.size())
        places_.resize(instrument->id + 1, none);
    std::uint32_t& place = places_[instrument->id];
    if (place == none) {
        place = static_cast<std::uint32_t>(names_.size());
        names_.push_back({instrument, {}, {}});
    }
    return place;
}

void NameTimes::count(std::uint32_t place, const RecordedEvent& event, std::int64_t end) {
    NameTime& name = names_[place];
    if (event.finished) {
        const std::uint32_t bin = bins_.of(event.start);
        const std::int64_t duration = saturatingSubtract(end, event.start);
        NameCell& cell = name.cells.at(bin);
        ++cell.calls;
        cell.longest = std::max(cell.longest, duration);
        const auto bucket = static_cast<std::uint32_t>(DurationBuckets::of(duration));
        ++name.durations.at(bin * 256 + bucket).count;
    }
    std::int64_t& until =
        coveredUntil_.try_emplace(std::uint64_t{event.source} << 32 | place, event.start)
            .first->second;
    const std::int64_t from = std::max(until, event.start);
    until = std::max(until, end);
    if (end > from)
        bins_.forEach(from, saturatingSubtract(end, from), [&](std::uint32_t bin, std::int64_t t) {
            addSaturating(name.cells.at(bin).total, t);
        });
}

void NameTimes::give(std::uint32_t place, std::int64_t from, std::int64_t nanoseconds) {
    bins_.forEach(from, nanoseconds, [&](std::uint32_t bin, std::int64_t time) {
        addSaturating(names_[place].cells.at(bin).self, time);
    });
}

std::vector<NameTime> NameTimes::widest(std::size_t mostNames, std::size_t mostValues) && {
    std::ranges::stable_sort(names_, std::greater<>(), selfOf);
    std::size_t kept = 0;
    for (std::size_t values = 0; kept < std::min(names_.size(), mostNames); ++kept)
        if ((values += names_[kept].size()) > mostValues)
            break;
    if (kept == names_.size())
        return std::move(names_);
    NameTime others;
    for (std::size_t i = kept; i < names_.size(); ++i)
        others.add(names_[i]);
    names_.resize(kept);
    names_.push_back(std::move(others));
    return std::move(names_);
}

}  // namespace instrument::detail
