// Times as viewers compute with them: parsed to doubles and added.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "zandor/instrument/export.hpp"

namespace instrument::detail {

/// A stretch of a trace, in its steps.
struct TraceSpan {
    std::int64_t start = 0;
    std::int64_t end = 0;
};

/// Finds ends that keep apart what is apart for traces so long that the sum of two parsed times
/// may be off by a nanosecond. Viewers add `ts` and `dur` as they are, or `ts` from the first event
/// of the thread on: both must nest.
class ZANDOR_INSTRUMENT_API TraceDoubles {
  public:
    TraceDoubles(std::size_t sources, std::int64_t latest);

    /// From this time (nanoseconds) on sums need care: four roundings reach a nanosecond.
    static constexpr std::int64_t careFrom = (std::int64_t{1} << 41) * 1000;
    /// Starts so close behind an end (nanoseconds) may meet it.
    std::int64_t slack() const noexcept { return slack_; }

    /// The latest end up to `span.end` with which the event lasts, ends before `parent` does, and
    /// before `meets`; its start where there is none.
    std::int64_t fittingEnd(std::uint32_t source, TraceSpan span, std::optional<std::int64_t> meets,
                            const TraceSpan* parent);

  private:
    std::vector<double> firstStarts_;  // by source; NaN before its first complete event
    std::int64_t slack_;
};

}  // namespace instrument::detail
