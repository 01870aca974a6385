#include "lod_lane.hpp"

#include <algorithm>
#include <bit>
#include <limits>
#include <utility>

namespace instrument::detail {
namespace {

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
    into.marks |= next.marks;
    const std::uint64_t events = std::uint64_t{into.events} + next.events;
    into.events = static_cast<std::uint32_t>(
        std::min<std::uint64_t>(events, std::numeric_limits<std::uint32_t>::max()));
}

}  // namespace

LodSlice LodSlice::of(const LodEvent& event) noexcept {
    const std::uint64_t width = distance(event.start, event.end);
    return {event.start, event.end, event.serial, width, width, event.name, 1, event.marks};
}

void LodLane::add(LodSlice slice, int shift) {
    if (!slices_.empty()) {
        slice.begin = std::max(slice.begin, slices_.back().end);
        slice.end = std::max(slice.begin, slice.end);
    }
    const bool narrow = isNarrow(slice, shift);
    if (mayGrow_ && narrow && slices_.back().begin >> shift == slice.begin >> shift)
        merge(slices_.back(), slice);
    else
        slices_.push_back(slice);
    mayGrow_ = narrow;
}

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
