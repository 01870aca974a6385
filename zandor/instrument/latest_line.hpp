// What a thread converted its latest event's ticks by.
#pragma once

#include <atomic>
#include <cstdint>

#include "clock_source.hpp"

namespace instrument::detail {

/// Events are told of inside listeners only, where those of a signal handler are not delivered:
/// none finds it half changed.
class LatestLine {
  public:
    std::int64_t timeOf(std::uint64_t ticks) noexcept {
        // Relaxed: clocks are replaced while no event happens.
        const std::uint32_t number = clockNumber.load(std::memory_order_relaxed);
        if (number_ != number) [[unlikely]]
            *this = LatestLine(number);
        return reader_(ticks);
    }

    constexpr LatestLine() noexcept = default;

  private:
    explicit LatestLine(std::uint32_t number) noexcept : number_(number) {}

    std::uint32_t number_ = 0;
    TickReader reader_;
};

extern constinit thread_local LatestLine latestLine;

}  // namespace instrument::detail
