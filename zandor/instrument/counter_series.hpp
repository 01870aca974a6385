// What instants count and measure over time.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "event_stream.hpp"
#include "time_bins.hpp"

namespace instrument::detail {

struct CounterCell {
    std::int64_t count = 0;
    double lowest = 0;
    double highest = 0;
    double last = 0;

    void add(double value) noexcept {
        lowest = count == 0 ? value : std::min(lowest, value);
        highest = count == 0 ? value : std::max(highest, value);
        last = value;
        ++count;
    }
};

/// Instants of one name: how many, or where they have a context entry that is a number, its values.
struct CounterSeries {
    const Opaque* instrument = nullptr;
    std::string key;
    bool hasValues = false;
    std::int64_t count = 0;
    SparseValues<CounterCell> cells;
};

class ZANDOR_INSTRUMENT_API CounterSeriesByName {
  public:
    explicit CounterSeriesByName(TimeBins bins) : bins_(bins) {}

    /// Points come in order of time; stops count nothing.
    void count(const RecordedPoint& point);

    /// Those of most instants first.
    std::vector<CounterSeries> most(std::size_t mostSeries, std::size_t mostCells) &&;

  private:
    CounterSeries& seriesOf(const Opaque* instrument, std::string_view key, bool hasValues);
    void add(CounterSeries& series, std::int64_t time, double value);

    TimeBins bins_;
    std::vector<CounterSeries> series_;
    std::map<std::pair<std::uint32_t, std::string>, std::size_t> places_;
};

}  // namespace instrument::detail
