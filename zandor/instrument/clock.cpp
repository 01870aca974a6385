#include "zandor/instrument/clock.hpp"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <string_view>

#include "clock_source.hpp"
#include "process_state.hpp"
#include "short_lane.hpp"
#include "zandor/instrument/tick_conversion.hpp"

#if defined(__x86_64__)
#include <cpuid.h>
#endif

namespace instrument {
namespace detail {
namespace {

std::int64_t read(clockid_t clock) noexcept {
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<std::int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

std::int64_t readMonotonic() noexcept {
    return read(CLOCK_MONOTONIC);
}

std::uint64_t monotonicTicks() noexcept {
    return static_cast<std::uint64_t>(readMonotonic());
}

constexpr ClockSource monotonicSource{monotonicTicks, readMonotonic, false};

#if defined(__x86_64__)
constexpr ClockSource tscSource{readTsc, readMonotonic, true};

bool kernelUsesTsc() noexcept {
    const int file = open("/sys/devices/system/clocksource/clocksource0/current_clocksource",
                          O_RDONLY | O_CLOEXEC);
    if (file < 0)
        return false;
    char text[16] = {};
    const ssize_t length = ::read(file, text, sizeof text - 1);
    close(file);
    return length > 0 && std::string_view(text).starts_with("tsc\n");
}

bool tscIsInvariant() noexcept {
    unsigned a = 0, b = 0, c = 0, d = 0;
    return __get_cpuid(0x80000007, &a, &b, &c, &d) && (d & 1u << 8);
}

const ClockSource& bestSource() noexcept {
    return kernelUsesTsc() && tscIsInvariant() ? tscSource : monotonicSource;
}
#else
const ClockSource& bestSource() noexcept {
    return monotonicSource;
}
#endif

// Released by install, acquired by who reads a clock: the converter has its first knot. Relaxed
// under the clock's lock.
constinit std::atomic<const ClockSource*> source{nullptr};
constinit TickConverter converter;

void install(const ClockSource& chosen) noexcept {
    converter.start(chosen);
    // Release pairs with the acquire in currentSource: the converter has its first knot.
    source.store(&chosen, std::memory_order_release);
    const bool byTsc = chosen.ticksAreTsc && chosen.readTicks == bestSource().readTicks;
    clockKind.store(byTsc ? ClockKind::tsc : ClockKind::other, std::memory_order_relaxed);
}

const ClockSource& currentSource() noexcept {
    if (const ClockSource* known = source.load(std::memory_order_acquire))
        return *known;
    const Locked locked(processState().clock);
    if (!source.load(std::memory_order_relaxed))
        install(bestSource());
    return *source.load(std::memory_order_relaxed);
}

// When the library starts, so that every event lies behind the first knot.
[[maybe_unused]] const ClockSource& started = currentSource();

}  // namespace

constinit std::atomic<ClockKind> clockKind{ClockKind::undecided};
constinit std::atomic<std::uint32_t> clockNumber{0};

std::uint64_t readTicksSlowly() noexcept {
    return currentSource().readTicks();
}

const TickConverter& tickConverter() noexcept {
    currentSource();
    return converter;
}

void replaceClockSource(const ClockSource* replacement) noexcept {
    const Locked locked(processState().clock);
    install(replacement ? *replacement : bestSource());
    clockNumber.fetch_add(1, std::memory_order_relaxed);
    outdateLanes();
}

void TickReader::find(std::uint64_t ticks) noexcept {
    if (currentSource().ticksAreTsc) {
        line_ = converter.lineFor(ticks, processState().clock);
        return;
    }
    // Ticks are nanoseconds: a line of slope one through them.
    constexpr std::uint64_t one = std::uint64_t{1} << 58;
    const auto time = static_cast<std::int64_t>(ticks);
    line_ = {{ticks - 1, time - 1, 0}, {ticks, time, one}};
}

}  // namespace detail

namespace clock {

std::uint64_t ticks() noexcept {
    return detail::readTicks();
}

std::int64_t toNanoseconds(std::uint64_t ticks) {
    return detail::TickReader()(ticks);
}

TickConversion::TickConversion() : reader_(std::make_unique<detail::TickReader>()) {}
TickConversion::~TickConversion() = default;
TickConversion::TickConversion(TickConversion&&) noexcept = default;
TickConversion& TickConversion::operator=(TickConversion&&) noexcept = default;

std::int64_t TickConversion::operator()(std::uint64_t ticks) const noexcept {
    return (*reader_)(ticks);
}

std::int64_t now() noexcept {
    return detail::currentSource().readMonotonic();
}

std::int64_t utcNow() noexcept {
    return detail::read(CLOCK_REALTIME);
}

const char* name() noexcept {
    return detail::currentSource().ticksAreTsc ? "tsc" : "monotonic";
}

}  // namespace clock
}  // namespace instrument
