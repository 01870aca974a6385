#include "lod_lane.hpp"

#include <algorithm>
#include <bit>
#include <limits>
#include <span>
#include <stdexcept>
#include <utility>

namespace instrument::detail {
namespace {

constexpr int shiftStep = 2;
constexpr int largestShift = 60;

std::uint64_t distance(std::int64_t from, std::int64_t to) noexcept {
    return static_cast<std::uint64_t>(to) - static_cast<std::uint64_t>(from);
}

bool isNarrow(const LodSlice& slice, int shift) noexcept {
    return distance(slice.begin, slice.end) < std::uint64_t{1} << shift;
}

// Weighted majority vote: its outcome does not depend on how the slices were merged before, as far
// as a name with more than half of the time goes.
void vote(LodSlice& into, const LodSlice& next) noexcept {
    if (into.name == next.name) {
        into.lead += next.lead;
    } else if (into.lead >= next.lead) {
        into.lead -= next.lead;
    } else {
        into.lead = next.lead - into.lead;
        into.name = next.name;
    }
}

void merge(LodSlice& into, const LodSlice& next) noexcept {
    vote(into, next);
    into.end = next.end;
    into.busy += next.busy;
    const std::uint64_t events = std::uint64_t{into.events} + next.events;
    into.events = static_cast<std::uint32_t>(
        std::min<std::uint64_t>(events, std::numeric_limits<std::uint32_t>::max()));
}

// Narrow neighbours that begin in the same cell become one.
std::vector<LodSlice> merged(std::span<const LodSlice> slices, int shift) {
    std::vector<LodSlice> out;
    bool mayGrow = false;
    for (const LodSlice& slice : slices) {
        const bool narrow = isNarrow(slice, shift);
        if (mayGrow && narrow && out.back().begin >> shift == slice.begin >> shift) {
            merge(out.back(), slice);
        } else {
            out.push_back(slice);
        }
        mayGrow = narrow;
    }
    return out;
}

void checkOrder(std::span<const LodSlice> slices) {
    std::int64_t last = std::numeric_limits<std::int64_t>::min();
    for (const LodSlice& slice : slices) {
        if (slice.begin < last || slice.end < slice.begin) {
            throw std::invalid_argument("the slices of a lane overlap or are not in order");
        }
        last = slice.end;
    }
}

}  // namespace

LodLane::LodLane(std::vector<LodSlice> slices) {
    checkOrder(slices);
    levels_.push_back({0, std::move(slices)});
    for (int shift = shiftStep; shift <= largestShift; shift += shiftStep) {
        const std::vector<LodSlice>& finer = levels_.back().slices;
        std::vector<LodSlice> coarser = merged(finer, shift);
        // Levels that save little are left out: all together take at most four times the first.
        if (coarser.size() < finer.size() / 4 * 3) {
            coarser.shrink_to_fit();
            levels_.push_back({shift, std::move(coarser)});
        }
    }
}

const LodLane::Level& LodLane::levelFor(int shift) const noexcept {
    const auto above = std::ranges::upper_bound(levels_, shift, {}, &Level::shift);
    return *std::prev(above);
}

std::vector<LodSlice> LodLane::window(std::int64_t begin, std::int64_t end,
                                      std::uint32_t pixels) const {
    if (begin >= end || pixels == 0) {
        return {};
    }
    const std::uint64_t pixel = distance(begin, end) / pixels;
    const int shift = std::clamp(static_cast<int>(std::bit_width(pixel)) - 1, 0, largestShift);
    const std::vector<LodSlice>& slices = levelFor(shift).slices;
    const auto isOver = [begin](const LodSlice& slice) {
        return slice.end < begin || (slice.end == begin && slice.begin < begin);
    };
    const auto first = std::ranges::partition_point(slices, isOver);
    const auto last = std::ranges::lower_bound(first, slices.end(), end, {}, &LodSlice::begin);
    return merged({first, last}, shift);
}

}  // namespace instrument::detail
