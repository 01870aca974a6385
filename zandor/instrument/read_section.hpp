// Reading what others may replace and free at any time, without a lock: a reader marks that it is
// inside; whoever took something out of sight frees it when every thread was seen outside since.
#pragma once

#include "thread_state.hpp"

namespace instrument::detail {

/// Brief, and may be nested, as signal handlers do.
class ReadSection {
  public:
    explicit ReadSection(ThreadState& state) noexcept
        : state_(state), before_(state.readSections.load(std::memory_order_relaxed)) {
        if (before_ & 1)
            return;
        state_.readSections.store(before_ + 1, std::memory_order_relaxed);
        // Pairs with the heavy fence in everybodyLeft.
        lightFence();
    }
    ~ReadSection() {
        // Pairs with the acquire in everybodyLeft: what was read was read before it is freed.
        if (!(before_ & 1))
            state_.readSections.store(before_ + 2, std::memory_order_release);
    }
    ReadSection(const ReadSection&) = delete;
    ReadSection& operator=(const ReadSection&) = delete;

  private:
    ThreadState& state_;
    std::uint64_t before_;
};

/// Whether every thread has been outside since the call began. Waits a little for those inside;
/// says no when one stays there.
bool everybodyLeft() noexcept;

}  // namespace instrument::detail
