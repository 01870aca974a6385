#include "trace_selection.hpp"

#include <algorithm>
#include <string>
#include <vector>

#include "event_order.hpp"
#include "saturating.hpp"
#include "trace_event_json.hpp"

namespace instrument::detail {
namespace {

class CountingSink : public TextSink {
  public:
    void write(std::string_view text) override { bytes_ += text.size(); }
    std::uint64_t bytes() const noexcept { return bytes_; }

  private:
    std::uint64_t bytes_ = 0;
};

std::int64_t durationOf(const Recording& recording, const RecordedEvent& event) noexcept {
    return saturatingSubtract(closingTime(recording, event), event.start);
}

/// Of each thread's events those that are among its longest.
void keepLongest(Recording& recording, std::size_t most) {
    std::vector<std::vector<std::size_t>> bySource(recording.sources.size());
    for (std::size_t i = 0; i < recording.events.size(); ++i)
        bySource[recording.events[i].source].push_back(i);
    std::vector<bool> kept(recording.events.size(), false);
    for (std::vector<std::size_t>& events : bySource) {
        const std::size_t count = std::min(most, events.size());
        std::nth_element(events.begin(), events.begin() + static_cast<std::ptrdiff_t>(count),
                         events.end(), [&](std::size_t a, std::size_t b) {
                             return durationOf(recording, recording.events[a]) >
                                    durationOf(recording, recording.events[b]);
                         });
        for (std::size_t i = 0; i < count; ++i)
            kept[events[i]] = true;
    }
    std::size_t next = 0;
    std::erase_if(recording.events, [&](const RecordedEvent&) { return !kept[next++]; });
}

struct Range {
    std::size_t first;
    std::size_t count;
};

/// The events of a range, and the points from its first event's start until the next range's.
Recording partOf(const Recording& recording, Range range) {
    Recording part = recording;
    const auto begin = recording.events.begin() + static_cast<std::ptrdiff_t>(range.first);
    part.events.assign(begin, begin + static_cast<std::ptrdiff_t>(range.count));
    const std::size_t end = range.first + range.count;
    const std::int64_t from = range.first == 0 ? INT64_MIN : part.events.front().start;
    const std::int64_t until =
        end == recording.events.size() ? INT64_MAX : recording.events[end].start;
    std::erase_if(part.strayPoints, [&](const RecordedPoint& point) {
        return point.time < from || (point.time >= until && until != INT64_MAX);
    });
    return part;
}

}  // namespace

void select(Recording& recording, const TraceSelection& selection) {
    const auto at = [&](const std::optional<std::int64_t>& time, std::int64_t otherwise) {
        return time ? saturatingAdd(recording.originMonotonic, *time) : otherwise;
    };
    const std::int64_t since = at(selection.since, INT64_MIN);
    const std::int64_t until = at(selection.until, INT64_MAX);
    std::erase_if(recording.events, [&](const RecordedEvent& event) {
        return event.start > until || closingTime(recording, event) < since ||
               durationOf(recording, event) < selection.minimumDuration;
    });
    std::erase_if(recording.strayPoints, [&](const RecordedPoint& point) {
        return selection.minimumDuration >= 0 || point.time < since || point.time > until;
    });
    if (selection.mostPerThread > 0)
        keepLongest(recording, selection.mostPerThread);
    if (!selection.contexts) {
        for (RecordedEvent& event : recording.events)
            event.context = {};
        for (RecordedPoint& point : recording.strayPoints)
            point.context = {};
    }
}

void forEachPart(const Recording& recording, std::uint64_t mostBytes,
                 const std::function<void(const Recording&)>& write) {
    std::vector<Range> waiting{{0, recording.events.size()}};
    while (!waiting.empty()) {
        const Range range = waiting.back();
        waiting.pop_back();
        const Recording part = partOf(recording, range);
        CountingSink size;
        writeTraceEventJson(part, TimeSystem::monotonic, -1, size);
        if (size.bytes() <= mostBytes || range.count <= 1) {
            write(part);
            continue;
        }
        const std::size_t half = range.count / 2;
        waiting.push_back({range.first + half, range.count - half});
        waiting.push_back({range.first, half});
    }
}

std::filesystem::path numbered(const std::filesystem::path& file, std::size_t number) {
    if (number == 1)
        return file;
    const std::string name = file.filename();
    const std::size_t dot = std::min(name.find('.', 1), name.size());
    return file.parent_path() /
           (name.substr(0, dot) + "-" + std::to_string(number) + name.substr(dot));
}

}  // namespace instrument::detail
