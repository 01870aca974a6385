// The clock of events: the processor's counter where the kernel keeps its time by it, since a
// system call or the kernel's page for it costs several times more.
#pragma once

#include <time.h>

#include <cstdint>

#include "zandor/client/wire.hpp"

#if defined(__x86_64__)
#include <x86intrin.h>
#endif

namespace zandor::client {

/// Which of the two it is on this machine. Reads a file of the kernel's: once, where a client
/// opens.
wire::Clock findClock() noexcept;

/// Nanoseconds of the monotonic clock.
inline std::int64_t monotonicNow() noexcept {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<std::int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

/// The same, apart from the other clock's fast way.
std::uint64_t monotonicTicks() noexcept;

inline std::uint64_t readTicks(wire::Clock clock) noexcept {
#if defined(__x86_64__)
    if (clock == wire::Clock::tsc) [[likely]]
        return __rdtsc();
#else
    static_cast<void>(clock);
#endif
    return monotonicTicks();
}

}  // namespace zandor::client
