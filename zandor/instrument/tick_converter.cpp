#include <algorithm>
#include <bit>

#include "clock_source.hpp"
#include "zandor/instrument/fork_private.hpp"

namespace instrument::detail {
namespace {

constexpr std::uint32_t blockOf(std::uint32_t index, std::uint32_t first) noexcept {
    return static_cast<std::uint32_t>(std::bit_width(index / first + 1) - 1);
}

}  // namespace

std::uint64_t TickConverter::slopeBetween(const Knot& from, const Knot& to) noexcept {
    const auto rise =
        static_cast<Uint128>(static_cast<std::uint64_t>(to.nanoseconds - from.nanoseconds));
    const Uint128 slope = (rise << 58) / (to.ticks - from.ticks);
    return static_cast<std::uint64_t>(std::min(slope, static_cast<Uint128>(~0ull)));
}

const TickConverter::Knot& TickConverter::knot(std::uint32_t index) const noexcept {
    const std::uint32_t block = blockOf(index, firstBlock);
    // Pairs with the release in append.
    return blocks_[block].load(std::memory_order_acquire)[index - firstBlock * ((1u << block) - 1)];
}

// The pair whose reading was disturbed least.
TickConverter::Knot TickConverter::measure() const noexcept {
    Knot best;
    std::uint64_t narrowest = ~std::uint64_t{0};
    for (int i = 0; i < 4; ++i) {
        const std::uint64_t before = source_->readTicks();
        const std::int64_t time = source_->readMonotonic();
        const std::uint64_t width = source_->readTicks() - before;
        if (width < narrowest) {
            narrowest = width;
            best = {before + width / 2, time, 0};
        }
    }
    return best;
}

bool TickConverter::append(Knot next) noexcept {
    const std::uint32_t index = count_.load(std::memory_order_relaxed);
    const std::uint32_t block = blockOf(index, firstBlock);
    if (block >= blockCount)
        return false;
    Knot* knots = blocks_[block].load(std::memory_order_relaxed);
    if (!knots) {
        knots = static_cast<Knot*>(mapMemory((std::size_t{firstBlock} << block) * sizeof(Knot)));
        if (!knots)
            return false;
        blocks_[block].store(knots, std::memory_order_release);
    }
    if (index > 0)
        next.slope = slopeBetween(knot(index - 1), next);
    knots[index - firstBlock * ((1u << block) - 1)] = next;
    // Pairs with the acquire in lineFor.
    count_.store(index + 1, std::memory_order_release);
    return true;
}

void TickConverter::start(const ClockSource& source) noexcept {
    source_ = &source;
    const Knot first = measure();
    baselines_[0] = {first, first};
    baseline_.store(0, std::memory_order_relaxed);
    count_.store(0, std::memory_order_relaxed);
    append(first);
}

// Nanoseconds a tick, from a pair that is not too old and not too near. The pairs are replaced in
// the other of two places, so that a fork meanwhile leaves them whole.
double TickConverter::rateAt(const Knot& now) noexcept {
    constexpr double perTick = 1.0;
    const int place = baseline_.load(std::memory_order_relaxed);
    const Baseline& known = baselines_[place];
    const std::int64_t elapsed = now.nanoseconds - knot(0).nanoseconds;
    if (now.nanoseconds - known.newer.nanoseconds > elapsed / 64) {
        baselines_[1 - place] = {known.newer, now};
        baseline_.store(1 - place, std::memory_order_release);
    }
    const Knot& older = baselines_[baseline_.load(std::memory_order_relaxed)].older;
    if (now.ticks <= older.ticks)
        return perTick;
    return static_cast<double>(now.nanoseconds - older.nanoseconds) /
           static_cast<double>(now.ticks - older.ticks);
}

// In the first moments, when no rate is known well, each knot is a measured pair. Later ones lie
// ahead of the present by a fraction of the time that has gone by, foretold by the latest rate.
void TickConverter::extend(std::uint64_t ticks) noexcept {
    constexpr std::int64_t firstMoments = 2'000'000;
    constexpr double shortest = 1e6;
    constexpr double fraction = 4096;
    const Knot last = knot(count_.load(std::memory_order_relaxed) - 1);
    if (ticks <= last.ticks)
        return;
    const Knot now = measure();
    const double rate = rateAt(now);
    const std::int64_t elapsed = now.nanoseconds - knot(0).nanoseconds;
    std::uint64_t target = std::max(ticks, now.ticks);
    if (elapsed > firstMoments && rate > 0) {
        const double ahead = std::max(shortest, static_cast<double>(elapsed) / fraction) / rate;
        target = std::max(target, last.ticks + static_cast<std::uint64_t>(ahead));
    }
    // Where the counter went back, nothing is known of ticks ahead but that time does not go back.
    const double foretold =
        static_cast<double>(static_cast<std::int64_t>(target - now.ticks)) * rate;
    const std::int64_t time = now.nanoseconds + static_cast<std::int64_t>(foretold);
    append({target, std::max(time, last.nanoseconds), 0});
}

TickConverter::Line TickConverter::lineFor(std::uint64_t ticks, Lock& lock) noexcept {
    std::uint32_t count = knotCount();
    if (ticks > knot(count - 1).ticks) {
        const Locked locked(lock);
        extend(ticks);
        count = knotCount();
    }
    // The first knot at or behind the ticks.
    std::uint32_t low = 0;
    std::uint32_t high = count - 1;
    while (low < high) {
        const std::uint32_t middle = low + (high - low) / 2;
        if (knot(middle).ticks < ticks)
            low = middle + 1;
        else
            high = middle;
    }
    return {knot(low > 0 ? low - 1 : 0), knot(low)};
}

}  // namespace instrument::detail
