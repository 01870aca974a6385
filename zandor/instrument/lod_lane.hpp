// One lane of a timeline, given with no more detail than a screen can show.
#pragma once

#include <cstdint>
#include <vector>

#include "zandor/instrument/export.hpp"

namespace instrument::detail {

/// An event, or several neighbours that are too narrow to be told apart.
struct LodSlice {
    std::int64_t begin = 0;  ///< nanoseconds, as end
    std::int64_t end = 0;
    std::uint32_t name = 0;  ///< of several: the one with more than half of their time, if one has
    std::uint32_t events = 1;  ///< no more than 2^32 - 1 are counted
    std::uint64_t busy = 0;    ///< the events' time, without the gaps
    std::uint64_t lead = 0;    ///< at most by how much the name's time exceeds the others'

    static LodSlice event(std::int64_t begin, std::int64_t end, std::uint32_t name) noexcept {
        const std::uint64_t width =
            static_cast<std::uint64_t>(end) - static_cast<std::uint64_t>(begin);
        return {begin, end, name, 1, width, width};
    }
};

/// Slices of one depth: they do not overlap. Levels of ever wider cells are merged once, so that a
/// window costs about what it shows. Unchangeable, hence safe to read from several threads.
class ZANDOR_INSTRUMENT_API LodLane {
  public:
    /// Throws std::invalid_argument unless they are in order of time and do not overlap.
    explicit LodLane(std::vector<LodSlice> slices);

    /// What touches [begin, end), in order; at most 4 * pixels + 6 slices. Those narrower than half
    /// a pixel are merged with their neighbours. Nothing for an empty window or no pixels.
    std::vector<LodSlice> window(std::int64_t begin, std::int64_t end, std::uint32_t pixels) const;

  private:
    struct Level {
        int shift;  ///< cells are 2^shift nanoseconds wide
        std::vector<LodSlice> slices;
    };
    const Level& levelFor(int shift) const noexcept;

    std::vector<Level> levels_;
};

}  // namespace instrument::detail
