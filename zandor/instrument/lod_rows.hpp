// In which row of its thread an event is drawn.
#pragma once

#include <algorithm>
#include <cstdint>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "lod_event.hpp"
#include "source_stacks.hpp"

namespace instrument::detail {

/// Rows of a thread: events below what they are nested in; below those, side by side, events that
/// do not nest; instants.
struct LodRow {
    enum class Kind : std::uint8_t { nested, beside, instants };

    Kind kind = Kind::nested;
    std::uint32_t place = 0;  ///< among those of its kind, from the top

    friend bool operator==(const LodRow&, const LodRow&) = default;
    friend bool operator<(const LodRow& a, const LodRow& b) noexcept {
        return std::tie(a.kind, a.place) < std::tie(b.kind, b.place);
    }
};

/// Takes events in order (see enclosesFirst), and marks those that overlap. Of a part of a
/// recording it knows no more than that part: rows of events that do not nest may differ from those
/// in the whole.
class LodRows {
  public:
    static constexpr std::uint32_t mostNested = 512;  ///< deeper ones share the last row
    static constexpr std::uint32_t mostBeside = 64;   ///< as do more events at once

    explicit LodRows(std::size_t sources) : open_(sources) {}

    LodRow rowOf(LodEvent& event) {
        if (event.has(LodEvent::isInstant))
            return {LodRow::Kind::instants, 0};
        auto open = open_.of(event.source);
        while (!open.empty() && open.top().end <= event.start)
            open.pop();
        if (!open.empty() && open.top().end < event.end)
            event.marks |= LodEvent::overlaps;
        if (event.has(LodEvent::overlaps | LodEvent::stopsElsewhere))
            return {LodRow::Kind::beside, placeBeside(event)};
        const std::uint32_t depth = open.empty() ? 0 : open.top().depth + 1;
        open.push() = {event.end, depth};
        return {LodRow::Kind::nested, std::min(depth, mostNested - 1)};
    }

  private:
    struct Open {
        std::int64_t end;
        std::uint32_t depth;
    };

    /// The first row that is free; where none is, the one that is free first.
    std::uint32_t placeBeside(const LodEvent& event) {
        std::vector<std::int64_t>& ends = besideEnds_[event.source];
        auto place = std::ranges::find_if(ends, [&](auto end) { return end <= event.start; });
        if (place == ends.end() && ends.size() < mostBeside)
            place = ends.insert(ends.end(), event.end);
        else if (place == ends.end())
            place = std::ranges::min_element(ends);
        *place = std::max(*place, event.end);
        return static_cast<std::uint32_t>(place - ends.begin());
    }

    SourceStacks<Open> open_;
    std::unordered_map<std::uint32_t, std::vector<std::int64_t>> besideEnds_;
};

}  // namespace instrument::detail
