// Durations counted in buckets, four to each power of two: log-linear.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

namespace instrument::detail {

class DurationBuckets {
  public:
    static constexpr unsigned subBits = 2;
    static constexpr unsigned largestPower = 41;  // over half an hour, and all that is longer
    static constexpr std::size_t count = (largestPower - subBits + 2) << subBits;

    static constexpr std::size_t of(std::int64_t nanoseconds) noexcept {
        constexpr std::uint64_t first = 1u << subBits;
        constexpr std::uint64_t end = std::uint64_t{1} << (largestPower + 1);
        const auto value = static_cast<std::uint64_t>(nanoseconds);
        if (value - first >= end - first) [[unlikely]]
            return nanoseconds < 0 ? 0 : value < first ? value : count - 1;
        // A real number has the power and what follows the first bit side by side.
        constexpr unsigned mantissaBits = 52;
        constexpr std::uint64_t exponentOfOne = 1023;
        const auto bits = std::bit_cast<std::uint64_t>(static_cast<double>(nanoseconds));
        return (bits >> (mantissaBits - subBits)) - ((exponentOfOne + subBits - 1) << subBits);
    }
    /// The shortest duration of a bucket.
    static constexpr std::int64_t lowest(std::size_t bucket) noexcept {
        if (bucket >> subBits == 0)
            return static_cast<std::int64_t>(bucket);
        const std::size_t shift = (bucket >> subBits) - 1;
        return static_cast<std::int64_t>(((bucket & ((1u << subBits) - 1)) + (1u << subBits))
                                         << shift);
    }
    static constexpr std::int64_t middle(std::size_t bucket) noexcept {
        const std::size_t width =
            bucket >> subBits == 0 ? 0 : std::size_t{1} << ((bucket >> subBits) - 1);
        return lowest(bucket) + static_cast<std::int64_t>(width >> 1);
    }
};
static_assert(DurationBuckets::of(INT64_MAX) == DurationBuckets::count - 1);
static_assert(DurationBuckets::of(DurationBuckets::lowest(17)) == 17 &&
              DurationBuckets::of(DurationBuckets::lowest(17) - 1) == 16);

/// How many durations fell into each bucket.
class DurationSums {
  public:
    void add(std::int64_t nanoseconds) noexcept { ++sums_[DurationBuckets::of(nanoseconds)]; }
    void add(std::size_t bucket, std::uint64_t count) noexcept { sums_[bucket] += count; }
    /// The duration that this share of them keeps to.
    std::int64_t quantile(double share) const noexcept {
        std::uint64_t all = 0;
        for (const std::uint64_t sum : sums_)
            all += sum;
        const auto rank = static_cast<std::uint64_t>(share * static_cast<double>(all));
        std::uint64_t below = 0;
        for (std::size_t bucket = 0; bucket < sums_.size(); ++bucket)
            if ((below += sums_[bucket]) > rank)
                return DurationBuckets::middle(bucket);
        return 0;
    }

  private:
    std::array<std::uint64_t, DurationBuckets::count> sums_{};
};

}  // namespace instrument::detail
