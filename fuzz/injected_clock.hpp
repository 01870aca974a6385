// The process's monotonic clock, which runs ahead of the system's where something waits: nobody
// sleeps. For one file of a program: it replaces what the program and all its libraries call.
#pragma once

#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>

namespace injected_clock {

inline std::atomic<std::int64_t> ahead{0};  // nanoseconds

inline void pass(const timespec& time) noexcept {
    ahead += time.tv_sec * 1'000'000'000 + time.tv_nsec;
}

}  // namespace injected_clock

extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t clock,
                                                                    timespec* time) noexcept {
    const long failed = syscall(SYS_clock_gettime, clock, time);
    if (failed == 0 && clock == CLOCK_MONOTONIC) {
        const std::int64_t late = time->tv_nsec + injected_clock::ahead;
        time->tv_sec += late / 1'000'000'000;
        time->tv_nsec = late % 1'000'000'000;
    }
    return static_cast<int>(failed);
}

extern "C" __attribute__((visibility("default"))) int nanosleep(const timespec* time, timespec*) {
    injected_clock::pass(*time);
    return 0;
}

extern "C" __attribute__((visibility("default"))) int clock_nanosleep(clockid_t, int,
                                                                      const timespec* time,
                                                                      timespec*) {
    injected_clock::pass(*time);
    return 0;
}
