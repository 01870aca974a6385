#include "zandor/instrument/suppress_events.hpp"

#include "thread_state.hpp"

namespace instrument {

SuppressEvents::SuppressEvents() noexcept : state_(detail::ThreadState::ofThisThread()) {
    if (!state_ || state_->isInside()) {
        state_ = nullptr;
        return;
    }
    // Only handlers on this thread look for this mark: relaxed in effect, and kept in place by the
    // fence.
    state_->calling.store(state_->noListener(), std::memory_order_release);
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

SuppressEvents::~SuppressEvents() {
    // After a fork in the scope the state is not this thread's any more.
    if (!state_ || state_ != detail::ThreadState::find())
        return;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    state_->calling.store(nullptr, std::memory_order_release);
}

}  // namespace instrument
