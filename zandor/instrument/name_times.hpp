// When the time of each name passed, and how long its events took.
#pragma once

#include <algorithm>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "event_stream.hpp"
#include "saturating.hpp"
#include "time_bins.hpp"

namespace instrument::detail {

struct NameCell {
    std::int64_t calls = 0;    ///< complete events that start here
    std::int64_t total = 0;    ///< nanoseconds; an event inside one of its own name counts once
    std::int64_t self = 0;     ///< nanoseconds not covered by events nested in it
    std::int64_t longest = 0;  ///< nanoseconds, of those that start here

    void add(const NameCell& other) noexcept {
        calls += other.calls;
        addSaturating(total, other.total);
        addSaturating(self, other.self);
        longest = std::max(longest, other.longest);
    }
};

struct Tally {
    std::int64_t count = 0;

    void add(const Tally& other) noexcept { count += other.count; }
};

struct NameTime {
    const Opaque* instrument = nullptr;  ///< null: all other names
    SparseValues<NameCell> cells;
    /// Numbers of events by 256 times the bin, and the bucket of DurationBuckets.
    SparseValues<Tally> durations;

    std::size_t size() const noexcept { return cells.size() + durations.size(); }
    void add(const NameTime& other) {
        cells.add(other.cells);
        durations.add(other.durations);
    }
};

class ZANDOR_INSTRUMENT_API NameTimes {
  public:
    explicit NameTimes(TimeBins bins) : bins_(bins) {}

    std::uint32_t placeOf(const Opaque* instrument);
    /// Events of a source come by their start. One that is not `finished` lasts until `end`, and is
    /// no call.
    void count(std::uint32_t place, const RecordedEvent& event, std::int64_t end);
    void give(std::uint32_t place, std::int64_t from, std::int64_t nanoseconds);

    /// Widest self time first. The last stands for all that are too many: above so many names or
    /// values.
    std::vector<NameTime> widest(std::size_t mostNames, std::size_t mostValues) &&;

  private:
    TimeBins bins_;
    std::vector<NameTime> names_;
    std::vector<std::uint32_t> places_;                             // by the instrument's number
    std::unordered_map<std::uint64_t, std::int64_t> coveredUntil_;  // by source and name
};

}  // namespace instrument::detail
