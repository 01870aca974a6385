// How the time of each name breaks down by what its context says: "time of `solve` by `n`".
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "event_stream.hpp"
#include "time_bins.hpp"

namespace instrument::detail {

struct ContextCell {
    std::int64_t calls = 0;  ///< complete events that start here
    std::int64_t total = 0;  ///< nanoseconds of those, wherever they pass

    void add(const ContextCell& other) noexcept {
        calls += other.calls;
        total = saturatingAdd(total, other.total);
    }
};

struct ContextValueTimes {
    std::string value;
    bool standsForOthers = false;
    SparseValues<ContextCell> cells;
};

struct ContextTimes {
    const Opaque* instrument = nullptr;
    std::string key;
    std::vector<ContextValueTimes> values;

    std::int64_t total() const noexcept;
    std::size_t size() const noexcept;
};

class ZANDOR_INSTRUMENT_API ContextTimesByName {
  public:
    explicit ContextTimesByName(TimeBins bins) : bins_(bins) {}

    /// An event that is complete.
    void count(const RecordedEvent& event);

    /// Widest first, each with its widest values; the last value stands for all others. As many as
    /// have together at most so many cells.
    std::vector<ContextTimes> widest(std::size_t mostValues, std::size_t mostCells) &&;

  private:
    ContextTimes& timesOf(const Opaque* instrument, std::string_view key);
    ContextValueTimes& valueOf(ContextTimes& times, std::string_view value);

    /// The widest of very many values are not worth knowing.
    static constexpr std::size_t mostValuesKnown = 1000;

    TimeBins bins_;
    std::vector<ContextTimes> times_;
    std::unordered_map<std::string, std::size_t> places_;       // by instrument and key
    std::unordered_map<std::string, std::size_t> valuePlaces_;  // and value
    std::string sought_;                                        // kept for its memory
};

}  // namespace instrument::detail
