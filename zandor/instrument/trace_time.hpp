// How instants of the monotonic clock stand in a trace.
#pragma once

#include <algorithm>
#include <cstdint>

#include "zandor/instrument/event_stream.hpp"
#include "zandor/instrument/exports.hpp"
#include "zandor/instrument/saturating.hpp"

namespace instrument::detail {

/// Times of a trace are whole steps: nanoseconds since the origin (which stands at 1 us), or
/// in UTC the finest steps whose multiples a double holds as microseconds, 250 ns for this
/// century's first decades.
class ZANDOR_INSTRUMENT_API TraceTime {
  public:
    /// Looks at where the stream begins.
    TraceTime(EventStream& stream, TimeSystem timeSystem);

    /// The step that an instant lies in. Later instants never give earlier steps.
    std::int64_t at(std::int64_t nanoseconds) const noexcept {
        const std::int64_t shown = std::max(saturatingAdd(nanoseconds, shift_), lowest_);
        return step_ == 1 ? shown : shown / step_ - (shown % step_ < 0);
    }
    /// Whether two instants, the earlier first, lie in the same step.
    bool isSameStep(std::int64_t earlier, std::int64_t later) const noexcept {
        return saturatingSubtract(later, earlier) < step_ && at(earlier) == at(later);
    }
    /// What the trace tells for so many steps.
    std::int64_t nanoseconds(std::int64_t steps) const noexcept { return steps * step_; }
    std::int64_t step() const noexcept { return step_; }

    /// The instant that stands at 1 us, by both clocks.
    std::int64_t originMonotonic() const noexcept { return origin_; }
    std::int64_t originUtc() const noexcept { return originUtc_; }
    /// UTC nanoseconds of an instant, to the nanosecond.
    std::int64_t utc(std::int64_t nanoseconds) const noexcept {
        return saturatingAdd(nanoseconds, saturatingSubtract(originUtc_, origin_));
    }

  private:
    std::int64_t origin_;
    std::int64_t originUtc_;
    std::int64_t shift_;
    std::int64_t lowest_;
    std::int64_t step_ = 1;
};

}  // namespace instrument::detail
