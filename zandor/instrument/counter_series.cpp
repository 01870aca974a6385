#include "counter_series.hpp"

#include <cmath>
#include <functional>
#include <optional>

namespace instrument::detail {

namespace {

std::optional<double> numberOf(const ContextValue& value) {
    switch (value.kind()) {
        case ContextValue::Kind::signedInteger:
            return static_cast<double>(value.signedInteger());
        case ContextValue::Kind::unsignedInteger:
            return static_cast<double>(value.unsignedInteger());
        case ContextValue::Kind::real:
            return std::isfinite(value.real()) ? std::optional(value.real()) : std::nullopt;
        default:
            return std::nullopt;
    }
}

}  // namespace

void CounterSeriesByName::count(const RecordedPoint& point) {
    if (point.type != EventPointType::instant)
        return;
    bool hasNumbers = false;
    for (const ContextArg& arg : point.context) {
        const std::optional<double> number = numberOf(arg.value);
        if (!number)
            continue;
        add(seriesOf(point.instrument, arg.name, true), point.time, *number);
        hasNumbers = true;
    }
    if (!hasNumbers)
        add(seriesOf(point.instrument, {}, false), point.time, 0);
}

CounterSeries& CounterSeriesByName::seriesOf(const Opaque* instrument, std::string_view key,
                                             bool hasValues) {
    const std::string sought = (hasValues ? "=" : "") + std::string(key);
    const auto [place, isNew] = places_.try_emplace({instrument->id, sought}, series_.size());
    if (isNew)
        series_.push_back({instrument, std::string(key), hasValues, 0, {}});
    return series_[place->second];
}

void CounterSeriesByName::add(CounterSeries& series, std::int64_t time, double value) {
    ++series.count;
    series.cells.at(bins_.of(time)).add(value);
}

std::vector<CounterSeries> CounterSeriesByName::most(std::size_t mostSeries,
                                                     std::size_t mostCells) && {
    std::ranges::stable_sort(series_, std::greater<>(), &CounterSeries::count);
    std::size_t kept = 0;
    for (std::size_t cells = 0; kept < std::min(series_.size(), mostSeries); ++kept)
        if ((cells += series_[kept].cells.size()) > mostCells)
            break;
    series_.resize(kept);
    return std::move(series_);
}

}  // namespace instrument::detail
