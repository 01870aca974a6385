// Something that can be paused, more than once.
#pragma once

#include <atomic>
#include <cstdint>

#include "zandor/performance/export.hpp"

namespace Performance {

/// Counts pauses and resumes. The depth is signed, may go below zero, and is never clamped: only a
/// depth above zero is a pause. From any thread.
class Pauseable {
  public:
    void pause() noexcept { depth_.fetch_add(1, std::memory_order_relaxed); }
    void resume() noexcept { depth_.fetch_sub(1, std::memory_order_relaxed); }

    /// Relaxed, as all of the class: a pause is a wish, and publishes nothing.
    std::int32_t pauseDepth() const noexcept { return depth_.load(std::memory_order_relaxed); }
    bool isPaused() const noexcept { return pauseDepth() > 0; }

  private:
    std::atomic<std::int32_t> depth_{0};  // relaxed
};

}  // namespace Performance
