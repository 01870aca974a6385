// Where events of a source meet.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>
#include <vector>

namespace instrument::detail {

/// A source and a time.
using Meeting = std::pair<std::uint32_t, std::int64_t>;

/// Few of them, among very many that are asked for: a bit of the time's hash tells most apart.
class Meetings {
  public:
    Meetings() = default;
    explicit Meetings(std::vector<Meeting> all) : all_(std::move(all)) {
        if (all_.empty())
            return;
        std::ranges::sort(all_);
        bits_.resize(std::bit_ceil(all_.size()));
        for (const auto& [source, time] : all_)
            wordOf(time) |= bitOf(time);
    }

    bool has(std::uint32_t source, std::int64_t time) const noexcept {
        if ((wordOf(time) & bitOf(time)) == 0) [[likely]]
            return false;
        return std::ranges::binary_search(all_, Meeting(source, time));
    }
    std::span<const Meeting> sorted() const noexcept { return all_; }

  private:
    static std::uint64_t hashOf(std::int64_t time) noexcept {
        return static_cast<std::uint64_t>(time) * 0x9e37'79b9'7f4a'7c15;
    }
    static std::uint64_t bitOf(std::int64_t time) noexcept {
        return std::uint64_t{1} << (hashOf(time) >> 58);
    }
    const std::uint64_t& wordOf(std::int64_t time) const noexcept {
        return bits_[(hashOf(time) >> 32) & (bits_.size() - 1)];
    }
    std::uint64_t& wordOf(std::int64_t time) noexcept {
        return bits_[(hashOf(time) >> 32) & (bits_.size() - 1)];
    }

    std::vector<Meeting> all_;
    std::vector<std::uint64_t> bits_ = {0};  // a power of two of words
};

}  // namespace instrument::detail
