#include "clock.hpp"

#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#if defined(__x86_64__)
#include <cpuid.h>
#endif

namespace zandor::client {

std::uint64_t monotonicTicks() noexcept {
    return static_cast<std::uint64_t>(monotonicNow());
}

#if defined(__x86_64__)
namespace {

bool kernelUsesTsc() noexcept {
    const int file = open("/sys/devices/system/clocksource/clocksource0/current_clocksource",
                          O_RDONLY | O_CLOEXEC);
    if (file < 0)
        return false;
    char text[8] = {};
    const ssize_t length = read(file, text, sizeof text - 1);
    close(file);
    return length >= 4 && memcmp(text, "tsc\n", 4) == 0;
}

bool tscIsInvariant() noexcept {
    constexpr unsigned leaf = 0x80000007;
    constexpr unsigned invariantBit = 1u << 8;
    unsigned a = 0, b = 0, c = 0, d = 0;
    return __get_cpuid(leaf, &a, &b, &c, &d) && (d & invariantBit);
}

}  // namespace

wire::Clock findClock() noexcept {
    return kernelUsesTsc() && tscIsInvariant() ? wire::Clock::tsc : wire::Clock::monotonic;
}
#else
wire::Clock findClock() noexcept {
    return wire::Clock::monotonic;
}
#endif

}  // namespace zandor::client
