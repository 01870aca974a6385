// Events in the order in which they enclose each other.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <numeric>
#include <span>
#include <vector>

#include "zandor/instrument/recording.hpp"

namespace instrument::detail {

/// When an event ends as others see that might enclose it: one that is still open outlives all.
inline std::int64_t outlives(const RecordedEvent& event) noexcept {
    return event.finished ? event.stop : INT64_MAX;
}

/// When an event ends where an end is needed: an open one at the last time of all.
inline std::int64_t closingTime(const Recording& recording, const RecordedEvent& event) noexcept {
    return event.finished ? event.stop : std::max(recording.lastTime, event.start);
}

/// Calls `visit` with the indices of each run of events that start `together` (events that start at
/// once do): by start, of those that start at once the longer first, else as recorded.
template <typename Together, typename Visit>
void forEachRun(const std::vector<RecordedEvent>& events, Together together, Visit visit) {
    const auto encloses = [&](std::size_t a, std::size_t b) {
        return events[a].start != events[b].start ? events[a].start < events[b].start
                                                  : outlives(events[a]) > outlives(events[b]);
    };
    std::vector<std::size_t> run;
    for (std::size_t begin = 0, end = 0; begin < events.size(); begin = end) {
        end = begin + 1;
        while (end < events.size() && together(events[begin].start, events[end].start))
            ++end;
        if (end == begin + 1) {
            visit(std::span<const std::size_t>(&begin, 1));
            continue;
        }
        run.resize(end - begin);
        std::iota(run.begin(), run.end(), begin);
        std::stable_sort(run.begin(), run.end(), encloses);
        visit(std::span<const std::size_t>(run));
    }
}

/// Calls `visit` with each event in that order.
template <typename Visit>
void forEachEnclosingFirst(const std::vector<RecordedEvent>& events, Visit visit) {
    forEachRun(events, std::equal_to<>(), [&](std::span<const std::size_t> run) {
        for (const std::size_t i : run)
            visit(events[i]);
    });
}

}  // namespace instrument::detail
