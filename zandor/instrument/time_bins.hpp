// The time of a recording in equal parts, and values that belong to some of them.
#pragma once

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

#include "saturating.hpp"

namespace instrument::detail {

class TimeBins {
  public:
    /// At most so many parts of at least a nanosecond.
    TimeBins(std::int64_t origin, std::int64_t duration, std::uint32_t most)
        : origin_(origin), width_(duration / most + 1), last_(duration / width_) {}

    std::uint32_t count() const noexcept { return static_cast<std::uint32_t>(last_) + 1; }
    std::int64_t width() const noexcept { return width_; }

    /// What lies outside belongs to the first or last.
    std::uint32_t of(std::int64_t time) const noexcept {
        const std::int64_t bin = saturatingSubtract(time, origin_) / width_;
        return static_cast<std::uint32_t>(std::clamp<std::int64_t>(bin, 0, last_));
    }

    /// Calls `visit(bin, nanoseconds)` for each bin that a stretch of time lies in.
    template <class Visit>
    void forEach(std::int64_t from, std::int64_t nanoseconds, Visit visit) const {
        const std::int64_t to = saturatingAdd(from, nanoseconds);
        while (from < to) {
            const std::uint32_t bin = of(from);
            const std::int64_t end = bin == last_ ? to : std::min(to, endOf(bin));
            visit(bin, saturatingSubtract(end, from));
            from = end;
        }
    }

  private:
    std::int64_t endOf(std::uint32_t bin) const noexcept { return origin_ + (bin + 1) * width_; }

    std::int64_t origin_;
    std::int64_t width_;
    std::int64_t last_;
};

/// Values by key, where there are any. Quick where keys come nearly in order, as time does.
template <class Value>
class SparseValues {
  public:
    using Entry = std::pair<std::uint32_t, Value>;

    Value& at(std::uint32_t key) {
        if (entries_.empty() || entries_.back().first < key)
            return entries_.emplace_back(key, Value()).second;
        if (entries_.back().first == key)
            return entries_.back().second;
        const auto place = std::ranges::lower_bound(entries_, key, {}, &Entry::first);
        if (place->first == key)
            return place->second;
        return entries_.emplace(place, key, Value())->second;
    }

    void add(const SparseValues& others) {
        for (const auto& [key, value] : others.entries_)
            at(key).add(value);
    }

    const std::vector<Entry>& entries() const noexcept { return entries_; }
    std::size_t size() const noexcept { return entries_.size(); }

  private:
    std::vector<Entry> entries_;
};

}  // namespace instrument::detail
