// Where ticks come from, and their conversion to nanoseconds of the monotonic clock.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>

#include "zandor/instrument/export.hpp"
#include "zandor/instrument/lock.hpp"

#if defined(__x86_64__)
#include <x86intrin.h>
#endif

namespace instrument::detail {

__extension__ using Uint128 = unsigned __int128;

/// The clocks, behind a seam for tests.
struct ClockSource {
    std::uint64_t (*readTicks)() noexcept;
    std::int64_t (*readMonotonic)() noexcept;
    /// Whether ticks are a counter of their own; else they are nanoseconds of the monotonic clock.
    bool ticksAreTsc;
};

/// Converts ticks by straight lines between knots (ticks, nanoseconds). Knots are only ever added,
/// beyond the last one, so what was converted once is converted the same again; a knot may lie a
/// little ahead of the present, so that their number grows with the logarithm of the time alone.
class ZANDOR_INSTRUMENT_API TickConverter {
  public:
    constexpr TickConverter() noexcept = default;
    TickConverter(const TickConverter&) = delete;
    TickConverter& operator=(const TickConverter&) = delete;

    struct Knot {
        std::uint64_t ticks = 0;
        std::int64_t nanoseconds = 0;
        std::uint64_t slope = 0;  ///< of the line that ends here; nanoseconds a tick times 2^58
    };
    /// The line from one knot to the next. Ticks before `from` are at its time.
    struct Line {
        Knot from;
        Knot to;
        bool covers(std::uint64_t ticks) const noexcept {
            return ticks > from.ticks && ticks <= to.ticks;
        }
        std::int64_t at(std::uint64_t ticks) const noexcept;
        /// The same of ticks that it covers.
        std::int64_t atCovered(std::uint64_t ticks) const noexcept {
            const auto product = static_cast<Uint128>(ticks - from.ticks) * to.slope;
            return from.nanoseconds + static_cast<std::int64_t>(product >> 58);
        }
    };

    /// Takes the first pair. From one thread, before anything else.
    void start(const ClockSource& source) noexcept;
    /// The line that covers `ticks`; for ticks up to the first knot one that is the first knot
    /// only. `lock` is taken when a knot has to be added.
    Line lineFor(std::uint64_t ticks, Lock& lock) noexcept;
    std::uint32_t knotCount() const noexcept { return count_.load(std::memory_order_acquire); }
    const Knot& knot(std::uint32_t index) const noexcept;
    /// The present moment by both clocks.
    Knot measure() const noexcept;
    /// Of the line between two knots.
    static std::uint64_t slopeBetween(const Knot& from, const Knot& to) noexcept;

  private:
    static constexpr std::uint32_t firstBlock = 256;
    static constexpr std::uint32_t blockCount = 24;

    /// Two measured pairs, the older of which rates are taken from.
    struct Baseline {
        Knot older;
        Knot newer;
    };

    double rateAt(const Knot& now) noexcept;
    void extend(std::uint64_t ticks) noexcept;
    bool append(Knot next) noexcept;

    const ClockSource* source_ = nullptr;
    // What is appended under the lock is released with the count, which readers acquire. Relaxed
    // under the lock.
    std::atomic<std::uint32_t> count_{0};
    std::atomic<Knot*> blocks_[blockCount]{};
    Baseline baselines_[2]{};
    /// Read and written under the lock: relaxed. Its release keeps the order in which a fork, by
    /// which a child acquires its copy, may cut in.
    std::atomic<int> baseline_{0};
};

/// Converts many ticks that are mostly in order, as a recording's are.
class ZANDOR_INSTRUMENT_API TickReader {
  public:
    /// Whether these convert at once.
    bool covers(std::uint64_t ticks) const noexcept { return line_.covers(ticks); }
    std::int64_t operator()(std::uint64_t ticks) noexcept {
        if (covers(ticks)) [[likely]]
            return line_.atCovered(ticks);
        find(ticks);
        return line_.at(ticks);
    }

  private:
    void find(std::uint64_t ticks) noexcept;
    TickConverter::Line line_{};
};

/// The process's own converter; it has a knot.
ZANDOR_INSTRUMENT_API const TickConverter& tickConverter() noexcept;

/// Has the process read another clock; null gives back the first. For tests, while nothing else
/// reads it.
ZANDOR_INSTRUMENT_API void replaceClockSource(const ClockSource* source) noexcept;

/// Another one for each replacement. Relaxed: clocks are replaced while no event happens.
extern constinit std::atomic<std::uint32_t> clockNumber;

enum class ClockKind : std::uint8_t { undecided, tsc, other };
/// Relaxed: whoever sees it undecided decides, with the same result.
extern constinit std::atomic<ClockKind> clockKind;
std::uint64_t readTicksSlowly() noexcept;

/// Whether readTsc reads the clock.
inline bool ticksAreTsc() noexcept {
    return clockKind.load(std::memory_order_relaxed) == ClockKind::tsc;
}

inline std::uint64_t readTsc() noexcept {
#if defined(__x86_64__)
    return __rdtsc();
#else
    return readTicksSlowly();
#endif
}

inline std::uint64_t readTicks() noexcept {
    return ticksAreTsc() ? readTsc() : readTicksSlowly();
}

inline std::int64_t TickConverter::Line::at(std::uint64_t ticks) const noexcept {
    if (ticks <= from.ticks)
        return from.nanoseconds;
    return std::min(atCovered(ticks), to.nanoseconds);
}

}  // namespace instrument::detail
