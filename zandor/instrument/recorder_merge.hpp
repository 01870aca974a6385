// Sorting of what comes as a few sorted runs behind each other, one a thread.
#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

namespace instrument::detail {

/// Stable.
template <class Value, class Less>
void sortRuns(std::vector<Value>& values, Less less) {
    std::vector<std::size_t> bounds{0};
    for (std::size_t i = 1; i < values.size(); ++i)
        if (less(values[i], values[i - 1]))
            bounds.push_back(i);
    bounds.push_back(values.size());
    const auto at = [&](std::size_t bound) {
        return values.begin() + static_cast<std::ptrdiff_t>(bounds[bound]);
    };
    while (bounds.size() > 2) {
        std::vector<std::size_t> merged{0};
        for (std::size_t run = 0; run + 1 < bounds.size(); run += 2) {
            const std::size_t end = std::min(run + 2, bounds.size() - 1);
            std::inplace_merge(at(run), at(run + 1), at(end), less);
            merged.push_back(bounds[end]);
        }
        bounds = std::move(merged);
    }
}

}  // namespace instrument::detail
