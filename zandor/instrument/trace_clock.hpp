// Times of a process that a trace file tells of.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "clock_source.hpp"
#include "zandor/instrument/saturating.hpp"

namespace instrument::detail {

/// Converts ticks by lines between the pairs of clocks that the file has, as the process itself
/// does between its knots.
class TraceClock {
  public:
    void add(std::uint64_t ticks, std::int64_t nanoseconds) {
        if (nanoseconds >= 0)
            knots_.push_back({ticks, nanoseconds, 0});
    }
    /// Has ticks be nanoseconds.
    void countNanoseconds() noexcept { ticksAreNanoseconds_ = true; }
    /// To be said when all pairs are there.
    void prepare();
    std::int64_t operator()(std::uint64_t ticks) noexcept;

  private:
    using Knot = TickConverter::Knot;
    std::vector<Knot> knots_;
    bool ticksAreNanoseconds_ = false;
    std::size_t latest_ = 0;  ///< the knot behind the last ticks: others will be near
};

/// Keeps the pairs by which neither clock goes back.
inline void TraceClock::prepare() {
    std::stable_sort(knots_.begin(), knots_.end(),
                     [](const Knot& a, const Knot& b) { return a.ticks < b.ticks; });
    std::vector<Knot> kept;
    for (Knot knot : knots_) {
        if (!kept.empty() &&
            (knot.ticks == kept.back().ticks || knot.nanoseconds < kept.back().nanoseconds))
            continue;
        if (!kept.empty())
            knot.slope = TickConverter::slopeBetween(kept.back(), knot);
        kept.push_back(knot);
    }
    knots_ = std::move(kept);
}

/// Before the first pair it is its time; behind the last the latest line goes on.
inline std::int64_t TraceClock::operator()(std::uint64_t ticks) noexcept {
    if (ticksAreNanoseconds_)
        return static_cast<std::int64_t>(std::min<std::uint64_t>(ticks, INT64_MAX));
    if (knots_.empty())
        return 0;
    if (latest_ > 0 && knots_[latest_ - 1].ticks < ticks && ticks <= knots_[latest_].ticks)
        return TickConverter::Line{knots_[latest_ - 1], knots_[latest_]}.at(ticks);
    const auto to =
        std::lower_bound(knots_.begin(), knots_.end(), ticks,
                         [](const Knot& knot, std::uint64_t t) { return knot.ticks < t; });
    latest_ = to == knots_.end() ? 0 : static_cast<std::size_t>(to - knots_.begin());
    if (to == knots_.begin())
        return to->nanoseconds;
    if (to != knots_.end())
        return TickConverter::Line{to[-1], *to}.at(ticks);
    const Knot& last = knots_.back();
    const auto beyond = static_cast<Uint128>(ticks - last.ticks) * last.slope >> 58;
    return saturatingAdd(last.nanoseconds, static_cast<std::int64_t>(std::min<Uint128>(
                                               beyond, static_cast<Uint128>(INT64_MAX))));
}

}  // namespace instrument::detail
