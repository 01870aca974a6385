#include "zandor/runtime/call_gate.hpp"

#include "zandor/runtime/zandor.hpp"

namespace zandor {

void CallGate::waitUntilIdle() const noexcept {
    for (;;) {
        const std::uint32_t state = state_.load(std::memory_order_acquire);
        if (state == closed)
            return;
        state_.wait(state, std::memory_order_acquire);
    }
}

void CallGate::recountAfterFork() noexcept {
    // Relaxed: the child has one thread.
    const std::uint32_t keep = state_.load(std::memory_order_relaxed) & closed;
    state_.store(keep | CallScope::depth(*this), std::memory_order_relaxed);
}

std::uint32_t CallScope::depth(const CallGate& gate) noexcept {
    std::uint32_t depth = 0;
    for (const CallScope* scope = innermost_; scope; scope = scope->outer_) {
        depth += scope->gate_ == &gate;
    }
    return depth;
}

void CallScope::throwNotLoaded() {
    throw NotLoadedError("plug-in is not loaded");
}

}  // namespace zandor
