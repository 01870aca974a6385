// The performance library's clock: the monotonic one of the system, at three resolutions.
#pragma once

#include <chrono>

#include "zandor/performance/export.hpp"

namespace Performance {

// Readings of one clock, truncated; from any thread. They never decrease.
ZANDOR_PERFORMANCE_API std::chrono::nanoseconds GetNanosecondTimer() noexcept;
ZANDOR_PERFORMANCE_API std::chrono::microseconds GetMicrosecondTimer() noexcept;
ZANDOR_PERFORMANCE_API std::chrono::milliseconds GetMillisecondTimer() noexcept;

}  // namespace Performance
