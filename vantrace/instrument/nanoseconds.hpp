// Nanosecond counts as the host's users see them, and back.
#pragma once

#include <cstdint>
#include <limits>

namespace vantrace {

constexpr double nanosecondsPerSecond = 1e9;

/// Truncated toward zero. What has no count, NaN included, is the smallest one.
constexpr std::int64_t toCount(double nanoseconds) noexcept {
    if (nanoseconds >= -0x1p63 && nanoseconds < 0x1p63)
        return static_cast<std::int64_t>(nanoseconds);
    return std::numeric_limits<std::int64_t>::min();
}

constexpr double toSeconds(std::int64_t nanoseconds) noexcept {
    return static_cast<double>(nanoseconds) / nanosecondsPerSecond;
}

}  // namespace vantrace
