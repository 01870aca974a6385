#include "lod_lane.hpp"

#include <algorithm>
#include <bit>
#include <utility>

namespace instrument::detail {
namespace {

std::uint64_t distance(std::int64_t from, std::int64_t to) noexcept {
    return static_cast<std::uint64_t>(to) - static_cast<std::uint64_t>(from);
}

}  // namespace

void LodLane::coarsen(int shift) {
    LodLane coarser;
    for (const LodSlice& slice : slices_)
        coarser.add(slice, shift);
    coarser.slices_.shrink_to_fit();
    *this = std::move(coarser);
}

LodLane LodLane::window(std::int64_t begin, std::int64_t end, int shift) const {
    const auto isOver = [begin](const LodSlice& slice) {
        return slice.end < begin || (slice.end == begin && slice.begin < begin);
    };
    LodLane found;
    for (auto at = std::ranges::partition_point(slices_, isOver);
         at != slices_.end() && at->begin < end; ++at)
        found.add(*at, shift);
    return found;
}

int lodShift(std::int64_t begin, std::int64_t end, std::uint32_t pixels) noexcept {
    const std::uint64_t pixel = distance(begin, end) / std::max(pixels, 1u);
    return std::clamp(static_cast<int>(std::bit_width(pixel)) - 1, 0, LodLane::largestShift);
}

}  // namespace instrument::detail
