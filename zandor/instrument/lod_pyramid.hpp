// A timeline of any number of events in memory of fixed size.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <tuple>
#include <vector>

#include "lod_lane.hpp"
#include "lod_rows.hpp"

namespace instrument::detail {

/// What a window shows of one row.
struct LodRowSlices {
    std::uint32_t source = 0;
    LodRow row;
    std::vector<LodSlice> slices;
};

/// Which threads: those from `first` on up to `last`.
struct LodSources {
    std::uint32_t first = 0;
    std::uint32_t last = 0xffffffff;

    bool has(std::uint32_t source) const noexcept { return first <= source && source <= last; }
};

/// Merges narrow neighbours in ever wider cells, as many as it takes to keep its bound.
class ZANDOR_INSTRUMENT_API LodPyramid {
  public:
    static constexpr std::size_t mostSlices = 1'000'000;

    /// Begins with cells that wide.
    explicit LodPyramid(std::size_t sources, int shift = 0, std::size_t most = mostSlices)
        : most_(most), shift_(shift), rows_(sources) {}

    /// Events come in order (see enclosesFirst).
    void add(LodEvent event);

    /// What touches [begin, end) of these threads, merged in cells at least that wide.
    std::vector<LodRowSlices> window(std::int64_t begin, std::int64_t end, int shift,
                                     LodSources sources) const;

    /// How many rows of a kind a thread has.
    std::uint32_t rowsOf(std::uint32_t source, LodRow::Kind kind) const;
    /// Cells are 2^shift nanoseconds wide; narrower events were merged.
    int shift() const noexcept { return shift_; }
    std::size_t size() const noexcept { return size_; }

  private:
    struct Key {
        std::uint32_t source;
        LodRow row;
        friend bool operator==(const Key&, const Key&) = default;
        friend bool operator<(const Key& a, const Key& b) noexcept {
            return std::tie(a.source, a.row) < std::tie(b.source, b.row);
        }
    };
    LodLane& laneOf(const Key& key);
    void coarsen();

    std::size_t most_;
    int shift_;
    std::size_t size_ = 0;
    LodRows rows_;
    std::map<Key, LodLane> lanes_;
    Key latest_{};
    LodLane* latestLane_ = nullptr;
};

}  // namespace instrument::detail
