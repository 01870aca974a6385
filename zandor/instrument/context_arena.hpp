// Context entries that stay where they are while more are added.
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include "zandor/instrument/instrument.hpp"

namespace instrument::detail {

class ContextArena {
  public:
    ContextArena() = default;
    ContextArena(ContextArena&& other) noexcept
        : pieces_(std::move(other.pieces_)),
          free_(std::exchange(other.free_, {})),
          size_(std::exchange(other.size_, 0)) {}
    ContextArena& operator=(ContextArena&& other) noexcept {
        pieces_ = std::move(other.pieces_);
        free_ = std::exchange(other.free_, {});
        size_ = std::exchange(other.size_, 0);
        return *this;
    }

    /// Room for up to `most` entries, of which `keep` keeps the first ones.
    std::span<ContextArg> room(std::size_t most) {
        if (free_.size() < most) {
            const std::size_t count = std::max(most, pieceSize);
            free_ = {pieces_.emplace_back(std::make_unique<ContextArg[]>(count)).get(), count};
        }
        return free_.first(most);
    }
    ContextArgs keep(std::size_t count) noexcept {
        const ContextArgs kept = free_.first(count);
        free_ = free_.subspan(count);
        size_ += count;
        return kept;
    }
    std::size_t size() const noexcept { return size_; }

  private:
    static constexpr std::size_t pieceSize = 512;

    std::vector<std::unique_ptr<ContextArg[]>> pieces_;
    std::span<ContextArg> free_;
    std::size_t size_ = 0;
};

}  // namespace instrument::detail
