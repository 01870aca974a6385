// The times of records in nanoseconds of the monotonic clock.
#pragma once

#include <cstdint>

#include "clock_source.hpp"
#include "recorder_record.hpp"

namespace instrument::detail {

class TimeReader {
  public:
    std::int64_t of(const Record& record) noexcept {
        return record.timed ? static_cast<std::int64_t>(record.time) : ticks_(record.time);
    }
    std::int64_t of(const ShortEdge& edge) noexcept { return ticks_(edge.ticks); }

  private:
    TickReader ticks_;
};

}  // namespace instrument::detail
