// Durations that one thread counts while others read.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "zandor/instrument/duration_buckets.hpp"

namespace instrument::detail {

/// Written by one thread, read by others.
class DurationHistogram {
  public:
    /// Relaxed, as all of the class: whoever has to see a duration learned of its event otherwise.
    void add(std::int64_t nanoseconds) noexcept {
        std::atomic<std::uint64_t>& bucket = buckets_[DurationBuckets::of(nanoseconds)];
        bucket.store(bucket.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
    void addTo(DurationSums& sums) const noexcept {
        for (std::size_t bucket = 0; bucket < buckets_.size(); ++bucket)
            sums.add(bucket, buckets_[bucket].load(std::memory_order_relaxed));
    }

  private:
    std::array<std::atomic<std::uint64_t>, DurationBuckets::count> buckets_;
};

}  // namespace instrument::detail
