#include "lod_pyramid.hpp"

#include <utility>

namespace instrument::detail {

void LodPyramid::add(LodEvent event) {
    const LodRow row = rows_.rowOf(event);
    LodLane& lane = laneOf({event.source, row});
    const std::size_t before = lane.size();
    lane.add(LodSlice::of(event), shift_);
    size_ += lane.size() - before;
    if (size_ > most_)
        coarsen();
}

LodLane& LodPyramid::laneOf(const Key& key) {
    if (!latestLane_ || key != latest_) {
        latest_ = key;
        latestLane_ = &lanes_[key];
    }
    return *latestLane_;
}

/// To half of the bound, so that it is done seldom. Where that cannot be, since there are so many
/// rows, the bound gives way.
void LodPyramid::coarsen() {
    while (size_ > most_ / 2 && shift_ < LodLane::largestShift) {
        ++shift_;
        size_ = 0;
        for (auto& [key, lane] : lanes_) {
            lane.coarsen(shift_);
            size_ += lane.size();
        }
    }
    if (size_ > most_ / 2)
        most_ = 2 * size_;
}

std::vector<LodRowSlices> LodPyramid::window(std::int64_t begin, std::int64_t end, int shift,
                                             LodSources sources) const {
    std::vector<LodRowSlices> rows;
    for (auto at = lanes_.lower_bound({sources.first, {}});
         at != lanes_.end() && sources.has(at->first.source); ++at) {
        const LodLane shown = at->second.window(begin, end, std::max(shift, shift_));
        if (shown.size() > 0)
            rows.push_back({at->first.source, at->first.row, shown.slices()});
    }
    return rows;
}

std::uint32_t LodPyramid::rowsOf(std::uint32_t source, LodRow::Kind kind) const {
    const auto behind = lanes_.upper_bound({source, {kind, 0xffffffff}});
    if (behind == lanes_.begin())
        return 0;
    const Key& last = std::prev(behind)->first;
    return last.source == source && last.row.kind == kind ? last.row.place + 1 : 0;
}

}  // namespace instrument::detail
