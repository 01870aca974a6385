// Arithmetic on times that may be anything, since other processes send them.
#pragma once

#include <cstdint>

namespace instrument::detail {

/// The sum, or the end of the range that it lies beyond.
inline std::int64_t saturatingAdd(std::int64_t a, std::int64_t b) noexcept {
    std::int64_t sum;
    if (__builtin_add_overflow(a, b, &sum))
        return b < 0 ? INT64_MIN : INT64_MAX;
    return sum;
}

/// The same to a sum that grows.
inline void addSaturating(std::int64_t& sum, std::int64_t more) noexcept {
    sum = saturatingAdd(sum, more);
}

inline std::int64_t saturatingSubtract(std::int64_t a, std::int64_t b) noexcept {
    std::int64_t difference;
    if (__builtin_sub_overflow(a, b, &difference))
        return b < 0 ? INT64_MAX : INT64_MIN;
    return difference;
}

}  // namespace instrument::detail
