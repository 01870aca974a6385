// Events in the order in which they enclose each other.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <numeric>
#include <optional>
#include <span>
#include <vector>

#include "zandor/instrument/event_stream.hpp"

namespace instrument::detail {

/// When an event ends as others see that might enclose it: one that is still open outlives all.
inline std::int64_t outlives(const RecordedEvent& event) noexcept {
    return event.finished ? event.stop : INT64_MAX;
}

/// When an event ends where an end is needed: an open one at the last time of all.
inline std::int64_t closingTime(const RecordingFacts& facts, const RecordedEvent& event) noexcept {
    return event.finished ? event.stop : std::max(facts.lastTime, event.start);
}

/// Calls `visit` with the indices of each run of events that start `together` (events that start at
/// once do): by start, of those that start at once the longer first, else as recorded.
template <typename Together, typename Visit>
void forEachRun(std::span<const RecordedEvent> events, Together together, Visit visit) {
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

/// Calls `visit` with each event of the stream in that order; with a source, with its alone.
template <typename Visit>
void forEachEnclosingFirst(EventStream& stream, Visit visit,
                           std::optional<std::uint32_t> source = {}) {
    const auto visitPiece = [&](std::span<const RecordedEvent> events) {
        forEachRun(events, std::equal_to<>(), [&](std::span<const std::size_t> run) {
            for (const std::size_t i : run)
                if (!source || events[i].source == *source)
                    visit(events[i]);
        });
    };
    forEachPiece(stream, visitPiece, source);
}

}  // namespace instrument::detail
