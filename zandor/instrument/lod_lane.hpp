// One row of a timeline, with no more detail than a screen can show.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

#include "lod_event.hpp"
#include "zandor/instrument/export.hpp"

namespace instrument::detail {

/// An event, or several neighbours that are too narrow to be told apart.
struct LodSlice {
    std::int64_t begin = 0;  ///< nanoseconds, as end
    std::int64_t end = 0;
    std::uint64_t serial = 0;  ///< of an event alone
    std::uint64_t busy = 0;    ///< the events' time, without the gaps
    std::uint64_t lead = 0;    ///< at most by how much the name's time exceeds the others'
    std::uint32_t name = 0;  ///< of several: the one with more than half of their time, if one has
    std::uint32_t events = 1;  ///< no more than 2^32 - 1 are counted
    std::uint32_t marks = 0;   ///< as LodEvent has them, of any

    static LodSlice of(const LodEvent& event) noexcept {
        const std::uint64_t width = distance(event.start, event.end);
        return {event.start, event.end, event.serial, width, width, event.name, 1, event.marks};
    }
    bool isNarrow(int shift) const noexcept {
        return distance(begin, end) < std::uint64_t{1} << shift;
    }
    /// Adds the neighbour behind it.
    void merge(const LodSlice& next) noexcept {
        vote(next);
        end = next.end;
        busy += next.busy;
        marks |= next.marks;
        constexpr std::uint64_t most = std::numeric_limits<std::uint32_t>::max();
        events = static_cast<std::uint32_t>(std::min(std::uint64_t{events} + next.events, most));
    }

  private:
    static std::uint64_t distance(std::int64_t from, std::int64_t to) noexcept {
        return static_cast<std::uint64_t>(to) - static_cast<std::uint64_t>(from);
    }
    // Weighted majority vote: its outcome does not depend on how the slices were merged before, as
    // far as a name with more than half of the time goes.
    void vote(const LodSlice& next) noexcept {
        if (name == next.name) {
            lead += next.lead;
        } else if (lead >= next.lead) {
            lead -= next.lead;
        } else {
            lead = next.lead - lead;
            name = next.name;
        }
    }
};

/// Slices of one row: they do not overlap. Those narrower than a cell, 2^shift nanoseconds, are
/// merged with their neighbours in the cell, so that a stretch of so many cells has at most twice
/// as many slices.
class ZANDOR_INSTRUMENT_API LodLane {
  public:
    static constexpr int largestShift = 62;

    /// What begins before the last one's end is cut.
    void add(LodSlice slice, int shift) {
        if (!slices_.empty()) {
            slice.begin = std::max(slice.begin, slices_.back().end);
            slice.end = std::max(slice.begin, slice.end);
        }
        const bool narrow = slice.isNarrow(shift);
        if (mayGrow_ && narrow && slices_.back().begin >> shift == slice.begin >> shift)
            slices_.back().merge(slice);
        else
            slices_.push_back(slice);
        mayGrow_ = narrow;
    }
    /// Merges what is too narrow for wider cells.
    void coarsen(int shift);
    std::size_t size() const noexcept { return slices_.size(); }
    const std::vector<LodSlice>& slices() const noexcept { return slices_; }

    /// What touches [begin, end) in cells at least that wide.
    LodLane window(std::int64_t begin, std::int64_t end, int shift) const;

  private:
    std::vector<LodSlice> slices_;
    bool mayGrow_ = false;  // the last one was narrow
};

/// The widest cells that are not wider than a pixel.
ZANDOR_INSTRUMENT_API int lodShift(std::int64_t begin, std::int64_t end,
                                   std::uint32_t pixels) noexcept;

}  // namespace instrument::detail
