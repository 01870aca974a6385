#include "longest_events.hpp"

#include <algorithm>
#include <functional>

namespace instrument::detail {

bool LongestEvents::takes(std::uint32_t source, std::int64_t duration) {
    if (bySource_.empty())
        return true;
    Source& known = bySource_[source];
    if (!isSettled_) {
        learn(known, duration);
        return true;
    }
    if (duration != known.least)
        return duration > known.least;
    if (known.leastLeft == 0)
        return false;
    --known.leastLeft;
    return true;
}

void LongestEvents::learn(Source& source, std::int64_t duration) {
    std::vector<std::int64_t>& longest = source.durations;
    if (longest.size() == most_) {
        if (duration <= longest.front())
            return;
        std::ranges::pop_heap(longest, std::greater<>());
        longest.pop_back();
    }
    longest.push_back(duration);
    std::ranges::push_heap(longest, std::greater<>());
}

void LongestEvents::settle() {
    for (Source& source : bySource_) {
        if (source.durations.empty())
            continue;
        source.least = source.durations.front();
        source.leastCount =
            static_cast<std::size_t>(std::ranges::count(source.durations, source.least));
        source.durations = {};
    }
    isSettled_ = true;
    beginAgain();
}

void LongestEvents::beginAgain() {
    for (Source& source : bySource_)
        source.leastLeft = source.leastCount;
}

}  // namespace instrument::detail
