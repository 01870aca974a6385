#include "context_times.hpp"

#include <algorithm>
#include <functional>

#include "context_text.hpp"

namespace instrument::detail {

namespace {

std::int64_t totalOf(const ContextValueTimes& value) noexcept {
    std::int64_t total = 0;
    for (const auto& [bin, cell] : value.cells.entries())
        total = saturatingAdd(total, cell.total);
    return total;
}

/// The widest so many values, and one for the others.
void trimValues(std::vector<ContextValueTimes>& values, std::size_t most) {
    std::ranges::stable_sort(values, std::greater<>(), [](const ContextValueTimes& value) {
        return value.standsForOthers ? INT64_MIN : totalOf(value);
    });
    if (values.size() <= most)
        return;
    ContextValueTimes others{{}, true, {}};
    for (std::size_t i = most; i < values.size(); ++i)
        others.cells.add(values[i].cells);
    values.resize(most);
    values.push_back(std::move(others));
}

}  // namespace

std::int64_t ContextTimes::total() const noexcept {
    std::int64_t total = 0;
    for (const ContextValueTimes& value : values)
        total = saturatingAdd(total, totalOf(value));
    return total;
}

std::size_t ContextTimes::size() const noexcept {
    std::size_t size = 0;
    for (const ContextValueTimes& value : values)
        size += value.cells.size();
    return size;
}

void ContextTimesByName::count(const RecordedEvent& event) {
    for (const ContextArg& arg : event.context) {
        ContextTimes& times = timesOf(event.instrument, arg.name);
        ContextValueTimes& value = valueOf(times, ValueText(arg.value).view());
        value.cells.at(bins_.of(event.start)).add({1, saturatingSubtract(event.stop, event.start)});
    }
}

ContextTimes& ContextTimesByName::timesOf(const Opaque* instrument, std::string_view key) {
    sought_.assign(std::to_string(instrument->id)).append(1, '\0').append(key);
    const auto [place, isNew] = places_.try_emplace(sought_, times_.size());
    if (isNew)
        times_.push_back({instrument, std::string(key), {}});
    return times_[place->second];
}

/// After timesOf.
ContextValueTimes& ContextTimesByName::valueOf(ContextTimes& times, std::string_view value) {
    sought_.append(1, '\0').append(value);
    if (const auto known = valuePlaces_.find(sought_); known != valuePlaces_.end())
        return times.values[known->second];
    if (times.values.size() > mostValuesKnown)
        return times.values.back();
    const bool isLast = times.values.size() == mostValuesKnown;
    times.values.push_back({isLast ? std::string() : std::string(value), isLast, {}});
    if (!isLast)
        valuePlaces_.emplace(sought_, times.values.size() - 1);
    return times.values.back();
}

std::vector<ContextTimes> ContextTimesByName::widest(std::size_t mostValues,
                                                     std::size_t mostCells) && {
    for (ContextTimes& times : times_)
        trimValues(times.values, mostValues);
    std::ranges::stable_sort(times_, std::greater<>(), &ContextTimes::total);
    std::size_t kept = 0;
    for (std::size_t cells = 0; kept < times_.size(); ++kept)
        if ((cells += times_[kept].size()) > mostCells)
            break;
    times_.resize(kept);
    return std::move(times_);
}

}  // namespace instrument::detail
